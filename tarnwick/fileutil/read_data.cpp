#include "tarnwick/fileutil/fileutil.h"

std::string readData(std::string path) {
  std::string result;
  UniqueFile file = open_file(path, "r");
  if (!file) return result;
  std::string line;
  while (read_line(file.get(), &line)) {
    result = line.find("file") != std::string::npos ? "file" : "block";
  }
  return result;
}
