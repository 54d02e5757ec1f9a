#include "fuzz/fuzz_sandbox.h"

#include <android-base/logging.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <vector>

namespace fs = std::filesystem;

void put_file(const std::string& path, const std::string& content) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

void enter_device_sandbox(int* argc, char*** argv) {
  if (const char* cwd = getenv("TARNWICK_FUZZ_CWD")) {
    if (chdir(cwd) != 0) perror(cwd);
    android::base::SetMinimumLogSeverity(android::base::FATAL);
    return;
  }
  char root_template[] = "/tmp/tarnwick-fuzz.XXXXXX";
  const char* root = mkdtemp(root_template);
  char self[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
  if (root == nullptr || n < 0) {
    perror("tarnwick fuzz sandbox");
    exit(2);
  }
  self[n] = '\0';
  const std::string vendor = std::string(root) + "/vendor";
  const std::string cwd = fs::current_path().string();
  fs::create_directories(vendor);
  setenv("TARNWICK_FUZZ_CWD", cwd.c_str(), 1);
  // The working directory is bound at its own path, writable, for corpora and artifacts.
  std::vector<const char*> args = {RUN_DEVICE, "--program", self, "--bind", vendor.c_str(),
                                   "/vendor", "--bind", cwd.c_str(), cwd.c_str(), root, "--"};
  for (int i = 1; i < *argc; ++i) args.push_back((*argv)[i]);
  args.push_back(nullptr);
  execv(RUN_DEVICE, const_cast<char* const*>(args.data()));
  perror(RUN_DEVICE);
  exit(2);
}
