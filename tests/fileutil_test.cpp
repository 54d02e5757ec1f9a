#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "tarnwick/fileutil/fileutil.h"
#include "tarnwick/state.h"
#include "tests/unit.h"

using namespace std::string_literals;

namespace {

using Lines = std::vector<std::string>;
using FileUtil = DeviceTest;

// Lines end at '\n' only, a last line without one counts, and fbe.ini's last
// line alone decides.
TEST_F(FileUtil, LineRules) {
  const std::tuple<std::string, Lines, std::string> cases[] = {
      {"", {}, ""},
      {"file", {"file"}, "file"},
      {"A\nfile\n", {"A", "file"}, "file"},
      {"file\n\n", {"file", ""}, "block"},
      {"file\nblock", {"file", "block"}, "block"},
      {"mode=file\r\n", {"mode=file\r"}, "file"},
      {"FILE fil\n", {"FILE fil"}, "block"},
      {"\0file\n"s, {"\0file"s}, "file"},
      {"fi\0le \t"s, {"fi\0le \t"s}, "block"}};
  for (const auto& [content, lines, mode] : cases) {
    SCOPED_TRACE(testing::PrintToString(content));
    put("/odm/fbe.ini", content);
    UniqueFile file = open_file("/odm/fbe.ini", "r");
    Lines read;
    for (std::string line; read_line(file.get(), &line);) read.push_back(line);
    EXPECT_EQ(read, lines);
    EXPECT_EQ(readData("/odm/fbe.ini"), mode);
  }
  EXPECT_EQ(readData("/odm/missing"), "");

  // A read error ends the stream where it happens; a line it cuts short counts.
  int reads = 0;
  cookie_io_functions_t io{};
  io.read = [](void* n, char* buf, size_t) -> ssize_t {
    const char* parts[] = {"ab\nc", nullptr, "d\n", ""};
    const int k = std::min((*static_cast<int*>(n))++, 3);
    return parts[k] == nullptr ? -1 : (memcpy(buf, parts[k], strlen(parts[k])), strlen(parts[k]));
  };
  UniqueFile broken(fopencookie(&reads, "r", io), fclose);
  Lines read;
  for (std::string line; read_line(broken.get(), &line);) read.push_back(line);
  EXPECT_EQ(read, (Lines{"ab", "c"}));
}

TEST_F(FileUtil, CopyFile) {
  const std::string big(300000, 'x'), none = "<none>", nodir = "/odm/none/d";
  // Source ("<none>": no file), destination, the copy ("<missing>": none), the
  // result, and the lines after the two path lines.
  const std::tuple<std::string, std::string, std::string, bool, Lines> cases[] = {
      {"a\n\nb\r\n", "/odm/d", "a\n\nb\r\n", true, {}},
      {"a\nb", "/odm/d", "a\nb\n", true, {}},
      {"", "/odm/d", "", true, {}},
      {"z\0z"s, "/odm/d", "z\0z\n"s, true, {}},
      {big + "\n" + big, "/odm/d", big + "\n" + big + "\n", true, {}},
      {none, "/odm/d", "", false, {"ODM error is source file open"}},
      {"1\n\n3", nodir, "<missing>", false, Lines(3, "ODM error in dest file open")},
      {"", nodir, "<missing>", true, {}},
      {none, nodir, "<missing>", false, {"ODM error is source file open"}}};
  for (const auto& [source, dst, copy, result, errors] : cases) {
    SCOPED_TRACE(testing::PrintToString(source.substr(0, 20)) + " to " + dst);
    put("/odm/d", "longer content that must go");
    chmod(host("/odm/d").c_str(), 0600);
    unlink(host("/vendor/s").c_str());
    if (source != none) put("/vendor/s", source);
    put("/dev/kmsg", "");
    TakeLog();
    EXPECT_EQ(copy_file("/vendor/s", dst), result);
    EXPECT_EQ(get(dst), copy);
    EXPECT_EQ(get_mode(dst), copy == "<missing>" ? copy : "644");
    Lines log = {" ODM src path is /vendor/s", "ODM dest path is " + dst};
    log.insert(log.end(), errors.begin(), errors.end());
    EXPECT_EQ(TakeLog(), log);
    EXPECT_EQ(get("/dev/kmsg"), "<3>ODM File copied successfully..!!: ");
  }
}

TEST_F(FileUtil, ListingAndOpenTest) {
  put("/vendor/etc/b.xml", "b");
  put("/vendor/etc/a.xml", "a");
  put("/vendor/etc/sub/inner.xml", "i");
  ASSERT_EQ(symlink("a.xml", host("/vendor/etc/link.xml").c_str()) | mkfifo(host("/vendor/etc/pipe").c_str(), 0644), 0);
  OdmFileList = {"kept"};
  EXPECT_EQ(get_all_files("/vendor/etc/"), 0);
  std::sort(OdmFileList.begin() + 1, OdmFileList.end());
  EXPECT_EQ(OdmFileList, (Lines{"kept", "a.xml", "b.xml"})) << "regular files only, appended";
  Lines log = TakeLog();
  EXPECT_EQ(std::count(log.begin(), log.end(), ""), 7) << "every entry logged, each with its newline";
  EXPECT_EQ(get_all_files("/vendor/missing/"), 1);
  EXPECT_EQ(TakeLog(), Lines{"COULD NOT FIND ETC"});
  EXPECT_EQ(OdmFileList.size(), 3u);

  chmod(host("/vendor/etc/b.xml").c_str(), 0);
  EXPECT_TRUE(exists_file("/vendor/etc"));
  EXPECT_FALSE(exists_file("/vendor/etc/c.xml") || exists_file("/vendor/none/a.xml"));
  EXPECT_EQ(run_unprivileged([] { return exists_file("/vendor/etc/a.xml") * 2 + exists_file("/vendor/etc/b.xml"); }),
            2) << "an open test: a file the process may not read is not there";
}

}  // namespace
