// File helpers: copying, open tests, directory listing and the fbe.ini reader.
#pragma once

#include <stdio.h>

#include <memory>
#include <string>

#include "tarnwick/platform/platform.h"

// FILE* owned for the length of a scope.
using UniqueFile = std::unique_ptr<FILE, int (*)(FILE*)>;

// Opens |path| with |mode| ("r" or "w"); holds nullptr when the open fails.
inline UniqueFile open_file(const std::string& path, const char* mode) {
  return UniqueFile(device_fopen(path.c_str(), mode), fclose);
}

// Reads the next line of |file| into |line|, without its newline byte. A last
// line without a newline counts; a read error counts as the end of the file.
// Returns false when no byte is left to read.
bool read_line(FILE* file, std::string* line);

// Copies |src| to |dst| line by line (a missing final newline is added), then
// sets mode 0644 on |dst|. Returns false when the source could not be opened or
// a line found the destination closed.
bool copy_file(std::string src, std::string dst);

// True when |path| can be opened for reading.
bool exists_file(const std::string& path);

// Appends the names of the regular files directly in |dir| to OdmFileList, in
// listing order. Returns 0, or 1 when |dir| cannot be opened.
int get_all_files(std::string dir);

// "file" when the last line of |path| contains "file", "block" when it does not,
// "" when the file cannot be opened or holds no line.
std::string readData(std::string path);
