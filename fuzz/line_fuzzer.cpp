// The line reader behind the stamps' last line, and the fbe.ini reader,
// against a plain model of the line rules.
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

  // The model: lines end at '\n'; a final '\n' starts no further line.
  size_t lines = 0;
  std::string last;
  for (size_t start = 0; start < bytes.size();) {
    size_t end = bytes.find('\n', start);
    if (end == std::string::npos) end = bytes.size();
    last = bytes.substr(start, end - start);
    ++lines;
    start = end + 1;
  }

  size_t read_lines = 0;
  std::string line;
  std::string read_last;
  UniqueFile file = open_file(kPath, "r");
  while (read_line(file.get(), &line)) {
    ++read_lines;
    read_last = line;
  }
  if (read_lines != lines || read_last != last) abort();

  const std::string mode = readData(kPath);
  const std::string expected = lines == 0 ? "" : last.find("file") != std::string::npos ? "file" : "block";
  if (mode != expected) abort();
  return 0;
}
