#include "tests/e2e_harness.h"

#include <fcntl.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

std::string make_root() {
  char root_template[] = "/tmp/tarnwick-e2e.XXXXXX";
  std::string root = mkdtemp(root_template);
  fs::create_directories(root + "/vendor");
  return root;
}

void remove_root(const std::string& root) { fs::remove_all(root); }

void put(const std::string& root, const std::string& rel, const std::string& content) {
  fs::path path = fs::path(root) / rel;
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

std::string get(const std::string& root, const std::string& rel) {
  std::ifstream in(fs::path(root) / rel, std::ios::binary);
  if (!in) return "<missing>";
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

std::string prop(const std::string& root, const std::string& name) {
  std::string value = get(root, "dev/__properties__/" + name);
  return value == "<missing>" ? "<unset>" : value;
}

std::map<std::string, std::string> snapshot(const std::string& root, const std::string& rel) {
  std::map<std::string, std::string> out;
  const fs::path base = fs::path(root) / rel;
  if (!fs::exists(base)) return out;
  for (const auto& entry : fs::recursive_directory_iterator(base)) {
    const std::string path = fs::relative(entry.path(), base).string();
    auto mode = static_cast<unsigned>(entry.symlink_status().permissions());
    std::string what = std::to_string(mode) + " ";
    if (entry.is_symlink()) {
      what += "link " + fs::read_symlink(entry.path()).string();
    } else if (entry.is_directory()) {
      what += "dir";
    } else {
      what += get(root, rel + "/" + path);
    }
    out[path] = what;
  }
  return out;
}

Start boot(const std::string& root, const std::vector<std::string>& args,
           const std::vector<std::string>& runner_options) {
  std::vector<std::string> argv = {RUN_DEVICE, "--program", TARNWICK_PROGRAM};
  argv.insert(argv.end(), runner_options.begin(), runner_options.end());
  argv.push_back(root);
  argv.push_back("--");
  argv.insert(argv.end(), args.begin(), args.end());
  std::vector<char*> cargv;
  for (auto& a : argv) cargv.push_back(a.data());
  cargv.push_back(nullptr);

  const std::string log_path = root + ".log";
  Start start;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 2, log_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  pid_t pid;
  int spawned = posix_spawn(&pid, cargv[0], &actions, nullptr, cargv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) return start;
  int status = 0;
  waitpid(pid, &status, 0);
  start.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);

  std::ifstream log(log_path, std::ios::binary);
  std::string line;
  while (std::getline(log, line)) {
    // "tag E MM-DD hh:mm:ss  pid  tid file:line] message"
    size_t end = line.find("] ");
    if (end == std::string::npos) {
      start.log.push_back({"", line});
      continue;
    }
    size_t colon = line.rfind(':', end);
    size_t space = line.rfind(' ', colon);
    start.log.push_back({line.substr(space + 1, colon - space - 1), line.substr(end + 2)});
  }
  fs::remove(log_path);
  start.kmsg = get(root, "dev/kmsg");
  return start;
}

std::vector<std::string> messages(const Start& start, const std::string& file) {
  std::vector<std::string> out;
  for (const auto& line : start.log) {
    if (file.empty() || line.file == file) out.push_back(line.message);
  }
  return out;
}
