// The version gate, start by start, through the device sandbox.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "tests/e2e_harness.h"

namespace {

const char kDefaultStamp[] = "vendor/etc/odm/odm_default/odm/odmver.txt";
const char kSkuStamp[] = "vendor/etc/odm/odm_RK7/odm/odmver.txt";
const char kInstalledStamp[] = "odm/odmver.txt";

std::vector<std::string> gate_lines(std::vector<std::string> tail,
                                    const std::string& product = "RK7") {
  std::vector<std::string> lines = {"Entry tarnwick main ",
                                    "tarnwick model_str ro.vendor.product value = " + product,
                                    "before opening odmver.txt file "};
  lines.insert(lines.end(), tail.begin(), tail.end());
  return lines;
}

const char kReturning[] = "tarnwick returning from tarnwick main function ";
const char kOpened[] = "odmver.txt file opened ";
const char kSame[] = "tarnwick FOUND odm and vendor same version line ";
const char kDiff[] = "tarnwick  DIFF odm and vendor  version line ";

TEST(VersionGate, PathsThroughTheGate) {
  struct Case {
    const char* name;
    std::optional<std::string> sku, fallback, installed;
    std::vector<std::string> lines;
    std::string version;  // ro.vendor.odm.version afterwards
  } cases[] = {
      {"installed stamp missing: default stamp is the source", {}, "v1\nv2\n", {},
       gate_lines({"tarnwick default vendorver Line is v1", "tarnwick default vendorver Line is v2",
                   "tarnwick odm version textfile not found", kReturning}),
       "<unset>"},
      {"installed stamp empty: provision without comparing", {}, "v2\n", "",
       gate_lines({"tarnwick default vendorver Line is v2", kOpened,
                   "tarnwick  P odm fastboot empty file 1", "tarnwick FOUND P ODM  SO REBOOTING "}),
       "<unset>"},
      {"equal, installed with a final newline", {}, "v1\nv2", "v2\n",
       gate_lines({"tarnwick default vendorver Line is v1", "tarnwick default vendorver Line is v2",
                   kOpened, "tarnwick  P odm fastboot empty file 0", "odmver Line is v2", kSame}),
       "v2"},
      {"a carriage return makes a different line", {}, "v2\n", "v2\r",
       gate_lines({"tarnwick default vendorver Line is v2", kOpened,
                   "tarnwick  P odm fastboot empty file 0", "odmver Line is v2\r", kDiff, kReturning}),
       "<unset>"},
      {"the SKU stamp is preferred to the default", "s0\ns1\n", "d1\n", "s1",
       gate_lines({"tarnwick SKU vendorver Line is s0", "tarnwick SKU vendorver Line is s1", kOpened,
                   "tarnwick  P odm fastboot empty file 0", "odmver Line is s1", kSame}),
       "s1"},
      {"an empty SKU stamp hides the default stamp", "", "d1\n", "d1\n",
       gate_lines({kOpened, "tarnwick  P odm fastboot empty file 0", "odmver Line is d1", kDiff,
                   kReturning}),
       "<unset>"},
      {"no source stamp equals an installed empty line", {}, {}, "\n",
       gate_lines({kOpened, "tarnwick  P odm fastboot empty file 0", "odmver Line is ", kSame}), ""},
      {"an empty last line is the version line", {}, "v1\n\n", "v1",
       gate_lines({"tarnwick default vendorver Line is v1", "tarnwick default vendorver Line is ",
                   kOpened, "tarnwick  P odm fastboot empty file 0", "odmver Line is v1", kDiff,
                   kReturning}),
       "<unset>"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::string root = make_root();
    put(root, "boot.prop", "ro.vendor.product=RK7\n");
    if (c.sku) put(root, kSkuStamp, *c.sku);
    if (c.fallback) put(root, kDefaultStamp, *c.fallback);
    if (c.installed) put(root, kInstalledStamp, *c.installed);
    Start start = boot(root);
    EXPECT_EQ(start.status, 0);
    EXPECT_EQ(messages(start, "main.cpp"), c.lines);
    EXPECT_EQ(prop(root, "ro.vendor.odm.version"), c.version);
    if (c.version != "<unset>") {
      EXPECT_EQ(prop(root, "ro.vendor.odm_restart"), "1");
    }
    remove_root(root);
  }
}

TEST(VersionGate, EmptyProductNamesTheBareSkuTree) {
  std::string root = make_root();
  put(root, "vendor/etc/odm/odm_/odm/odmver.txt", "u1\n");
  put(root, kDefaultStamp, "d1\n");
  put(root, kInstalledStamp, "u1");
  Start start = boot(root);
  EXPECT_EQ(messages(start, "main.cpp"),
            gate_lines({"tarnwick SKU vendorver Line is u1", kOpened,
                        "tarnwick  P odm fastboot empty file 0", "odmver Line is u1", kSame},
                       ""));
  remove_root(root);
}

TEST(VersionGate, ModeChoice) {
  struct Case {
    std::vector<std::string> args;
    bool automation;
  } cases[] = {
      {{}, false},
      {{"automation"}, true},
      {{"automation", "extra"}, true},
      {{"Automation"}, false},
      {{"automation "}, false},
      {{"automatio"}, false},
      {{"", "automation"}, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    std::string root = make_root();
    put(root, kInstalledStamp, "v");
    put(root, kDefaultStamp, "v");
    Start start = boot(root, c.args);
    EXPECT_EQ(start.status, 0);
    std::vector<std::string> lines = messages(start, "main.cpp");
    ASSERT_FALSE(lines.empty());
    if (c.automation) {
      EXPECT_EQ(lines, std::vector<std::string>{"Entry [automation]tarnwick main"});
      EXPECT_EQ(prop(root, "ro.vendor.odm_restart"), "<unset>");
    } else {
      EXPECT_EQ(lines.front(), "Entry tarnwick main ");
      EXPECT_EQ(lines.back(), kSame);
    }
    remove_root(root);
  }
}

}  // namespace
