// A host start acts only where TARNWICK_ROOT points: without it the program
// touches nothing, even with a device's /odm, property store and kernel log
// at their device paths; with "/" it uses those paths as they are, as inside
// a sandbox that binds a device root at /.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>

#include "tests/harness.h"

namespace fs = std::filesystem;

namespace {

struct Result { int status; std::string out, err; };

Result run_program(const std::vector<std::string>& prefix) {
  std::vector<std::string> argv = prefix;
  for (const auto& word : wrapper()) argv.push_back(word);
  argv.push_back(TARNWICK_PROGRAM);
  const std::string base = fs::temp_directory_path() / ("tarnwick-host." + std::to_string(getpid()));
  Result result{spawn(argv, base + ".out", base + ".err"), get(base + ".out"), get(base + ".err")};
  fs::remove(base + ".out");
  fs::remove(base + ".err");
  return result;
}

TEST(HostRoot, ActsOnlyWhereToldTo) {
  const std::string root = make_root();
  fs::copy(std::string(EXAMPLES_DIR) + "/device/vendor", root + "/vendor", fs::copy_options::recursive);
  put(root + "/dev/__properties__/ro.vendor.product", "rook");
  put(root + "/dev/kmsg", "");
  fs::create_directories(root + "/odm");

  for (const std::vector<std::string>& env : {std::vector<std::string>{"env", "-u", "TARNWICK_ROOT"},
                                               std::vector<std::string>{"env", "TARNWICK_ROOT="}}) {
    const Result r = run_program(env);
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    EXPECT_NE(r.err.find("set TARNWICK_ROOT"), std::string::npos) << r.err;
  }

  // The device at its device paths, in a sandbox; bubblewrap needs a user
  // namespace, which some hosts allow nobody.
  const std::string program_dir = fs::path(TARNWICK_PROGRAM).parent_path();
  const std::vector<std::string> sandbox = {
      "bwrap", "--ro-bind", "/usr", "/usr", "--symlink", "usr/lib", "/lib", "--symlink", "usr/lib64",
      "/lib64", "--symlink", "usr/bin", "/bin", "--proc", "/proc", "--dev", "/dev", "--tmpfs", "/tmp",
      "--ro-bind", root + "/vendor", "/vendor", "--bind", root + "/odm", "/odm", "--bind",
      root + "/dev/__properties__", "/dev/__properties__", "--bind", root + "/dev/kmsg", "/dev/kmsg",
      "--ro-bind", program_dir, program_dir};
  if (run_program({"bwrap", "--ro-bind", "/", "/", "true"}).status != 0) {
    if (getenv("CI") != nullptr && std::string(getenv("CI")) == "true") {
      FAIL() << "bubblewrap cannot make a sandbox here, and CI=true allows no skip";
    }
    GTEST_SKIP() << "bubblewrap cannot make a sandbox here";
  }
  const auto before = snapshot(root);
  std::vector<std::string> unset = sandbox;
  unset.insert(unset.end(), {"--unsetenv", "TARNWICK_ROOT", "--"});
  EXPECT_EQ(run_program(unset).status, 2);
  EXPECT_EQ(snapshot(root), before);

  std::vector<std::string> at_root = sandbox;
  at_root.insert(at_root.end(), {"--setenv", "TARNWICK_ROOT", "/", "--"});
  EXPECT_EQ(run_program(at_root).status, 0);
  EXPECT_EQ(get(root + "/odm/odmver.txt"), "ODM.2026.11.3");
  EXPECT_EQ(get(root + "/odm/etc/sensors.conf"), get(root + "/vendor/etc/odm/odm_RK7/odm/etc/sensors.conf"));
  EXPECT_EQ(prop(root, "sys.powerctl"), "reboot,tarnwick");
  EXPECT_NE(get(root + "/dev/kmsg"), "");
  remove_root(root);
}

}  // namespace
