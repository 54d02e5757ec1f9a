// Device starts of the real program, for end-to-end tests: a scratch device
// root on the host, and one start of tarnwick over it through tools/run-device.
#pragma once

#include <map>
#include <string>
#include <vector>

struct LogLine {
  std::string file;     // source file of the statement, e.g. "main.cpp"
  std::string message;  // the text after "] "
};

struct Start {
  int status = -1;
  std::vector<LogLine> log;
  std::string kmsg;
};

// A new, empty device root (vendor/ only); removed by remove_root.
std::string make_root();
void remove_root(const std::string& root);
// Writes |content| at |root|/|rel|, creating directories.
void put(const std::string& root, const std::string& rel, const std::string& content);
// The bytes at |root|/|rel|, or "<missing>".
std::string get(const std::string& root, const std::string& rel);
// The value a property had at the end of the last start, or "<unset>".
std::string prop(const std::string& root, const std::string& name);

// Every path under |root|/|rel| with its type, mode and content (or link target).
std::map<std::string, std::string> snapshot(const std::string& root, const std::string& rel);

// Runs one device start; |args| go to the program.
Start boot(const std::string& root, const std::vector<std::string>& args = {},
           const std::vector<std::string>& runner_options = {});

// The messages of |start| written from |file| (all files when empty).
std::vector<std::string> messages(const Start& start, const std::string& file = "");
