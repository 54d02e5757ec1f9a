// Host property store: one regular file per property under /dev/__properties__,
// holding the value's bytes and nothing else. It keeps the rules a device's
// property service applies to the program's calls.
#include "tarnwick/platform/platform.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <string>

namespace {

// What the platform hands back for a read-only value too long for the old API.
const char kLongValueText[] = "Must use __system_property_read_callback() to read";

bool is_read_only(const char* key) { return strncmp(key, "ro.", 3) == 0; }

std::string property_path(const char* key) {
  return std::string(tarnwick_host::kPropertyDir) + "/" + key;
}

// Copies |text| into |value|, cut to PROP_VALUE_MAX - 1 bytes; returns the length.
int copy_value(char* value, const char* text, size_t length) {
  if (length > PROP_VALUE_MAX - 1) length = PROP_VALUE_MAX - 1;
  memcpy(value, text, length);
  value[length] = '\0';
  return static_cast<int>(length);
}

// Reads up to |size| bytes of |path| into |buf|; returns the count, or -1 when
// the file cannot be opened.
ssize_t read_prefix(const std::string& path, char* buf, size_t size) {
  int fd = device_open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -1;
  size_t total = 0;
  while (total < size) {
    ssize_t n = read(fd, buf + total, size - total);
    if (n <= 0) break;
    total += static_cast<size_t>(n);
  }
  close(fd);
  return static_cast<ssize_t>(total);
}

// Replaces the file at |path| with |value|: written beside it, then renamed.
// The temporary name starts with a dot, which no property name can, so one
// left behind by a crash never reads as a property.
int write_atomically(const std::string& path, const char* value) {
  std::string tmp = std::string(tarnwick_host::kPropertyDir) + "/.tmp." + std::to_string(getpid());
  int fd = device_open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return -1;
  size_t length = strlen(value);
  size_t done = 0;
  while (done < length) {
    ssize_t n = write(fd, value + done, length - done);
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  bool ok = done == length;
  if (close(fd) != 0) ok = false;
  if (ok && tarnwick_host::rename_path(tmp.c_str(), path.c_str()) == 0) return 0;
  device_remove(tmp.c_str());
  return -1;
}

}  // namespace

namespace tarnwick_host {

bool is_legal_property_name(const char* name) {
  size_t length = strlen(name);
  if (length == 0 || name[0] == '.' || name[length - 1] == '.') return false;
  for (size_t i = 0; i < length; ++i) {
    char c = name[i];
    if (c == '.') {
      if (name[i + 1] == '.') return false;
      continue;
    }
    bool ok = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
              c == '_' || c == '-' || c == ':' || c == '@';
    if (!ok) return false;
  }
  return true;
}

bool is_valid_utf8(const char* value) {
  const unsigned char* p = reinterpret_cast<const unsigned char*>(value);
  while (*p) {
    unsigned c = *p;
    int extra;
    unsigned code;
    unsigned min;
    if (c < 0x80) {
      ++p;
      continue;
    } else if ((c & 0xE0) == 0xC0) {
      extra = 1, code = c & 0x1F, min = 0x80;
    } else if ((c & 0xF0) == 0xE0) {
      extra = 2, code = c & 0x0F, min = 0x800;
    } else if ((c & 0xF8) == 0xF0) {
      extra = 3, code = c & 0x07, min = 0x10000;
    } else {
      return false;
    }
    for (int i = 1; i <= extra; ++i) {
      if ((p[i] & 0xC0) != 0x80) return false;  // also stops at the zero byte
      code = (code << 6) | (p[i] & 0x3F);
    }
    if (code < min || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return false;
    p += extra + 1;
  }
  return true;
}

}  // namespace tarnwick_host

extern "C" int property_get(const char* key, char* value, const char* default_value) {
  if (key != nullptr && tarnwick_host::is_legal_property_name(key)) {
    char buf[PROP_VALUE_MAX];
    ssize_t n = read_prefix(property_path(key), buf, sizeof(buf));
    if (n >= PROP_VALUE_MAX) return copy_value(value, kLongValueText, strlen(kLongValueText));
    if (n > 0) return copy_value(value, buf, static_cast<size_t>(n));
  }
  if (default_value == nullptr) default_value = "";
  return copy_value(value, default_value, strlen(default_value));
}

extern "C" int property_set(const char* key, const char* value) {
  if (key == nullptr || value == nullptr || !tarnwick_host::is_legal_property_name(key)) return -1;
  std::string path = property_path(key);
  if (is_read_only(key)) {
    const int existing = device_open(path.c_str(), O_PATH | O_CLOEXEC);
    if (existing >= 0) {
      close(existing);
      return -1;
    }
  } else if (strlen(value) >= PROP_VALUE_MAX) {
    return -1;
  }
  if (!tarnwick_host::is_valid_utf8(value)) return -1;
  return write_atomically(path, value);
}
