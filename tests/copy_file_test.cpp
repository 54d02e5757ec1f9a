#include <sys/stat.h>

#include <string>
#include <vector>

#include "tarnwick/fileutil/fileutil.h"
#include "tests/device_fixture.h"

using namespace std::string_literals;

namespace {

const char kKernelLine[] = "<3>ODM File copied successfully..!!: ";
const char kSrc[] = "/vendor/src.txt";
const char kDst[] = "/odm/dst.txt";

using CopyFileTest = DeviceTest;

TEST_F(CopyFileTest, CopiesLinesAddingOnlyAMissingFinalNewline) {
  const std::string long_line(300000, 'x');
  struct Case {
    std::string source;
    std::string copy;
  } cases[] = {
      {"a\nb\n", "a\nb\n"},
      {"a\nb", "a\nb\n"},
      {"", ""},
      {"\n\nmid\n\n", "\n\nmid\n\n"},
      {"cr\r\nzero\0byte\n"s, "cr\r\nzero\0byte\n"s},
      {"no newline\r", "no newline\r\n"},
      {long_line, long_line + "\n"},
      {long_line + "\n" + long_line, long_line + "\n" + long_line + "\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.source.substr(0, 40)));
    write_file(kSrc, c.source);
    write_file(kDst, "old content that must go");
    EXPECT_TRUE(copy_file(kSrc, kDst));
    EXPECT_EQ(read_file(kDst), c.copy);
    EXPECT_EQ(file_mode(kDst), 0644u);
    EXPECT_EQ(TakeLog(), (std::vector<std::string>{" ODM src path is /vendor/src.txt",
                                                   "ODM dest path is /odm/dst.txt"}));
  }
}

TEST_F(CopyFileTest, FailureTable) {
  struct Case {
    const char* name;
    const char* source;  // nullptr: no source file
    bool dest_dir_exists;
    const char* dest_before;  // nullptr: no destination file
    const char* dest_after;   // "<missing>": not created
    bool result;
    std::vector<std::string> errors;
  } cases[] = {
      {"missing source empties the destination", nullptr, true, "data", "", false,
       {"ODM error is source file open"}},
      {"missing source creates an empty destination", nullptr, true, nullptr, "", false,
       {"ODM error is source file open"}},
      {"missing destination directory: one error per line", "1\n2\n3", false, nullptr,
       "<missing>", false,
       {"ODM error in dest file open", "ODM error in dest file open",
        "ODM error in dest file open"}},
      {"missing destination directory, empty source", "", false, nullptr, "<missing>", true, {}},
      {"missing destination directory, empty lines count", "\n\n", false, nullptr, "<missing>",
       false, {"ODM error in dest file open", "ODM error in dest file open"}},
      {"neither opens", nullptr, false, nullptr, "<missing>", false,
       {"ODM error is source file open"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    SetUp();
    const std::string dst = c.dest_dir_exists ? "/odm/etc/dst" : "/odm/nodir/dst";
    if (c.dest_dir_exists) write_file("/odm/etc/keep", "");
    if (c.source) write_file(kSrc, c.source);
    if (c.dest_before) write_file(dst, c.dest_before);
    EXPECT_EQ(copy_file(kSrc, dst), c.result);
    EXPECT_EQ(read_file(dst), c.dest_after);
    std::vector<std::string> expected = {" ODM src path is /vendor/src.txt",
                                         "ODM dest path is " + dst};
    expected.insert(expected.end(), c.errors.begin(), c.errors.end());
    EXPECT_EQ(TakeLog(), expected);
    EXPECT_EQ(read_file("/dev/kmsg"), kKernelLine) << "one kernel record per call";
    if (c.dest_after != std::string("<missing>")) {
      EXPECT_EQ(file_mode(dst), 0644u);
    }
  }
}

TEST_F(CopyFileTest, ResetsModeOfAnExistingDestination) {
  write_file(kSrc, "x\n");
  write_file(kDst, "y");
  chmod(kDst, 0600);
  copy_file(kSrc, kDst);
  EXPECT_EQ(file_mode(kDst), 0644u);
}

TEST_F(CopyFileTest, KernelRecordsFollowOneAnother) {
  write_file(kSrc, "x\n");
  copy_file(kSrc, kDst);
  copy_file("/vendor/missing", kDst);
  copy_file(kSrc, "/odm/nodir/x");
  EXPECT_EQ(read_file("/dev/kmsg"), std::string(kKernelLine) + kKernelLine + kKernelLine);
}

TEST_F(CopyFileTest, UnreadableSourceCountsAsMissing) {
  write_file("/odm/u/src", "secret\n");
  chmod("/odm/u", 0777);
  chmod("/odm/u/src", 0600);
  int status = run_unprivileged([] { return copy_file("/odm/u/src", "/odm/u/dst") ? 1 : 0; });
  SKIP_UNLESS_PRIVILEGED(status);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(read_file("/odm/u/dst"), "");
}

}  // namespace
