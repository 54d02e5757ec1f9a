// Device roots for tests and the fuzzer: their files and properties, starts
// of the program over them (tools/run-device), and runs of the build's other
// programs.
#pragma once

#include <map>
#include <string>
#include <vector>

// The device root of this process's own calls into the program's library
// (TARNWICK_ROOT), set by the unit tests and the fuzzer; empty elsewhere.
extern std::string host_root;
// Where device path |path| lies on the host: under host_root.
inline std::string host(const std::string& path) { return host_root + path; }

// put, get and get_mode take device paths, which are host paths when host_root is empty.
void put(const std::string& path, const std::string& content);  // directories made
std::string get(const std::string& path);                        // or "<missing>"
std::string get_mode(const std::string& path);                   // "644", or "<missing>"
std::string prop(const std::string& root, const std::string& name);  // or "<unset>"

// A new root with an empty vendor/, open to every user so that a test may
// drop to an unprivileged one.
std::string make_root();
void remove_root(const std::string& root);

// The checker at a path an ordinary user may start it from: the build's own
// when every directory above it lets others through, else a copy beside a
// copy of the program it starts, removed when the tests end.
std::string checker_for_others();

struct LogLine { std::string file, message; };  // "main.cpp", the text after "] "
struct Start { int status = -1; std::vector<LogLine> log; std::string kmsg; };
// One device start of the program over |root|, with umask 0: the modes the
// program asks for are the modes its files get.
Start boot(const std::string& root, const std::vector<std::string>& args = {});

// Runs a build product (under $TARNWICK_WRAP) with |argv|; its output in |out|.
int run(std::vector<std::string> argv, std::string* out = nullptr);
// Runs |argv| as it is, its output and error into the files named; returns the
// exit status, or 128 + the signal that ended it.
int spawn(const std::vector<std::string>& argv, const std::string& out, const std::string& err);
// The words of $TARNWICK_WRAP, the emulator the build's programs run under.
std::vector<std::string> wrapper();
// Every entry under host directory |dir|: its mode and content, or link target.
std::map<std::string, std::string> snapshot(const std::string& dir);
