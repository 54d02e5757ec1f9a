// copy_file on any bytes: the copy is the source plus a newline when its last
// line has none, mode 0644; without a destination directory, the result tells
// whether the source had a line. Input: one flag byte, then the source.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include "fuzz/fuzz_sandbox.h"
#include "tarnwick/fileutil/fileutil.h"

namespace {

const char kSrc[] = "/vendor/src";
const char kDst[] = "/odm/dst";

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  enter_device_sandbox(argc, argv);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const bool no_dest_dir = data[0] & 1;
  const std::string source(reinterpret_cast<const char*>(data) + 1, size - 1);
  put_file(kSrc, source);
  // Kernel records accumulate otherwise.
  if (truncate("/dev/kmsg", 0) != 0) abort();

  if (no_dest_dir) {
    if (copy_file(kSrc, "/odm/missing/dst") != source.empty()) abort();
    if (access("/odm/missing", F_OK) == 0) abort();
    return 0;
  }
  if (!copy_file(kSrc, kDst)) abort();
  std::ifstream in(kDst, std::ios::binary);
  std::ostringstream copy;
  copy << in.rdbuf();
  std::string expected = source;
  if (!expected.empty() && expected.back() != '\n') expected += '\n';
  if (copy.str() != expected) abort();
  struct stat st;
  if (stat(kDst, &st) != 0 || (st.st_mode & 07777) != 0644) abort();
  return 0;
}
