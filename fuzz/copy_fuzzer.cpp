// copy_file on any bytes: the copy is the source plus a newline when its last
// line has none, mode 0644, whatever stood at the destination before; without
// a destination directory, the result tells whether the source had a line and
// nothing is created.
// Input: one flag byte, then the source. Flag bits: 0 the destination's
// directory is missing; 1 a longer destination with mode 0600 stands there;
// 2 the source starts with 128 KiB - 8 + (bits 3-6) filler bytes, 'x' but for
// a last '\n' when bit 7 is set, so that its end falls around the copy's chunk.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "fuzz/fuzz_sandbox.h"
#include "tarnwick/fileutil/fileutil.h"

namespace {

const char kSrc[] = "/vendor/src";
const char kDst[] = "/odm/dst";
const char kMissingDir[] = "/odm/missing";
const size_t kChunk = 128 * 1024;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  enter_device_sandbox(argc, argv);
  // New files come out 0600, so only the copy's own chmod can make them 0644.
  umask(077);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const uint8_t flags = data[0];
  std::string source;
  if (flags & 4) {
    source.assign(kChunk - 8 + ((flags >> 3) & 15), 'x');
    if (flags & 0x80) source.back() = '\n';
  }
  source.append(reinterpret_cast<const char*>(data) + 1, size - 1);
  put_file(kSrc, source);
  // Each call adds a kernel record; without this the log would grow for ever.
  if (truncate("/dev/kmsg", 0) != 0) abort();

  if (flags & 1) {
    if (copy_file(kSrc, std::string(kMissingDir) + "/dst") != source.empty()) abort();
    if (access(kMissingDir, F_OK) == 0) abort();
    return 0;
  }
  unlink(kDst);
  if (flags & 2) {
    put_file(kDst, source + "stale bytes past the copy's end\n");
    if (chmod(kDst, 0600) != 0) abort();
  }
  if (!copy_file(kSrc, kDst)) abort();
  std::string copy;
  if (!get_file(kDst, &copy)) abort();
  std::string expected = source;
  if (!expected.empty() && expected.back() != '\n') expected += '\n';
  if (copy != expected) abort();
  struct stat st;
  if (stat(kDst, &st) != 0 || (st.st_mode & 07777) != 0644) abort();
  return 0;
}
