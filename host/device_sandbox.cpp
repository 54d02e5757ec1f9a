#include "host/device_sandbox.h"

#include <errno.h>
#include <limits.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

namespace fs = std::filesystem;

namespace {

const char kInsideEnv[] = "TARNWICK_IN_DEVICE";
const char kWorkDirEnv[] = "TARNWICK_HOST_CWD";

pid_t runner = -1;

// A Ctrl-C reaches the runner as well; a kill aimed at this process alone must
// too, or the inner run would go on with nobody left to clean up after it.
void forward_signal(int sig) {
  if (runner > 0) kill(runner, sig);
}

}  // namespace

namespace device_sandbox {

bool inside() {
  if (getenv(kInsideEnv) == nullptr) return false;
  // Left at "/" when the directory is not bound in.
  const char* cwd = getenv(kWorkDirEnv);
  if (cwd != nullptr && chdir(cwd) != 0) errno = 0;
  return true;
}

std::string make_root() {
  std::string path = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
  path += "/tarnwick-sandbox.XXXXXX";
  if (mkdtemp(path.data()) == nullptr) return "";
  fs::create_directories(path + "/vendor");
  return path;
}

std::vector<std::string> ro_bind(const std::string& src, const std::string& dst) {
  return {"--bwrap-arg", "--ro-bind", "--bwrap-arg", src, "--bwrap-arg", dst};
}

int rerun(const std::string& root, const std::vector<std::string>& options,
          const std::vector<std::string>& args) {
  char self[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
  if (root.empty() || n < 0) {
    perror("device sandbox");
    return 2;
  }
  self[n] = '\0';
  std::vector<std::string> argv = {RUN_DEVICE, "--program", self};
  argv.insert(argv.end(), options.begin(), options.end());
  argv.insert(argv.end(), {root, "--"});
  argv.insert(argv.end(), args.begin(), args.end());
  std::vector<char*> cargv;
  for (std::string& arg : argv) cargv.push_back(arg.data());
  cargv.push_back(nullptr);
  setenv(kInsideEnv, "1", 1);
  setenv(kWorkDirEnv, fs::current_path().c_str(), 1);

  // posix_spawn, not fork: a forked child does not survive user-mode emulation.
  fflush(nullptr);
  if (posix_spawn(&runner, RUN_DEVICE, nullptr, nullptr, cargv.data(), environ) != 0) {
    perror(RUN_DEVICE);
    runner = -1;
  }
  for (int sig : {SIGINT, SIGTERM, SIGHUP}) signal(sig, forward_signal);
  int status = 0;
  while (runner > 0 && waitpid(runner, &status, 0) < 0 && errno == EINTR) {
  }
  std::error_code ec;
  fs::remove_all(root, ec);
  if (runner < 0) return 2;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace device_sandbox
