// Device stories in tests/scenarios/*.txt, start by start, each start's log
// compared line by line. One directive a line ("#" starts a comment):
//   device                    a new, empty device root
//   file PATH.. "TEXT"        writes TEXT at each PATH under the root
//   link PATH "TARGET"        a symbolic link
//   start [only=F.cpp,..] [ARG..]  one device start; the quoted texts on the
//   "LINE" "LINE"..           lines after it are its whole log (only= F's lines)
//   has PATH "TEXT" | gone PATH.. | same (/odm unchanged by the start)
//   prop NAME "VALUE" | unset NAME.. | kmsg N (records of the copy's line)
//   mode OCTAL PATH..         (starts run with umask 0)
// Texts take \n \r \t \\ \" and \xHH. Every start must exit with 0.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "tests/harness.h"

namespace fs = std::filesystem;

namespace {

// The quoted texts of |line|, unescaped.
std::vector<std::string> texts(const std::string& line) {
  std::vector<std::string> out;
  bool open = false;
  for (size_t i = 0; i < line.size(); ++i) {
    char c = line[i];
    if (c == '"' && (open = !open)) out.emplace_back();
    if (c == '"' || !open) continue;
    if (c == '\\') {
      const char e = line[++i];
      c = e == 'n' ? '\n' : e == 'r' ? '\r' : e == 't' ? '\t' : e;
      if (e == 'x') c = static_cast<char>(std::stoi(line.substr(i + 1, 2), nullptr, 16)), i += 2;
    }
    out.back() += c;
  }
  return out;
}

// A listing logs each entry as a line and the empty line its newline gives, in
// the file system's order: such pairs are sorted.
std::vector<std::string> canonical(std::vector<std::string> lines) {
  for (size_t i = 0; i < lines.size(); ++i) {
    size_t end = i;
    while (end + 1 < lines.size() && lines[end].rfind("file_name", 0) == 0 && lines[end + 1].empty()) end += 2;
    std::vector<std::string> names;
    for (size_t k = i; k < end; k += 2) names.push_back(lines[k]);
    std::sort(names.begin(), names.end());
    for (size_t k = 0; k < names.size(); ++k) lines[i + 2 * k] = names[k];
    i = std::max(i, end);
  }
  return lines;
}

void run_story(const std::string& name) {
  std::ifstream in(fs::path(SCENARIO_DIR) / (name + ".txt"));
  std::vector<std::string> lines, expected;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  ASSERT_FALSE(lines.empty()) << name;
  lines.push_back("# the end, where the last start's log is compared");
  std::string root;
  Start start;
  std::set<std::string> only;
  std::map<std::string, std::string> before;
  bool pending = false;  // the last start's log is still to be compared
  for (size_t number = 0; number < lines.size(); ++number) {
    const std::string& line = lines[number];
    SCOPED_TRACE(name + ".txt:" + std::to_string(number + 1));
    if (line[0] == '"') {
      for (const auto& text : texts(line)) expected.push_back(text);
      continue;
    }
    if (pending) {
      std::vector<std::string> actual;
      for (const auto& l : start.log) {
        if (only.empty() || only.count(l.file) != 0) actual.push_back(l.message);
      }
      EXPECT_EQ(canonical(actual), canonical(expected));
      pending = false;
    }
    std::istringstream words(line);
    std::string verb, arg;
    words >> verb >> arg;
    const std::string path = root + "/" + arg;
    if (verb == "device") {
      if (!root.empty()) remove_root(root);
      root = make_root();
    } else if (verb == "file") {
      for (; arg[0] != '"'; words >> arg) put(root + "/" + arg, texts(line).at(0));
    } else if (verb == "link") {
      fs::create_directories(fs::path(path).parent_path());
      fs::create_symlink(texts(line).at(0), path);
    } else if (verb == "start") {
      only.clear();
      std::vector<std::string> args;
      std::istringstream files(arg.rfind("only=", 0) == 0 ? arg.substr(5) : "");
      for (std::string f; std::getline(files, f, ',');) only.insert(f);
      if (only.empty() && !arg.empty()) args.push_back(arg);
      for (std::string more; words >> more;) args.push_back(more);
      fs::create_directories(root + "/odm");
      before = snapshot(root + "/odm");
      start = boot(root, args);
      EXPECT_EQ(start.status, 0);
      expected.clear();
      pending = true;
    } else if (verb == "has") {
      EXPECT_EQ(get(path), texts(line).at(0)) << arg;
    } else if (verb == "gone" || verb == "unset") {
      for (; !arg.empty(); arg.clear(), words >> arg) {
        EXPECT_FALSE(verb == "gone" ? fs::exists(fs::symlink_status(root + "/" + arg))
                                    : prop(root, arg) != "<unset>") << verb << " " << arg;
      }
    } else if (verb == "same") {
      EXPECT_EQ(snapshot(root + "/odm"), before);
    } else if (verb == "mode") {
      for (std::string p; words >> p;) EXPECT_EQ(get_mode(root + "/" + p), arg) << p;
    } else if (verb == "prop") {
      EXPECT_EQ(prop(root, arg), texts(line).at(0)) << arg;
    } else if (verb == "kmsg") {
      std::string records;
      for (int i = std::stoi(arg); i > 0; --i) records += "<3>ODM File copied successfully..!!: ";
      EXPECT_EQ(start.kmsg, records);
    } else if (!verb.empty() && verb[0] != '#') {
      ADD_FAILURE() << "unknown directive " << verb;
    }
  }
  remove_root(root);
}

TEST(Scenario, Provisioning) { run_story("provisioning"); }
TEST(Scenario, Regional) { run_story("regional"); }
TEST(Scenario, Gate) { run_story("gate"); }
TEST(Scenario, Query) { run_story("query"); }
TEST(Scenario, BadInput) { run_story("bad_input"); }
TEST(Scenario, ReadOnlyVendor) { run_story("read_only_vendor"); }

}  // namespace
