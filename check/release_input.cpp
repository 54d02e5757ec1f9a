// Which kind of release the checker was given, told by its content, and the
// reader that takes it.
#include "check/release_input.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include <android-base/unique_fd.h>

#include "check/check.h"
#include "check/release_tree.h"

using android::base::unique_fd;

namespace {

// Where each format says what it is. ZIP: a local file header, or the end
// record of an archive without entries; Android's sparse image: its header;
// EROFS and ext4: their superblocks, at 1024 bytes.
const char kZipMagic[] = "PK\x03\x04";
const char kEmptyZipMagic[] = "PK\x05\x06";
const uint32_t kSparseMagic = 0xed26ff3a;
const size_t kErofsMagicAt = 1024;
const uint32_t kErofsMagic = 0xe0f5e1e2;
const size_t kExt4MagicAt = 1024 + 0x38;
const uint16_t kExt4Magic = 0xef53;
// Where a sparse image's raw image is written, in the scratch directory.
const char kRawImage[] = "/raw.img";

enum class Format { kUnknown, kZip, kSparse, kExt4, kErofs };

uint32_t little_endian(const unsigned char* at, size_t bytes) {
  uint32_t value = 0;
  for (size_t i = bytes; i-- > 0;) value = value << 8 | at[i];
  return value;
}

Format format_of(int fd) {
  unsigned char head[2048] = {};
  if (pread(fd, head, sizeof(head), 0) < 4) return Format::kUnknown;
  if (memcmp(head, kZipMagic, 4) == 0 || memcmp(head, kEmptyZipMagic, 4) == 0) return Format::kZip;
  if (little_endian(head, 4) == kSparseMagic) return Format::kSparse;
  if (little_endian(head + kErofsMagicAt, 4) == kErofsMagic) return Format::kErofs;
  if (little_endian(head + kExt4MagicAt, 2) == kExt4Magic) return Format::kExt4;
  return Format::kUnknown;
}

// A directory: an extracted target-files package when it has VENDOR/ or
// SYSTEM/, else a vendor ODM tree, a vendor directory or a device root.
bool read_directory(const std::string& given, ReleaseInput* in, std::string* error) {
  const std::string base = std::filesystem::absolute(given);
  const InputLookup lookup = host_lookup(base);
  std::string path;
  if (lookup("VENDOR").type != InputNode::kMissing ||
      lookup("SYSTEM").type != InputNode::kMissing) {
    in->kind = "extracted target-files package";
    std::string why;
    if (!find_package_tree(lookup, &path, &why)) {
      *error = shown(given) + ": " + in->kind + ": " + why;
      return false;
    }
  } else {
    in->kind = "directory";
    std::string why;
    if (!find_in_input("/vendor/etc/odm", {{"/", ""}}, lookup, &path, &why) &&
        !find_in_input("/vendor/etc/odm", {{"/vendor", ""}}, lookup, &path, &why)) {
      path.clear();
    }
  }
  in->inner = path;
  in->tree = path.empty() ? base : base + "/" + path;
  return true;
}

bool read_image(int fd, Format format, const std::string& scratch, ReleaseInput* in,
                std::string* why) {
  return format == Format::kExt4 ? read_ext4(fd, scratch, in, why)
                                 : read_erofs(fd, scratch, in, why);
}

}  // namespace

bool read_release(const std::string& given, const std::string& scratch, ReleaseInput* in,
                  std::string* error) {
  in->given = given;
  const std::string name = shown(given);
  struct stat st;
  if (stat(given.c_str(), &st) != 0) {
    *error = "cannot read " + name + ": " + strerror(errno);
    return false;
  }
  if (S_ISDIR(st.st_mode)) return read_directory(given, in, error);
  // Opening a FIFO would wait for a writer, a device could be read without end.
  if (!S_ISREG(st.st_mode)) {
    *error = name + " is neither a directory nor a file";
    return false;
  }
  unique_fd fd(open(given.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (fd < 0 || fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
    *error = "cannot read " + name + ": " + (fd < 0 ? strerror(errno) : "not a file");
    return false;
  }
  std::string why;
  bool ok = false;
  switch (format_of(fd.get())) {
    case Format::kZip:
      in->kind = "target-files package (ZIP)";
      ok = read_zip(fd.get(), scratch, in, &why);
      break;
    case Format::kExt4:
      in->kind = "ext4 image";
      ok = read_ext4(fd.get(), scratch, in, &why);
      break;
    case Format::kErofs:
      in->kind = "EROFS image";
      ok = read_erofs(fd.get(), scratch, in, &why);
      break;
    case Format::kSparse: {
      in->kind = "sparse image";
      const std::string raw_path = scratch + kRawImage;
      if (!unsparse(fd.get(), raw_path, &why)) break;
      unique_fd raw(open(raw_path.c_str(), O_RDONLY | O_CLOEXEC));
      // The raw image goes as soon as it is open: the readers need no more.
      unlink(raw_path.c_str());
      const Format inner = raw < 0 ? Format::kUnknown : format_of(raw.get());
      if (inner != Format::kExt4 && inner != Format::kErofs) {
        why = "holds neither an ext4 nor an EROFS file system";
        break;
      }
      in->kind = inner == Format::kExt4 ? "sparse ext4 image" : "sparse EROFS image";
      ok = read_image(raw.get(), inner, scratch, in, &why);
      break;
    }
    case Format::kUnknown:
      *error = name +
               " is neither a directory, a target-files package (ZIP), nor an ext4 or "
               "EROFS image, raw or sparse";
      return false;
  }
  if (!ok) *error = name + ": " + in->kind + ": " + why;
  return ok;
}
