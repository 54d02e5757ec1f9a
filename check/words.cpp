// Words the checker's parts share: how a text is shown, where a path stands
// in the tree, and how a finding is added.
#include <stdio.h>

#include <algorithm>
#include <filesystem>

#include "check/check.h"
#include "tarnwick/paths.h"

namespace fs = std::filesystem;

std::string shown(const std::string& text) {
  const bool plain = !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char c) {
    return isalnum(c) || c == '_' || c == '-' || c == '.';
  });
  if (plain) return text;
  std::string out = "\"";
  for (unsigned char c : text) {
    char buf[8];
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c < 0x20 || c >= 0x7f) {
      snprintf(buf, sizeof(buf), "\\x%02x", c);
      out += buf;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

size_t utf8_sequence(const std::string& text, size_t at, uint32_t* code_point) {
  const auto byte = [&](size_t i) { return i < text.size() ? static_cast<unsigned char>(text[i]) : 0; };
  const unsigned char c = byte(at);
  size_t n;
  unsigned char low = 0x80, high = 0xbf;  // the bounds of the second byte
  if (c < 0x80) {
    *code_point = c;
    return 1;
  } else if (c >= 0xc2 && c <= 0xdf) {
    n = 2;
  } else if (c >= 0xe0 && c <= 0xef) {
    n = 3;
    if (c == 0xe0) low = 0xa0;
    if (c == 0xed) high = 0x9f;  // no surrogates
  } else if (c >= 0xf0 && c <= 0xf4) {
    n = 4;
    if (c == 0xf0) low = 0x90;
    if (c == 0xf4) high = 0x8f;
  } else {
    return 0;
  }
  uint32_t cp = c & (0xff >> (n + 1));
  for (size_t i = 1; i < n; ++i) {
    const unsigned char next = byte(at + i);
    if (next < (i == 1 ? low : 0x80) || next > (i == 1 ? high : 0xbf)) return 0;
    cp = cp << 6 | (next & 0x3f);
  }
  *code_point = cp;
  return n;
}

std::string printable(const std::string& text) {
  std::string out;
  const auto escape = [&](size_t from, size_t n) {
    for (size_t i = from; i < from + n; ++i) {
      char buf[8];
      snprintf(buf, sizeof(buf), "\\x%02x", static_cast<unsigned char>(text[i]));
      out += buf;
    }
  };
  for (size_t i = 0; i < text.size();) {
    uint32_t cp;
    const size_t n = utf8_sequence(text, i, &cp);
    const bool acts = n == 0 || cp < 0x20 || (cp >= 0x7f && cp < 0xa0) || cp == 0x200e ||
                      cp == 0x200f || cp == 0x2028 || cp == 0x2029 ||
                      (cp >= 0x202a && cp <= 0x202e) || (cp >= 0x2066 && cp <= 0x2069);
    if (acts) {
      escape(i, n == 0 ? 1 : n);
    } else {
      out.append(text, i, n);
    }
    i += n == 0 ? 1 : n;
  }
  return out;
}

void add_finding(Report* report, std::string code, bool error, std::string subject,
                 std::string message, std::string advice, std::vector<Location> locations,
                 std::vector<size_t> releases) {
  std::sort(locations.begin(), locations.end());
  locations.erase(std::unique(locations.begin(), locations.end()), locations.end());
  report->findings.push_back({std::move(code), error, std::move(subject), std::move(message),
                              std::move(advice), std::move(locations), std::move(releases)});
}

Location in_tree_file(const std::string& path, int line) { return {kInTree, path, line}; }

Location vendor_file(const std::string& device_path) { return in_tree_file(in_tree(device_path)); }

std::string in_tree(const std::string& path) {
  return path.substr(fs::path(kModelTreePrefix).parent_path().string().size() + 1);
}

std::string join(const std::vector<std::string>& texts, size_t limit) {
  std::string out;
  for (size_t i = 0; i < texts.size() && i < limit; ++i) {
    out += (i == 0 ? "" : ", ") + shown(texts[i]);
  }
  if (texts.size() > limit) out += " and " + std::to_string(texts.size() - limit) + " more";
  return out;
}

std::string comma_list(const std::vector<std::string>& texts) {
  std::string out;
  for (const auto& t : texts) out += (out.empty() ? "" : ", ") + t;
  return out;
}
