// The host stand-ins for libcutils: what a device's property service, restart
// request and kernel log would do with the program's calls.
#include <string.h>

#include <string>

#include "tarnwick/platform/platform.h"
#include "tests/device_fixture.h"

namespace {

using HostCutilsTest = DeviceTest;

std::string get(const char* key, const char* default_value = "") {
  char value[PROP_VALUE_MAX];
  memset(value, 'X', sizeof(value));
  int length = property_get(key, value, default_value);
  EXPECT_EQ(static_cast<size_t>(length), strlen(value)) << key;
  return value;
}

TEST_F(HostCutilsTest, PropertyGet) {
  const std::string v91(91, 'a');
  const std::string v92(92, 'b');
  struct Case {
    const char* name;
    const char* stored;  // nullptr: unset
    const char* default_value;
    std::string expected;
  } cases[] = {
      {"ro.vendor.product", "RK7", "", "RK7"},
      {"ro.vendor.product", nullptr, "", ""},
      {"ro.vendor.product", "", "dflt", "dflt"},
      {"ro.vendor.product", nullptr, "dflt", "dflt"},
      {"ro.x", v91.c_str(), "", v91},
      {"ro.x", v92.c_str(), "", "Must use __system_property_read_callback() to read"},
      {"ro.x", nullptr, v92.c_str(), std::string(91, 'b')},
      {"odd-name_1:2@3", "v", "", "v"},
      {"a..b", "v", "d", "d"},
      {".a", "v", "d", "d"},
      {"a.", "v", "d", "d"},
      {"a b", "v", "d", "d"},
      {"", "v", "d", "d"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.name) + " stored=" + (c.stored ? c.stored : "<unset>"));
    SetUp();
    // Illegal names are written here only to prove they are never looked up.
    if (c.stored && c.name[0] != '\0') put_prop(c.name, c.stored);
    EXPECT_EQ(get(c.name, c.default_value), c.expected);
  }
}

TEST_F(HostCutilsTest, PropertySet) {
  const std::string v91(91, 'a');
  const std::string v92(92, 'b');
  struct Case {
    const char* name;
    const char* before;  // nullptr: unset
    std::string value;
    int result;
    std::string after;  // "<unset>" when no file
  } cases[] = {
      {"vendor.x", nullptr, "1", 0, "1"},
      {"vendor.x", "old", "new", 0, "new"},
      {"vendor.x", nullptr, "", 0, ""},
      {"vendor.x", nullptr, v91, 0, v91},
      {"vendor.x", nullptr, v92, -1, "<unset>"},
      {"ro.vendor.x", nullptr, v92, 0, v92},
      {"ro.vendor.x", "1", "1", -1, "1"},
      {"ro.vendor.x", "", "1", -1, ""},
      {"ro.vendor.x", nullptr, "", 0, ""},
      {"vendor.x", nullptr, "caf\xc3\xa9", 0, "caf\xc3\xa9"},
      {"vendor.x", nullptr, "\xf0\x9f\x98\x80", 0, "\xf0\x9f\x98\x80"},
      {"vendor.x", nullptr, "bad\xff", -1, "<unset>"},
      {"vendor.x", nullptr, "\xc0\xaf", -1, "<unset>"},          // overlong
      {"vendor.x", nullptr, "\xed\xa0\x80", -1, "<unset>"},      // surrogate
      {"vendor.x", nullptr, "\xf4\x90\x80\x80", -1, "<unset>"},  // above U+10FFFF
      {"vendor.x", nullptr, "cut\xe2\x82", -1, "<unset>"},
      {"a..b", nullptr, "1", -1, "<unset>"},
      {"bad/name", nullptr, "1", -1, "<unset>"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.name) + " = " + testing::PrintToString(c.value));
    SetUp();
    if (c.before) put_prop(c.name, c.before);
    EXPECT_EQ(property_set(c.name, c.value.c_str()), c.result);
    if (strchr(c.name, '/') == nullptr) {
      EXPECT_EQ(stored_prop(c.name), c.after);
    }
  }
}

TEST_F(HostCutilsTest, RestartRequestGoesThroughPowerctl) {
  struct Case {
    unsigned cmd;
    const char* reason;
    int result;
    std::string request;
  } cases[] = {
      {ANDROID_RB_RESTART2, "tarnwick", 0, "reboot,tarnwick"},
      {ANDROID_RB_RESTART2, "", 0, "reboot"},
      {ANDROID_RB_RESTART2, nullptr, 0, "reboot"},
      {ANDROID_RB_RESTART, "x", 0, "reboot,x"},
      {ANDROID_RB_POWEROFF, "", 0, "shutdown"},
      {ANDROID_RB_THERMOFF, "hot", 0, "shutdown,thermal,hot"},
      {0x1234, "tarnwick", -1, "<unset>"},
      {ANDROID_RB_RESTART2, "\xff", -1, "<unset>"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.request);
    SetUp();
    EXPECT_EQ(android_reboot(c.cmd, 0, c.reason), c.result);
    EXPECT_EQ(stored_prop("sys.powerctl"), c.request);
  }
}

TEST_F(HostCutilsTest, KernelLogRecords) {
  klog_write(3, "<3>first: ");
  klog_write(7, "dropped above the default level");
  klog_write(6, "%s=%d", "n", 42);
  klog_write(3, "%s", std::string(600, 'k').c_str());
  EXPECT_EQ(read_file("/dev/kmsg"), "<3>first: n=42" + std::string(511, 'k'));
}

}  // namespace
