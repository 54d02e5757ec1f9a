#include "tests/device_fixture.h"

#include <android-base/logging.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "tarnwick/state.h"

namespace fs = std::filesystem;

namespace {

const char kPropertyDir[] = "/dev/__properties__/";

void empty_dir(const std::string& dir) {
  for (const auto& entry : fs::directory_iterator(dir)) fs::remove_all(entry.path());
}

}  // namespace

void write_file(const std::string& path, const std::string& content) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return "<missing>";
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

void put_prop(const std::string& name, const std::string& value) {
  write_file(kPropertyDir + name, value);
}

void drop_prop(const std::string& name) { fs::remove(kPropertyDir + name); }

std::string stored_prop(const std::string& name) {
  std::string value = read_file(kPropertyDir + name);
  return value == "<missing>" ? "<unset>" : value;
}

mode_t file_mode(const std::string& path) {
  struct stat st {};
  if (stat(path.c_str(), &st) != 0) return 0;
  return st.st_mode & 07777;
}

int run_unprivileged(const std::function<int()>& body) {
  // Only the effective ids change: the real and saved uid stay 0, so the test
  // can come back. (No fork: it does not survive user-mode emulation.)
  if (setgroups(0, nullptr) != 0 || setresgid(-1, 1000, -1) != 0) return kCannotDropPrivileges;
  if (setresuid(-1, 1000, -1) != 0) {
    setresgid(-1, 0, -1);
    return kCannotDropPrivileges;
  }
  int result = body();
  if (setresuid(-1, 0, -1) != 0 || setresgid(-1, 0, -1) != 0) abort();
  return result;
}

void DeviceTest::SetUp() {
  empty_dir("/odm");
  empty_dir("/vendor");
  empty_dir(kPropertyDir);
  std::ofstream("/dev/kmsg", std::ios::trunc);
  ModelAliasMap.clear();
  TargetAliasMap.clear();
  OdmFileList.clear();
  android::base::SetLogger([this](android::base::LogId, android::base::LogSeverity, const char*,
                                  const char*, unsigned int, const char* message) {
    log_.emplace_back(message);
  });
}

void DeviceTest::TearDown() { android::base::SetLogger(android::base::StderrLogger); }

std::vector<std::string> DeviceTest::TakeLog() {
  std::vector<std::string> lines;
  lines.swap(log_);
  return lines;
}
