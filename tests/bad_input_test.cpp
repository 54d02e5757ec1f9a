// Inputs a device should never carry: every start still ends with status 0 and
// the lines that belong to what it met.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/e2e_harness.h"

namespace {

using Lines = std::vector<std::string>;

size_t count(const Lines& lines, const std::string& line) {
  return std::count(lines.begin(), lines.end(), line);
}

std::string device_with_model(const std::string& product) {
  std::string root = make_root();
  put(root, "boot.prop", "ro.vendor.product=" + product + "\n");
  put(root, "vendor/etc/odm/odm_default/odm/odmver.txt", "ODM.3\n");
  const std::string etc = "vendor/etc/odm/odm_VX41/odm/etc/";
  put(root, etc + "vintf/manifest.xml", "<manifest/>\n");
  put(root, etc + "permissions/unavailable_features.xml", "<permissions/>\n");
  put(root, etc + "two_lines.conf", "a\nb\n");
  return root;
}

TEST(BadInput, ReadOnlyOdm) {
  std::string root = device_with_model("VX41");
  Start start = boot(root, {}, {"--bwrap-arg", "--ro-bind", "--bwrap-arg", root + "/odm",
                                "--bwrap-arg", "/odm"});
  EXPECT_EQ(start.status, 0);
  Lines log = messages(start);
  // manifest, features and two_lines.conf: one error per source line, none opened.
  EXPECT_EQ(count(log, "ODM error in dest file open"), 4u);
  EXPECT_EQ(log.back(), "tarnwick returning from tarnwick main function ");
  EXPECT_EQ(get(root, "odm/odmver.txt"), "<missing>");
  EXPECT_EQ(prop(root, "ro.vendor.odm_restart"), "1");
  EXPECT_EQ(prop(root, "sys.powerctl"), "reboot,tarnwick");
  remove_root(root);
}

TEST(BadInput, NoVendorOdmTree) {
  std::string root = make_root();
  Start start = boot(root);
  EXPECT_EQ(start.status, 0);
  Lines log = messages(start);
  EXPECT_EQ(count(log, "COULD NOT FIND ETC"), 1u);
  EXPECT_EQ(count(log, "NO MATCH, Fallback.. "), 1u);
  EXPECT_EQ(count(log, "ODM error is source file open"), 2u);
  EXPECT_EQ(get(root, "odm/odmver.txt"), "") << "an empty source line gives an empty stamp";
  // The next start finds the stamp empty and provisions again.
  Start again = boot(root);
  EXPECT_EQ(count(messages(again), "tarnwick FOUND P ODM  SO REBOOTING "), 1u);
  EXPECT_EQ(prop(root, "sys.powerctl"), "reboot,tarnwick");
  remove_root(root);
}

TEST(BadInput, ProductTextsThatLookLikePaths) {
  for (const std::string product : {"../../odm", "a/b", "/", "..", "x\xff"}) {
    SCOPED_TRACE(product);
    std::string root = device_with_model(product);
    put(root, "odm/keep.txt", "kept");
    Start start = boot(root);
    EXPECT_EQ(start.status, 0);
    EXPECT_EQ(get(root, "odm/keep.txt"), "kept");
    EXPECT_EQ(get(root, "odm/etc/two_lines.conf"), "a\nb\n") << "the fallback tree is installed";
    EXPECT_EQ(get(root, "odm/odmver.txt"), "ODM.3");
    remove_root(root);
  }
}

TEST(BadInput, BinaryStamp) {
  std::string root = device_with_model("VX41");
  const std::string line = std::string("\x01zero\0byte\xff\r", 12);
  put(root, "vendor/etc/odm/odm_default/odm/odmver.txt", std::string("\xfe\xfe\n", 3) + line);
  EXPECT_EQ(boot(root).status, 0);
  EXPECT_EQ(get(root, "odm/odmver.txt"), line) << "written byte for byte";
  Start second = boot(root);
  EXPECT_EQ(second.status, 0);
  EXPECT_EQ(messages(second, "main.cpp").back(),
            "tarnwick FOUND odm and vendor same version line ");
  EXPECT_EQ(prop(root, "ro.vendor.odm_restart"), "1");
  EXPECT_EQ(prop(root, "ro.vendor.odm.version"), "\x01zero") << "cut at the zero byte";
  remove_root(root);
}

TEST(BadInput, UnreadableModelFiles) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to run the sandbox as uid 1000";
  std::string root = device_with_model("VX41");
  const std::string secret = root + "/vendor/etc/odm/odm_VX41/odm/etc/two_lines.conf";
  put(root, "dev/kmsg", "");
  std::filesystem::create_directories(root + "/dev/__properties__");
  std::filesystem::create_directories(root + "/odm");
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
    ASSERT_EQ(lchown(entry.path().c_str(), 1000, 1000), 0);
  }
  ASSERT_EQ(chown(root.c_str(), 1000, 1000), 0);
  ASSERT_EQ(chmod(secret.c_str(), 0), 0);
  ASSERT_EQ(chmod(root.c_str(), 0755), 0);
  Start start = boot(root, {}, {"--as-user", "1000"});
  if (start.status == 126 || start.status == 2) {
    GTEST_SKIP() << "uid 1000 cannot reach the build tree here";
  }
  EXPECT_EQ(start.status, 0);
  EXPECT_EQ(count(messages(start), "ODM error is source file open"), 1u);
  EXPECT_EQ(get(root, "odm/etc/two_lines.conf"), "");
  EXPECT_EQ(get(root, "odm/odmver.txt"), "ODM.3");
  remove_root(root);
}

}  // namespace
