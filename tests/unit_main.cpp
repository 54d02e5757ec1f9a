// Outside the sandbox this binary makes a scratch device root and runs itself
// inside it, with /vendor writable so that each test lays out its own trees.
#include <android-base/logging.h>
#include <grp.h>
#include <unistd.h>

#include <filesystem>
#include <utility>

#include "host/device_sandbox.h"
#include "tarnwick/state.h"
#include "tests/unit.h"

namespace fs = std::filesystem;

void put_prop(const std::string& name, const std::string& value) {
  put("/dev/__properties__/" + name, value);
}

int run_unprivileged(const std::function<int()>& body) {
  // Only the effective ids change, so the test can come back to root.
  if (setgroups(0, nullptr) != 0 || setresgid(-1, 1000, -1) != 0 || setresuid(-1, 1000, -1) != 0) abort();
  const int result = body();
  if (setresuid(-1, 0, -1) != 0 || setresgid(-1, 0, -1) != 0) abort();
  return result;
}

void DeviceTest::SetUp() {
  for (const char* dir : {"/odm", "/vendor", "/dev/__properties__"}) {
    for (const auto& entry : fs::directory_iterator(dir)) fs::remove_all(entry.path());
  }
  put("/dev/kmsg", "");
  ModelAliasMap.clear();
  TargetAliasMap.clear();
  OdmFileList.clear();
  log_.clear();
  android::base::SetLogger([this](android::base::LogId, android::base::LogSeverity, const char*,
                                  const char*, unsigned, const char* message) { log_.push_back(message); });
}

void DeviceTest::TearDown() { android::base::SetLogger(android::base::StderrLogger); }

std::vector<std::string> DeviceTest::TakeLog() { return std::exchange(log_, {}); }

int main(int argc, char** argv) {
  if (device_sandbox::inside()) {
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
  }
  const std::string root = device_sandbox::make_root();
  // The permission cases drop to an unprivileged uid inside.
  return device_sandbox::rerun(root, {"--bind", root + "/vendor", "/vendor", "--bwrap-arg", "--cap-add",
      "--bwrap-arg", "CAP_SETUID", "--bwrap-arg", "--cap-add", "--bwrap-arg", "CAP_SETGID"},
      std::vector<std::string>(argv + 1, argv + argc));
}
