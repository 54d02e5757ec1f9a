// The line reader the version gate takes each stamp's last line with, and the
// fbe.ini reader, against a plain model of the line rules: lines end at '\n',
// a last line without one still counts, a final '\n' starts no further line.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <string>

#include "fuzz/fuzz_sandbox.h"
#include "tarnwick/fileutil/fileutil.h"

namespace {

const char kPath[] = "/odm/lines";

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  enter_device_sandbox(argc, argv);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  put_file(kPath, bytes);

  size_t lines = 0;
  std::string last;
  for (size_t start = 0; start < bytes.size();) {
    size_t end = bytes.find('\n', start);
    if (end == std::string::npos) end = bytes.size();
    last = bytes.substr(start, end - start);
    ++lines;
    start = end + 1;
  }

  // As the version gate reads a stamp: every line in turn, the last one wins.
  size_t read_lines = 0;
  std::string line;
  std::string read_last;
  UniqueFile file = open_file(kPath, "r");
  if (!file) abort();
  while (read_line(file.get(), &line)) {
    ++read_lines;
    read_last = line;
  }
  if (read_lines != lines || read_last != last || !line.empty()) abort();

  std::string expected;
  if (lines > 0) expected = last.find("file") != std::string::npos ? "file" : "block";
  if (readData(kPath) != expected) abort();
  return 0;
}
