#include "tests/harness.h"

#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

namespace fs = std::filesystem;

namespace {

std::string quoted(const std::string& word) {
  std::string out = "'";
  for (char c : word) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

}  // namespace

int spawn(const std::vector<std::string>& argv, const std::string& out, const std::string& err) {
  std::string command = "exec";
  for (const auto& word : argv) command += " " + quoted(word);
  const int status = system((command + " >" + quoted(out) + " 2>" + quoted(err)).c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::vector<std::string> wrapper() {
  std::istringstream wrap(getenv("TARNWICK_WRAP") != nullptr ? getenv("TARNWICK_WRAP") : "");
  return {std::istream_iterator<std::string>(wrap), {}};
}

std::map<std::string, std::string> snapshot(const std::string& dir) {
  std::map<std::string, std::string> out;
  for (const auto& entry : fs::recursive_directory_iterator(dir, fs::directory_options::skip_permission_denied)) {
    out[entry.path()] = std::to_string(static_cast<int>(entry.symlink_status().permissions())) +
                        (entry.is_symlink()        ? "->" + fs::read_symlink(entry.path()).string()
                         : entry.is_regular_file() ? get(entry.path())
                                                   : "/");
  }
  return out;
}

std::string host_root;

void put(const std::string& path, const std::string& content) {
  fs::create_directories(fs::path(host(path)).parent_path());
  std::ofstream(host(path), std::ios::binary | std::ios::trunc) << content;
}

std::string get(const std::string& path) {
  std::ifstream in(host(path), std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return in ? out.str() : "<missing>";
}

std::string get_mode(const std::string& path) {
  struct stat st {};
  if (stat(host(path).c_str(), &st) != 0) return "<missing>";
  char mode[8];
  snprintf(mode, sizeof(mode), "%o", st.st_mode & 07777);
  return mode;
}

std::string prop(const std::string& root, const std::string& name) {
  const std::string value = get(root + "/dev/__properties__/" + name);
  return value == "<missing>" ? "<unset>" : value;
}

std::string make_root() {
  std::string path = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
  path += "/tarnwick-test.XXXXXX";
  if (mkdtemp(path.data()) == nullptr || chmod(path.c_str(), 0755) != 0) abort();
  fs::create_directories(path + "/vendor");
  return path;
}

// Trees that tests made unreadable are opened up again before they go.
void remove_root(const std::string& root) {
  std::error_code ec;
  const fs::file_status st = fs::symlink_status(root, ec);
  if (fs::is_directory(st)) {
    fs::permissions(root, fs::perms::owner_all, fs::perm_options::add, ec);
    for (const auto& entry : fs::directory_iterator(root, ec)) remove_root(entry.path());
  }
  fs::remove_all(root, ec);
}

Start boot(const std::string& root, const std::vector<std::string>& args) {
  std::vector<std::string> argv = {RUN_DEVICE, "--program", TARNWICK_PROGRAM, root, "--"};
  argv.insert(argv.end(), args.begin(), args.end());
  Start start;
  umask(0);
  start.status = spawn(argv, "/dev/null", root + ".log");
  std::istringstream log(get(root + ".log"));
  fs::remove(root + ".log");
  // "tag E MM-DD hh:mm:ss  pid  tid file:line] message"
  for (std::string line; std::getline(log, line);) {
    const size_t end = line.find("] "), colon = line.rfind(':', end), space = line.rfind(' ', colon);
    if (end != std::string::npos) start.log.push_back({line.substr(space + 1, colon - space - 1), line.substr(end + 2)});
  }
  start.kmsg = get(root + "/dev/kmsg");
  return start;
}

int run(std::vector<std::string> argv, std::string* out) {
  // Under user-mode emulation the build's programs run through its wrapper.
  const std::vector<std::string> words = wrapper();
  argv.insert(argv.begin(), words.begin(), words.end());
  const std::string path = fs::temp_directory_path() / ("tarnwick-run." + std::to_string(getpid()));
  const int status = spawn(argv, path, "/dev/null");
  if (out != nullptr) *out = get(path);
  fs::remove(path);
  return status;
}
