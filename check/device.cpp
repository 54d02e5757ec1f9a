// The checker's device: a scratch device root holding a copy of the vendor
// tree. The program's library in this process, and the program in the starts
// the checker runs, find it through TARNWICK_ROOT and resolve every device
// path inside it, as on a device.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "check/check.h"
#include "check/release_tree.h"
#include "tarnwick/fileutil/fileutil.h"
#include "tarnwick/paths.h"
#include "tarnwick/platform/platform.h"

namespace fs = std::filesystem;

namespace {

const char kProgram[] = "tarnwick";
// Where an installed checker finds the program, from its own directory.
const char kInstalledProgramDir[] = TARNWICK_LIBEXEC_FROM_BIN;
// Set only when a start found the two stamps equal, and so provisioned nothing.
const char kVersionProperty[] = "ro.vendor.odm.version";
// Where the platform's restart request is made.
const char kRestartProperty[] = "sys.powerctl";

bool old_release_in_place = false;

std::string root_path;
char removal_path[PATH_MAX];

void remove_device() {
  if (!root_path.empty()) remove_tree(root_path.c_str());
}

// An interrupted check leaves no scratch root behind.
void on_signal(int sig) {
  remove_tree(removal_path);
  signal(sig, SIG_DFL);
  raise(sig);
}

// Copies the host tree |from| to |to|: directories and regular files with
// their modes, links as they are, and a FIFO for anything else. What cannot
// be read is copied empty, so that it cannot be read on the device either.
void copy_tree(const fs::path& from, const fs::path& to) {
  std::error_code ec;
  const fs::file_status status = fs::symlink_status(from, ec);
  switch (status.type()) {
    case fs::file_type::directory:
      fs::create_directory(to, ec);
      for (const auto& entry : fs::directory_iterator(from, ec)) {
        copy_tree(entry.path(), to / entry.path().filename());
      }
      break;
    case fs::file_type::symlink:
      fs::copy_symlink(from, to, ec);
      return;
    case fs::file_type::regular:
      if (!fs::copy_file(from, to, ec)) std::ofstream(to.string());
      break;
    default:
      mkfifo(to.c_str(), 0600);
      break;
  }
  fs::permissions(to, status.permissions(), ec);
}

// The program that runs the device starts: beside this checker in a build
// tree, else where an install puts it.
std::string program_path() {
  std::error_code ec;
  const fs::path self = fs::read_symlink("/proc/self/exe", ec);
  for (const fs::path& dir : {self.parent_path() / kInstalledProgramDir, self.parent_path()}) {
    if (access((dir / kProgram).c_str(), X_OK) == 0) return dir / kProgram;
  }
  return self.parent_path() / kProgram;
}

}  // namespace

bool make_scratch(std::string* error) {
  std::string path = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
  path += "/tarnwick-check.XXXXXX";
  if (mkdtemp(path.data()) == nullptr || path.size() >= sizeof(removal_path)) {
    *error = "cannot make a scratch directory in " + path.substr(0, path.rfind('/')) + ": " +
             strerror(errno);
    return false;
  }
  root_path = path;
  strcpy(removal_path, path.c_str());
  for (int sig : {SIGINT, SIGTERM, SIGHUP}) signal(sig, on_signal);
  atexit(remove_device);
  std::error_code ec;
  for (const char* dir : {"/vendor/etc", "/odm", "/dev/__properties__", "/tarnwick-check"}) {
    fs::create_directories(host(dir), ec);
  }
  return true;
}

bool make_device(const Options& options, const std::string& tree, const std::string& old_tree,
                 std::string* error) {
  const std::string& path = root_path;
  std::error_code ec;
  std::ofstream(host("/dev/kmsg"));
  const std::string odm_dir = fs::path(kModelTreePrefix).parent_path();
  // A tree read from a package or an image lies in the scratch root already.
  auto place = [](const std::string& from, const std::string& to) {
    if (from.compare(0, root_path.size() + 1, root_path + "/") == 0) return move_tree(from, to);
    copy_tree(from, to);
    return true;
  };
  bool placed = place(tree, host(odm_dir));
  if (!options.config.empty()) {
    const bool own = fs::is_regular_file(host(kDefaultConfigPath));
    fs::copy_file(options.config, host(own ? kDefaultConfigPath : kCheckConfig),
                  fs::copy_options::overwrite_existing, ec);
  }
  if (!options.installed.empty()) copy_tree(options.installed, host(kCheckInstalled));
  if (!old_tree.empty()) placed = place(old_tree, host(kCheckOtherRelease)) && placed;
  if (ec || !placed || !fs::is_directory(host(odm_dir))) {
    *error = "cannot copy the tree into " + path + (ec ? ": " + ec.message() : "");
    return false;
  }
  setenv("TARNWICK_ROOT", path.c_str(), 1);
  return true;
}

void use_release(bool old) {
  if (old == old_release_in_place) return;
  const std::string odm_dir = host(fs::path(kModelTreePrefix).parent_path());
  const std::string away = host("/tarnwick-check/away");
  fs::rename(odm_dir, away);
  fs::rename(host(kCheckOtherRelease), odm_dir);
  fs::rename(away, host(kCheckOtherRelease));
  old_release_in_place = old;
}

void restore_odm(const std::string& from) {
  fs::remove_all(host("/odm"));
  copy_tree(from, host("/odm"));
}

void save_odm(const std::string& to) {
  std::error_code ec;
  fs::remove_all(to, ec);
  fs::create_directories(fs::path(to).parent_path(), ec);
  copy_tree(host("/odm"), to);
}

std::string host(const std::string& path) { return root_path + path; }

bool is_directory(const std::string& path) {
  const int fd = device_open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (fd >= 0) close(fd);
  return fd >= 0;
}

std::vector<std::pair<std::string, fs::file_type>> list_dir(const std::string& path) {
  std::vector<std::pair<std::string, fs::file_type>> entries;
  std::unique_ptr<DIR, int (*)(DIR*)> dir(device_opendir(path.c_str()), closedir);
  while (const dirent* entry = dir ? readdir(dir.get()) : nullptr) {
    if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
    struct stat st;
    const bool known = fstatat(dirfd(dir.get()), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0;
    const mode_t mode = known ? st.st_mode : 0;
    entries.emplace_back(entry->d_name, S_ISDIR(mode)   ? fs::file_type::directory
                                        : S_ISLNK(mode) ? fs::file_type::symlink
                                        : S_ISREG(mode) ? fs::file_type::regular
                                                        : fs::file_type::unknown);
  }
  return entries;
}

void prepare_odm(const Options& options, bool with_installed) {
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(host("/odm"), ec)) {
    fs::remove_all(entry.path(), ec);
  }
  if (with_installed) {
    fs::copy(host(kCheckInstalled), host("/odm"),
             fs::copy_options::recursive | fs::copy_options::copy_symlinks, ec);
  }
  fs::create_directories(host("/odm/etc"), ec);
  if (exists_file(kDefaultConfigPath)) {
    copy_file(kDefaultConfigPath, kConfigPath);
  } else if (!options.config.empty()) {
    copy_file(kCheckConfig, kConfigPath);
  }
}

void put_property(const std::string& name, const std::string& value) {
  if (!tarnwick_host::is_legal_property_name(name.c_str())) return;
  const std::string path = host(tarnwick_host::kPropertyDir) + "/" + name;
  if (value.empty()) {
    unlink(path.c_str());
  } else {
    std::ofstream(path, std::ios::binary) << value;
  }
}

std::map<std::string, std::string> boot_properties(const Options& options, const Setting& setting,
                                                   const std::string& product) {
  std::map<std::string, std::string> props = options.props;
  for (const auto& [name, value] : setting) {
    if (value) props[name] = *value;
  }
  props["ro.vendor.product"] = product;
  return props;
}

void write_properties(const Options& options, const Setting& setting, const std::string& product) {
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(host(tarnwick_host::kPropertyDir), ec)) {
    fs::remove_all(entry.path(), ec);
  }
  for (const auto& [name, value] : boot_properties(options, setting, product)) put_property(name, value);
}

bool start_program(const Options& options, const Setting& setting, const std::string& product) {
  write_properties(options, setting, product);
  std::ofstream(host("/dev/kmsg"));
  // Under user-mode emulation the program runs through the same wrapper.
  std::vector<std::string> argv;
  std::istringstream wrap(getenv("TARNWICK_WRAP") != nullptr ? getenv("TARNWICK_WRAP") : "");
  for (std::string word; wrap >> word;) argv.push_back(word);
  argv.push_back(program_path());
  std::vector<char*> cargv;
  for (std::string& arg : argv) cargv.push_back(arg.data());
  cargv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  pid_t pid;
  int status = 0;
  const int spawned = posix_spawnp(&pid, cargv[0], &actions, nullptr, cargv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) {
    fprintf(stderr, "tarnwick-check: cannot run %s: %s; %s\n", argv[0].c_str(), strerror(spawned),
            argv.size() > 1 ? "fix TARNWICK_WRAP, or unset it"
                            : "build it (cmake --build build) or install it with this tool "
                              "(cmake --install build)");
    return false;
  }
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return true;
  const std::string how = WIFSIGNALED(status)
                              ? "was killed by signal " + std::to_string(WTERMSIG(status))
                              : "exited with status " + std::to_string(WEXITSTATUS(status));
  fprintf(stderr, "tarnwick-check: %s %s during a device start; run it on a copy of the tree "
          "with tools/run-device to see its log\n", argv.back().c_str(), how.c_str());
  return false;
}

bool stamps_were_equal() {
  return fs::exists(host(tarnwick_host::kPropertyDir) + "/" + kVersionProperty);
}

bool restart_requested() {
  char request[PROP_VALUE_MAX] = {};
  property_get(kRestartProperty, request, "");
  return strncmp(request, "reboot", 6) == 0;
}
