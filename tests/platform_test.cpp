// The host's libcutils: what a device's property service, restart request and
// kernel log do with the program's calls.
#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fcntl.h>

#include <filesystem>
#include <fstream>

#include "tarnwick/fileutil/fileutil.h"
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

// Device paths stay inside the device root whatever their links and ".."
// say: a sibling of the root holds decoys that any escape would reach.
TEST_F(Platform, DevicePathsStayInTheRoot) {
  namespace fs = std::filesystem;
  const std::string outside = host_root + ".outside";
  fs::create_directories(outside + "/vendor/etc");
  std::ofstream(outside + "/vendor/etc/real.xml") << "outside";
  put("/vendor/etc/real.xml", "inside");
  fs::create_directories(host("/odm/real_dir"));
  fs::create_symlink("/vendor/etc/real.xml", host("/vendor/abs"));
  fs::create_symlink("../../../../../../../vendor/etc/real.xml", host("/vendor/up"));
  fs::create_symlink("/odm/real_dir", host("/odm/dirlink"));
  fs::create_symlink("/../" + fs::path(outside).filename().string() + "/vendor", host("/odm/out"));

  for (const char* path : {"/vendor/abs", "/vendor/up", "/../vendor/etc/real.xml", "vendor/abs"}) {
    UniqueFile file(device_fopen(path, "r"), fclose);
    char text[16] = {};
    EXPECT_TRUE(file && fread(text, 1, sizeof(text), file.get()) > 0 && text == std::string("inside")) << path;
  }
  EXPECT_EQ(device_fopen("/odm/out/etc/real.xml", "r"), nullptr);
  EXPECT_EQ(errno, ENOENT);
  UniqueFile(device_fopen("/odm/dirlink/new", "w"), fclose);
  EXPECT_EQ(get("/odm/real_dir/new"), "");
  std::unique_ptr<DIR, int (*)(DIR*)> dir(device_opendir("/odm/dirlink/"), closedir);
  EXPECT_NE(dir, nullptr);
  const int fd = device_open("/odm/../../odm/dirlink/new", O_RDONLY | O_CLOEXEC);
  EXPECT_GE(fd, 0);
  close(fd);

  // chmod follows a link; mkdir and remove act on the last name itself.
  fs::create_symlink("real_dir/new", host("/odm/filelink"));
  EXPECT_EQ(device_chmod("/odm/filelink", 0600), 0);
  EXPECT_EQ(get_mode("/odm/real_dir/new"), "600");
  EXPECT_EQ(device_mkdir("/odm/dirlink/sub/", 0700), 0);
  EXPECT_EQ(get_mode("/odm/real_dir/sub"), "700");
  EXPECT_EQ(device_mkdir("/odm/dirlink", 0700), -1);
  EXPECT_EQ(errno, EEXIST);
  EXPECT_EQ(device_remove("/odm/dirlink/sub/"), 0);
  EXPECT_EQ(device_remove("/odm/dirlink"), 0);
  EXPECT_TRUE(fs::is_directory(host("/odm/real_dir")) && !fs::exists(fs::symlink_status(host("/odm/dirlink"))));
  for (const char* path : {"/", "/..", "//", "/odm/.."}) {
    EXPECT_EQ(device_remove(path), -1) << path;
    EXPECT_EQ(device_mkdir(path, 0700), -1) << path;
  }
  EXPECT_EQ(device_remove("/odm/out/etc/real.xml"), -1);
  EXPECT_EQ(device_mkdir("", 0700), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_TRUE(fs::is_directory(host("/odm")));
  std::ifstream decoy(outside + "/vendor/etc/real.xml");
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(decoy), {}), "outside");
  fs::remove_all(outside);
}

// Whatever would change something that lies in /vendor fails with EROFS, as
// on a device whose /vendor is mounted read-only: by its own path, through
// links from /odm (dangling ones too), and through "..".
TEST_F(Platform, VendorIsReadOnly) {
  namespace fs = std::filesystem;
  put("/vendor/etc/real.xml", "inside");
  put("/odm/mine", "mine");
  for (const auto& [link, target] : std::initializer_list<std::pair<const char*, const char*>>{
           {"/odm/file", "/vendor/etc/real.xml"}, {"/odm/dangling", "/vendor/etc/new.xml"},
           {"/odm/relative", "../vendor/etc/real.xml"}, {"/odm/chain", "dangling"},
           {"/odm/dir", "/vendor/etc"}, {"/odm/own", "mine"}}) {
    fs::create_symlink(target, host(link));
  }
  const auto vendor = snapshot(host("/vendor"));
  const auto open_with = [](const char* path, int flags) {
    const int fd = device_open(path, flags | O_CLOEXEC, 0644);
    return fd < 0 ? -1 : (close(fd), 0);
  };
  const auto fopen_with = [](const char* path, const char* mode) {
    return UniqueFile(device_fopen(path, mode), fclose) ? 0 : -1;
  };
  // The call, its path, and errno (0: it succeeds).
  const std::tuple<const char*, const char*, int> calls[] = {
      {"w", "/vendor/etc/real.xml", EROFS}, {"w", "/odm/file", EROFS},
      {"w", "/odm/dangling", EROFS},        {"a", "/odm/chain", EROFS},
      {"r+", "/odm/relative", EROFS},       {"w", "/odm/dir/new.xml", EROFS},
      {"w", "/odm/../vendor/new.xml", EROFS}, {"r", "/odm/file", 0},
      {"w", "/odm/own", 0},                 {"O_WRONLY", "/vendor/etc/real.xml", EROFS},
      {"O_CREAT", "/vendor/etc/new.xml", EROFS}, {"O_WRONLY", "/vendor/etc/none.xml", ENOENT},
      {"O_TRUNC", "/odm/file", EROFS},      {"O_WRONLY|O_NOFOLLOW", "/odm/file", ELOOP},
      {"mkdir", "/vendor/etc/sub", EROFS},  {"mkdir", "/odm/dir/sub", EROFS},
      {"mkdir", "/vendor/etc", EEXIST},     {"remove", "/vendor/etc/real.xml", EROFS},
      {"remove", "/odm/dir/real.xml", EROFS}, {"remove", "/odm/file", 0},
      {"chmod", "/odm/relative", EROFS},    {"chmod", "/vendor/etc/none.xml", ENOENT},
      {"chmod", "/odm/own", 0},             {"rename", "/vendor/etc/real.xml", EROFS},
      {"rename", "/odm/dangling", 0}};
  for (const auto& [call, path, expected] : calls) {
    SCOPED_TRACE(std::string(call) + " " + path);
    const std::string c = call;
    errno = 0;
    const int result = c == "mkdir"    ? device_mkdir(path, 0755)
                       : c == "remove" ? device_remove(path)
                       : c == "chmod"  ? device_chmod(path, 0600)
                       : c == "rename" ? tarnwick_host::rename_path(path, "/odm/renamed")
                       : c == "O_WRONLY" ? open_with(path, O_WRONLY)
                       : c == "O_CREAT"  ? open_with(path, O_RDONLY | O_CREAT)
                       : c == "O_TRUNC"  ? open_with(path, O_RDONLY | O_TRUNC)
                       : c == "O_WRONLY|O_NOFOLLOW" ? open_with(path, O_WRONLY | O_NOFOLLOW)
                                                    : fopen_with(path, call);
    EXPECT_EQ(result, expected == 0 ? 0 : -1);
    if (expected != 0) {
      EXPECT_EQ(errno, expected) << strerror(errno);
    }
  }
  EXPECT_EQ(snapshot(host("/vendor")), vendor);
  EXPECT_EQ(fs::read_symlink(host("/odm/renamed")), "/vendor/etc/new.xml");
}

}  // namespace
