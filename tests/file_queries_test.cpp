#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tarnwick/fileutil/fileutil.h"
#include "tarnwick/state.h"
#include "tests/device_fixture.h"

using namespace std::string_literals;

namespace {

using FileQueriesTest = DeviceTest;

std::vector<std::string> lines_of(const std::string& content) {
  write_file("/odm/lines", content);
  UniqueFile file = open_file("/odm/lines", "r");
  std::vector<std::string> lines;
  std::string line;
  while (read_line(file.get(), &line)) lines.push_back(line);
  return lines;
}

TEST_F(FileQueriesTest, LineReaderSplitsAtNewlineOnly) {
  struct Case {
    std::string content;
    std::vector<std::string> lines;
  } cases[] = {
      {"", {}},
      {"A\nB\n", {"A", "B"}},
      {"A\nB", {"A", "B"}},
      {"A\n\n", {"A", ""}},
      {"\n", {""}},
      {"A\r\n", {"A\r"}},
      {"z\0z\n"s, {"z\0z"s}},
      {" \t x \n", {" \t x "}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(lines_of(c.content), c.lines) << testing::PrintToString(c.content);
  }
}

TEST_F(FileQueriesTest, ReadDataJudgesTheLastLineOnly) {
  struct Case {
    std::string content;
    std::string mode;
  } cases[] = {
      {"file", "file"},
      {"file\n", "file"},
      {"block\n", "block"},
      {"FILE\n", "block"},
      {"fil", "block"},
      {"profile\n", "file"},
      {"mode=file", "file"},
      {"file\n\n", "block"},
      {"file\nblock\n", "block"},
      {"block\nfile", "file"},
      {"", ""},
      {"\0file\n"s, "file"},
      {"fi\0le"s, "block"},
      {"x\nfile\r\n", "file"},
  };
  for (const auto& c : cases) {
    write_file("/odm/fbe.ini", c.content);
    EXPECT_EQ(readData("/odm/fbe.ini"), c.mode) << testing::PrintToString(c.content);
  }
  EXPECT_EQ(readData("/odm/missing.ini"), "");
}

TEST_F(FileQueriesTest, ExistsFileIsAnOpenTest) {
  write_file("/odm/d/readable", "x");
  write_file("/odm/d/secret", "x");
  chmod("/odm/d", 0755);
  chmod("/odm/d/secret", 0600);
  EXPECT_TRUE(exists_file("/odm/d/readable"));
  EXPECT_TRUE(exists_file("/odm/d")) << "a directory opens for reading";
  EXPECT_FALSE(exists_file("/odm/d/missing"));
  EXPECT_FALSE(exists_file("/odm/nodir/readable"));
  EXPECT_FALSE(exists_file(""));
  int status = run_unprivileged([] {
    return (exists_file("/odm/d/readable") ? 1 : 0) + (exists_file("/odm/d/secret") ? 2 : 0);
  });
  SKIP_UNLESS_PRIVILEGED(status);
  EXPECT_EQ(status, 1) << "readable only";
}

TEST_F(FileQueriesTest, ListsRegularFilesOnlyAndLogsEveryEntry) {
  write_file("/vendor/etc/b.xml", "b");
  write_file("/vendor/etc/a.xml", "a");
  write_file("/vendor/etc/sub/inner.xml", "i");
  ASSERT_EQ(symlink("a.xml", "/vendor/etc/link.xml"), 0);
  ASSERT_EQ(mkfifo("/vendor/etc/pipe", 0644), 0);

  EXPECT_EQ(get_all_files("/vendor/etc/"), 0);
  std::vector<std::string> sorted = OdmFileList;
  std::sort(sorted.begin(), sorted.end());
  EXPECT_EQ(sorted, (std::vector<std::string>{"a.xml", "b.xml"}));

  // Each entry gives "file_name<entry>" and, from its trailing newline, an empty line.
  std::vector<std::string> logged;
  std::vector<std::string> listed_files;
  std::vector<std::string> log = TakeLog();
  ASSERT_EQ(log.size(), 2 * 7u);
  for (size_t i = 0; i < log.size(); i += 2) {
    ASSERT_EQ(log[i].rfind("file_name", 0), 0u) << log[i];
    EXPECT_EQ(log[i + 1], "");
    std::string name = log[i].substr(9);
    logged.push_back(name);
    if (name == "a.xml" || name == "b.xml") listed_files.push_back(name);
  }
  EXPECT_EQ(OdmFileList, listed_files) << "names keep the listing's order";
  std::sort(logged.begin(), logged.end());
  EXPECT_EQ(logged, (std::vector<std::string>{".", "..", "a.xml", "b.xml", "link.xml", "pipe", "sub"}));

  EXPECT_EQ(get_all_files("/vendor/etc/"), 0);
  EXPECT_EQ(OdmFileList.size(), 4u) << "a second listing appends";
}

TEST_F(FileQueriesTest, ListingFailures) {
  write_file("/vendor/empty/.keep", "");
  unlink("/vendor/empty/.keep");
  EXPECT_EQ(get_all_files("/vendor/empty/"), 0);
  std::vector<std::string> log = TakeLog();
  std::sort(log.begin(), log.end());
  EXPECT_EQ(log, (std::vector<std::string>{"", "", "file_name.", "file_name.."}));

  EXPECT_EQ(get_all_files("/vendor/missing/"), 1);
  EXPECT_EQ(TakeLog(), std::vector<std::string>{"COULD NOT FIND ETC"});
  EXPECT_TRUE(OdmFileList.empty());
}

}  // namespace
