// The device sandbox for tests and the fuzzer: files and properties of a
// device root, starts of the program over it (tools/run-device), and runs of
// the build's other programs. Inside the sandbox the root is "".
#pragma once

#include <string>
#include <vector>

void put(const std::string& path, const std::string& content);  // directories made
std::string get(const std::string& path);                        // or "<missing>"
std::string get_mode(const std::string& path);                   // "644", or "<missing>"
std::string prop(const std::string& root, const std::string& name);  // or "<unset>"

std::string make_root();  // a new root with an empty vendor/
void remove_root(const std::string& root);

struct LogLine { std::string file, message; };  // "main.cpp", the text after "] "
struct Start { int status = -1; std::vector<LogLine> log; std::string kmsg; };
// One device start of the program over |root|, with umask 0: the modes the
// program asks for are the modes its files get.
Start boot(const std::string& root, const std::vector<std::string>& args = {});

// Runs a build product (under $TARNWICK_WRAP) with |argv|; its output in |out|.
int run(std::vector<std::string> argv, std::string* out = nullptr);
