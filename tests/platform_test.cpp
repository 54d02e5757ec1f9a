// The host's libcutils: what a device's property service, restart request and
// kernel log do with the program's calls.
#include <string.h>

#include "tarnwick/platform/platform.h"
#include "tests/unit.h"

namespace {

using Platform = DeviceTest;

TEST_F(Platform, Properties) {
  const std::string v91(91, 'a'), v92 = v91 + "b";
  const char* kLong = "Must use __system_property_read_callback() to read";
  // Reads: stored value (nullptr: unset), default, and what comes back.
  const char* gets[][4] = {{"ro.x", "RK7", "", "RK7"},    {"ro.x", "", "d", "d"},
                           {"ro.x", v91.c_str(), "", v91.c_str()}, {"ro.x", v92.c_str(), "", kLong},
                           {"x", nullptr, v92.c_str(), v91.c_str()}, {"a-_:@0.Z", "v", "d", "v"},
                           {"a..b", "v", "d", "d"}, {".a", "v", "d", "d"}, {"a.", "v", "d", "d"},
                           {"a b", "v", "d", "d"}, {"a/b", "v", "d", "d"}};
  for (const auto& g : gets) {
    SCOPED_TRACE(std::string(g[0]) + " " + (g[1] ? g[1] : "<unset>"));
    SetUp();
    if (g[1]) put_prop(g[0], g[1]);
    char value[PROP_VALUE_MAX];
    memset(value, 'X', sizeof(value));
    EXPECT_EQ(property_get(g[0], value, g[2]), static_cast<int>(strlen(g[3])));
    EXPECT_STREQ(value, g[3]);
  }
  // Writes: the value before (nullptr: unset), the new one, the result, the value after.
  struct Set {
    const char *name, *before, *value;
    int result;
    std::string after;
  } sets[] = {{"v.x", "old", "new", 0, "new"},          {"v.x", nullptr, v91.c_str(), 0, v91},
              {"v.x", nullptr, v92.c_str(), -1, "<unset>"}, {"ro.x", nullptr, v92.c_str(), 0, v92},
              {"ro.x", "", "1", -1, ""},                 {"ro.x", nullptr, "", 0, ""},
              {"v.x", nullptr, "\xc3\xa9\xf0\x9f\x98\x80", 0, "\xc3\xa9\xf0\x9f\x98\x80"},
              {"v.x", nullptr, "\xff", -1, "<unset>"},    {"v.x", nullptr, "\xc0\xaf", -1, "<unset>"},
              {"v.x", nullptr, "\xed\xa0\x80", -1, "<unset>"}, {"v.x", nullptr, "\xed\xbf\xbf", -1, "<unset>"},
              {"v.x", nullptr, "\xf4\x90\x80\x80", -1, "<unset>"},
              {"v.x", nullptr, "\xe2\x82", -1, "<unset>"}, {"a..b", nullptr, "1", -1, "<unset>"}};
  for (const auto& s : sets) {
    SCOPED_TRACE(std::string(s.name) + " = " + testing::PrintToString(s.value));
    SetUp();
    if (s.before) put_prop(s.name, s.before);
    EXPECT_EQ(property_set(s.name, s.value), s.result);
    EXPECT_EQ(prop("", s.name), s.after);
  }
}

TEST_F(Platform, RestartAndKernelLog) {
  const std::tuple<unsigned, const char*, const char*> requests[] = {
      {ANDROID_RB_RESTART2, nullptr, "reboot"}, {ANDROID_RB_RESTART, "", "reboot"},
      {ANDROID_RB_POWEROFF, "x", "shutdown,x"}, {ANDROID_RB_THERMOFF, "hot", "shutdown,thermal,hot"},
      {0x1234, "tarnwick", "<unset>"}};
  for (const auto& [cmd, reason, request] : requests) {
    SetUp();
    EXPECT_EQ(android_reboot(cmd, 0, reason), cmd == 0x1234 ? -1 : 0);
    EXPECT_EQ(prop("", "sys.powerctl"), request);
  }
  klog_write(3, "<3>first: ");
  klog_write(7, "dropped above the default level");
  klog_write(6, "%s=%d", "n", 42);
  klog_write(3, "%s", std::string(600, 'k').c_str());
  EXPECT_EQ(get("/dev/kmsg"), "<3>first: n=42" + std::string(511, 'k'));
}

}  // namespace
