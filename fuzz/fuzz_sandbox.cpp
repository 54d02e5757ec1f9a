#include "fuzz/fuzz_sandbox.h"

#include <android-base/logging.h>
#include <errno.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <vector>

namespace fs = std::filesystem;

namespace {

const char kInDeviceEnv[] = "TARNWICK_IN_DEVICE";
const char kWorkDirEnv[] = "TARNWICK_FUZZ_CWD";

pid_t runner = -1;

// A Ctrl-C reaches the runner as well; a kill aimed at this process alone must
// too, or the fuzzer would keep running with nobody left to clean up after it.
void forward_signal(int sig) {
  if (runner > 0) kill(runner, sig);
}

bool starts_with(const std::string& s, const char* prefix) {
  return s.compare(0, strlen(prefix), prefix) == 0;
}

// The host directories the fuzzer's own arguments point into.
std::set<std::string> directories_named_by(int argc, char** argv) {
  std::set<std::string> dirs;
  auto add = [&dirs](fs::path dir, bool create) {
    dir = fs::absolute(dir).lexically_normal();
    if (dir.filename().empty()) dir = dir.parent_path();
    std::error_code ec;
    if (create) fs::create_directories(dir, ec);
    if (fs::is_directory(dir, ec)) dirs.insert(dir.string());
  };
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg.empty()) continue;
    if (arg[0] != '-') {
      std::error_code ec;
      add(fs::is_directory(arg, ec) ? fs::path(arg) : fs::absolute(arg).parent_path(), false);
      continue;
    }
    // Artifact directories are made when missing: libFuzzer would not write there.
    const struct {
      const char* flag;
      bool create;
    } kPathFlags[] = {{"-artifact_prefix=", true}, {"-exact_artifact_path=", true}, {"-dict=", false}};
    for (const auto& [flag, create] : kPathFlags) {
      if (!starts_with(arg, flag)) continue;
      std::string value = arg.substr(strlen(flag));
      // An artifact prefix names a directory only when it ends in '/'.
      if (!value.empty() && value.back() == '/') value += 'x';
      if (!value.empty()) add(fs::absolute(value).parent_path(), create);
    }
  }
  return dirs;
}

bool hides_device_path(const std::string& dir) {
  for (const char* own : {"/odm", "/vendor", "/dev/__properties__", "/dev/kmsg", "/proc", "/usr"}) {
    const std::string path = own;
    if (dir == "/" || path == dir || starts_with(path, (dir + "/").c_str())) return true;
  }
  return false;
}

}  // namespace

void put_file(const std::string& path, const std::string& content) {
  std::error_code ec;
  fs::create_directories(fs::path(path).parent_path(), ec);
  std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

bool get_file(const std::string& path, std::string* content) {
  FILE* file = fopen(path.c_str(), "rb");
  if (file == nullptr) return false;
  content->clear();
  char buf[16 * 1024];
  size_t n;
  while ((n = fread(buf, 1, sizeof(buf), file)) > 0) content->append(buf, n);
  fclose(file);
  return true;
}

void enter_device_sandbox(int* argc, char*** argv) {
  if (getenv(kInDeviceEnv) != nullptr) {
    const char* cwd = getenv(kWorkDirEnv);
    if (cwd != nullptr && chdir(cwd) != 0) perror(cwd);
    android::base::SetMinimumLogSeverity(android::base::FATAL);
    return;
  }

  // Memory-backed when the host has it: every iteration writes and removes files.
  std::string root_template = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
  root_template += "/tarnwick-fuzz.XXXXXX";
  const char* root = mkdtemp(root_template.data());
  char self[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
  if (root == nullptr || n < 0) {
    perror("tarnwick fuzz sandbox");
    _exit(2);
  }
  self[n] = '\0';
  const std::string vendor = std::string(root) + "/vendor";
  fs::create_directories(vendor);

  const std::string cwd = fs::current_path().string();
  std::set<std::string> binds = directories_named_by(*argc, *argv);
  binds.insert(cwd);
  // Bound over one of the sandbox's own paths, a host directory would hide it.
  for (auto it = binds.begin(); it != binds.end();) {
    it = hides_device_path(*it) ? binds.erase(it) : std::next(it);
  }

  std::vector<const char*> args = {RUN_DEVICE, "--program", self, "--bind", vendor.c_str(),
                                   "/vendor"};
  for (const std::string& dir : binds) args.insert(args.end(), {"--bind", dir.c_str(), dir.c_str()});
  args.insert(args.end(), {root, "--"});
  for (int i = 1; i < *argc; ++i) args.push_back((*argv)[i]);
  args.push_back(nullptr);
  setenv(kInDeviceEnv, "1", 1);
  setenv(kWorkDirEnv, cwd.c_str(), 1);

  runner = fork();
  if (runner == 0) {
    execv(RUN_DEVICE, const_cast<char* const*>(args.data()));
    perror(RUN_DEVICE);
    _exit(127);
  }
  for (int sig : {SIGINT, SIGTERM, SIGHUP}) signal(sig, forward_signal);
  int status = 0;
  while (runner > 0 && waitpid(runner, &status, 0) < 0 && errno == EINTR) {
  }
  std::error_code ec;
  fs::remove_all(root, ec);
  // _exit: this process fuzzed nothing, so it has no leak report or stats to give.
  _exit(runner < 0 ? 2 : WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
}
