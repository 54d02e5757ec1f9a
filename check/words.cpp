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

void add_finding(Report* report, std::string code, bool error, std::string subject,
                 std::string message, std::string advice) {
  report->findings.push_back({std::move(code), error, std::move(subject), std::move(message),
                              std::move(advice)});
}

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
