#include "powerloss/odm_check.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <system_error>

namespace {

const char kStamp[] = "odmver.txt";
const char kLostFound[] = "lost+found";
// A diverging /odm can differ in every file; the first few say enough.
const size_t kMaxDifferences = 8;

struct Node {
  mode_t mode = 0;
  std::string content;  // a file's bytes, or a link's target
};

bool read_bytes(const std::string& path, std::string* bytes) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  bytes->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return !in.bad();
}

// Every entry under |root| by its path relative to it ("" for |root|). What
// cannot be read is named in |errors|, never passed over: a tree read in
// part must not pass for the whole.
std::map<std::string, Node> scan(const std::string& root, bool skip_lost_found,
                                 std::vector<std::string>* errors) {
  std::map<std::string, Node> nodes;
  struct stat st;
  if (lstat(root.c_str(), &st) != 0) {
    errors->push_back(root + ": cannot read: " + strerror(errno));
    return nodes;
  }
  nodes[""].mode = st.st_mode;
  std::error_code listing;
  auto it = std::filesystem::recursive_directory_iterator(root, listing);
  for (; !listing && it != std::filesystem::recursive_directory_iterator(); it.increment(listing)) {
    std::error_code ec;
    const std::string rel = std::filesystem::relative(it->path(), root, ec).string();
    if (skip_lost_found && rel == kLostFound) {
      it.disable_recursion_pending();
      continue;
    }
    Node& node = nodes[rel];
    if (lstat(it->path().c_str(), &st) != 0) {
      errors->push_back(it->path().string() + ": cannot read: " + strerror(errno));
      continue;
    }
    node.mode = st.st_mode;
    if (S_ISREG(st.st_mode)) {
      if (!read_bytes(it->path(), &node.content)) errors->push_back(it->path().string() + ": cannot read its bytes");
    } else if (S_ISLNK(st.st_mode)) {
      node.content = std::filesystem::read_symlink(it->path(), ec).string();
      if (ec) errors->push_back(it->path().string() + ": cannot read the link: " + ec.message());
    }
  }
  if (listing) errors->push_back(root + ": cannot list it to the end: " + listing.message());
  return nodes;
}

const char* type_name(mode_t mode) {
  if (S_ISREG(mode)) return "file";
  if (S_ISDIR(mode)) return "directory";
  if (S_ISLNK(mode)) return "link";
  return "special file";
}

std::string octal(mode_t mode) {
  std::ostringstream out;
  out << std::oct << (mode & 07777);
  return out.str();
}

// The stamp's version line: its last line, without the newline.
std::string version_line(const std::string& stamp) {
  std::string body = stamp;
  if (!body.empty() && body.back() == '\n') body.pop_back();
  const size_t newline = body.rfind('\n');
  return newline == std::string::npos ? body : body.substr(newline + 1);
}

// |text| printable in one line: C escapes for anything else.
std::string printable(const std::string& text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    if (c == '"' || c == '\\') out += '\\';
    if (c >= 0x20 && c < 0x7f) {
      out += static_cast<char>(c);
    } else {
      char esc[8];
      snprintf(esc, sizeof(esc), "\\x%02x", c);
      out += esc;
    }
  }
  return out + "\"";
}

// How |got| differs from |want| at |path|, or "" when it does not.
std::string difference(const std::string& path, const Node* got, const Node& want) {
  if (got == nullptr) return path + ": missing";
  if ((got->mode & S_IFMT) != (want.mode & S_IFMT)) {
    return path + ": a " + type_name(got->mode) + " where a " + type_name(want.mode) + " belongs";
  }
  if (S_ISREG(want.mode) && got->content.size() != want.content.size()) {
    return path + (got->content.size() < want.content.size() ? ": short, " : ": long, ") +
           std::to_string(got->content.size()) + " of " + std::to_string(want.content.size()) +
           " bytes";
  }
  if (got->content != want.content) {
    if (S_ISLNK(want.mode)) return path + ": links to " + printable(got->content);
    size_t at = 0;
    while (got->content[at] == want.content[at]) ++at;
    return path + ": differs from byte " + std::to_string(at);
  }
  if ((got->mode & 07777) != (want.mode & 07777)) {
    return path + ": mode " + octal(got->mode) + ", not " + octal(want.mode);
  }
  return "";
}

// |rel| as the device sees it.
std::string label(const std::string& rel) { return rel.empty() ? "/odm" : "/odm/" + rel; }

void add(std::vector<std::string>* report, size_t* count, const std::string& line) {
  if ((*count)++ < kMaxDifferences) report->push_back(line);
}

}  // namespace

bool check_stamp(const std::string& odm, const std::string& reference,
                 std::vector<std::string>* report) {
  std::string stamp;
  std::string want;
  const bool has_stamp = read_bytes(odm + "/" + kStamp, &stamp);
  read_bytes(reference + "/" + kStamp, &want);
  const bool vouches = has_stamp && version_line(stamp) == version_line(want);
  if (!has_stamp) {
    report->push_back("stamp: none");
  } else {
    report->push_back("stamp: " + printable(stamp) + (vouches ? " (the new version)" : ""));
  }
  if (!vouches) return true;

  std::vector<std::string> errors;
  const std::map<std::string, Node> got = scan(odm, true, &errors);
  size_t count = 0;
  for (const std::string& error : errors) add(report, &count, error);
  for (const auto& [path, node] : scan(reference, false, &errors)) {
    if (!S_ISREG(node.mode) || path == kStamp) continue;
    auto it = got.find(path);
    const std::string diff = difference(label(path), it == got.end() ? nullptr : &it->second, node);
    if (!diff.empty()) add(report, &count, diff);
  }
  if (count > kMaxDifferences) report->push_back("and " + std::to_string(count - kMaxDifferences) + " more");
  return count == 0;
}

bool compare_odm(const std::string& odm, const std::string& reference,
                 std::vector<std::string>* report) {
  std::vector<std::string> errors;
  const std::map<std::string, Node> want = scan(reference, false, &errors);
  errors.clear();  // read_whole answers for the reference
  const std::map<std::string, Node> got = scan(odm, want.count(kLostFound) == 0, &errors);
  size_t count = 0;
  for (const std::string& error : errors) add(report, &count, error);
  for (const auto& [path, node] : want) {
    auto it = got.find(path);
    const std::string diff = difference(label(path), it == got.end() ? nullptr : &it->second, node);
    if (!diff.empty()) add(report, &count, diff);
  }
  for (const auto& [path, node] : got) {
    if (want.count(path) == 0) add(report, &count, label(path) + ": not in the reference");
  }
  if (count > kMaxDifferences) report->push_back("and " + std::to_string(count - kMaxDifferences) + " more");
  return count == 0;
}

bool read_whole(const std::string& root, std::vector<std::string>* report) {
  std::vector<std::string> errors;
  scan(root, false, &errors);
  report->insert(report->end(), errors.begin(), errors.end());
  return errors.empty();
}
