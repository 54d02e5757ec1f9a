// The unit tests' device root: a scratch directory that the program's library
// finds through TARNWICK_ROOT, as a host start of the program does.
#include <android-base/logging.h>
#include <grp.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <utility>

#include "tarnwick/state.h"
#include "tests/unit.h"

namespace fs = std::filesystem;

void put_prop(const std::string& name, const std::string& value) {
  put("/dev/__properties__/" + name, value);
}

int run_unprivileged(const std::function<int()>& body) {
  if (geteuid() != 0) return body();
  // Only the effective ids change, so the test can come back to root.
  if (setgroups(0, nullptr) != 0 || setresgid(-1, 1000, -1) != 0 || setresuid(-1, 1000, -1) != 0) abort();
  const int result = body();
  if (setresuid(-1, 0, -1) != 0 || setresgid(-1, 0, -1) != 0) abort();
  return result;
}

void DeviceTest::SetUp() {
  for (const char* dir : {"/odm", "/vendor", "/dev/__properties__"}) {
    fs::create_directories(host(dir));
    for (const auto& entry : fs::directory_iterator(host(dir))) fs::remove_all(entry.path());
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
  host_root = make_root();
  setenv("TARNWICK_ROOT", host_root.c_str(), 1);
  testing::InitGoogleTest(&argc, argv);
  const int status = RUN_ALL_TESTS();
  remove_root(host_root);
  return status;
}
