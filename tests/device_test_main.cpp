// Runs the device tests inside the sandbox: outside it, this binary makes a
// scratch device root and starts itself there through tools/run-device.
#include <gtest/gtest.h>
#include <limits.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

int main(int argc, char** argv) {
  if (getenv("TARNWICK_IN_DEVICE") == nullptr) {
    char root_template[] = "/tmp/tarnwick-device-tests.XXXXXX";
    const char* root = mkdtemp(root_template);
    if (root == nullptr) {
      perror("mkdtemp");
      return 2;
    }
    std::filesystem::create_directories(std::string(root) + "/vendor");
    // /vendor is writable here only, so that each test can lay out its own source tree.
    std::string vendor = std::string(root) + "/vendor";
    char self[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (n < 0) return 2;
    self[n] = '\0';
    std::vector<const char*> args = {RUN_DEVICE, "--program", self, "--bind", vendor.c_str(),
                                     "/vendor"};
    // Lets the permission tests drop to an unprivileged uid inside the sandbox.
    if (geteuid() == 0) {
      for (const char* cap : {"CAP_SETUID", "CAP_SETGID"}) {
        args.insert(args.end(), {"--bwrap-arg", "--cap-add", "--bwrap-arg", cap});
      }
    }
    args.insert(args.end(), {root, "--"});
    for (int i = 1; i < argc; ++i) args.push_back(argv[i]);
    args.push_back(nullptr);
    setenv("TARNWICK_IN_DEVICE", "1", 1);
    pid_t pid;
    if (posix_spawn(&pid, RUN_DEVICE, nullptr, nullptr, const_cast<char* const*>(args.data()),
                    environ) != 0) {
      perror(RUN_DEVICE);
      return 2;
    }
    int status = 0;
    waitpid(pid, &status, 0);
    std::filesystem::remove_all(root);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
