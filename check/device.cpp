// The checker's device: a scratch device root holding a copy of the vendor
// tree. The program's library in this process, and the program in the starts
// the checker runs, find it through TARNWICK_ROOT and resolve every device
// path inside it, as on a device.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <sstream>
#include <thread>

#include "check/check.h"
#include "check/host_io.h"
#include "tarnwick/fileutil/fileutil.h"
#include "tarnwick/paths.h"
#include "tarnwick/platform/platform.h"

namespace fs = std::filesystem;

namespace {

const char kProgram[] = "tarnwick";
// Where an installed checker finds the program, from its own directory.
const char kInstalledProgramDir[] = TARNWICK_LIBEXEC_FROM_BIN;
// A start that has slept this long without running, reading or writing
// waits for something that will not come (a FIFO's writer): it is stopped.
// A start that wants the processor or waits on the disk is getting on.
const int kQuietMs = 1000;
// How often a running start is looked at.
const int kPollMs = 100;
// The largest --config read.
const size_t kMaxConfig = 256 << 20;

int release_in_place = kNewRelease;
// Per old release, the paths in its tree where it is not what the new release
// is, relative to the tree. What the old release has there waits under its
// number in kCheckReleases + the release's number; it changes places with
// what the new release has there (if anything) when the old one is put in
// place, and back. All the rest is the new release's copy.
std::vector<std::vector<std::string>> differing;

std::string root_path;
std::vector<Finding> start_findings;
// Whether the last start ended by itself, with status 0.
bool last_start_ended = false;

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

// What shows that process |pid| gets on: its CPU time and the bytes it has
// read and written; and whether it wants the processor or waits on the disk,
// which is getting on however long it takes. Empty once it is gone.
std::string progress_of(pid_t pid, bool* busy) {
  const std::string dir = "/proc/" + std::to_string(pid);
  const std::string stat = read_regular(dir + "/stat", 4096);
  const size_t end = stat.rfind(')');
  *busy = false;
  if (end == std::string::npos) return "";
  std::istringstream fields(stat.substr(end + 2));
  std::string state, field, times;
  fields >> state;
  for (int i = 4; i <= 15 && fields >> field; ++i) {
    if (i >= 14) times += field + " ";  // utime, stime
  }
  *busy = state == "R" || state == "D";
  const std::string io = read_regular(dir + "/io", 4096);
  return times + io.substr(0, io.find("syscr"));
}

// Waits for start |pid| to end, stopping it when it stops getting on; its
// wait status in |status|; false when it had to be stopped.
bool wait_bounded(pid_t pid, int* status) {
  const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  bool busy;
  std::string last = progress_of(pid, &busy);
  int quiet = 0;
  for (;;) {
    pollfd ready = {pidfd, POLLIN, 0};
    if (pidfd < 0) usleep(kPollMs * 1000);
    if ((pidfd < 0 || poll(&ready, 1, kPollMs) > 0) && waitpid(pid, status, WNOHANG) == pid) break;
    const std::string now = progress_of(pid, &busy);
    quiet = now == last && !busy ? quiet + kPollMs : 0;
    last = now;
    if (quiet >= kQuietMs) {
      kill(pid, SIGKILL);
      while (waitpid(pid, status, 0) < 0 && errno == EINTR) {
      }
      if (pidfd >= 0) close(pidfd);
      return false;
    }
  }
  if (pidfd >= 0) close(pidfd);
  return true;
}

// Notes a start that did not end as a start ends: |code| says how, |start|
// with what properties, |how| any more.
void start_finding(const std::string& code, const std::string& start, const std::string& how) {
  for (Finding& f : start_findings) {
    if (f.code == code) {
      f.subject += '\n' + start;
      return;
    }
  }
  start_findings.push_back({code, true, start, how, "", {}, {}});
}

// The bytes of --config |path|. One inside |tree| is read as a device would
// read it there, links resolved inside the tree; any other is the user's own.
std::string read_config(const std::string& path, const std::string& tree) {
  char real_tree[PATH_MAX], real_dir[PATH_MAX];
  const std::string dir = fs::path(path).parent_path().empty() ? "." : fs::path(path).parent_path().string();
  int fd;
  if (realpath(tree.c_str(), real_tree) != nullptr && realpath(dir.c_str(), real_dir) != nullptr &&
      (std::string(real_dir) + "/").rfind(std::string(real_tree) + "/", 0) == 0) {
    const int root = open(real_tree, O_PATH | O_DIRECTORY | O_CLOEXEC);
    const std::string inside = std::string(real_dir).substr(strlen(real_tree)) + "/" +
                               fs::path(path).filename().string();
    fd = root < 0 ? -1 : tarnwick_host::open_in(root, inside.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (root >= 0) close(root);
  } else {
    fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  }
  struct stat st;
  if (fd < 0 || fstat(fd, &st) != 0) fail("cannot read --config " + path + ": " + strerror(errno));
  const std::string bytes = read_open(fd, kMaxConfig);
  close(fd);
  if (!S_ISREG(st.st_mode)) fail("--config " + path + " is not a regular file");
  return bytes;
}

// Swaps what host paths |a| and |b| hold; either may hold nothing. A
// directory that moves to another parent needs its owner's write permission
// (its ".." changes), as does the directory |a| leaves or enters: each is
// given it for the move and then has its own mode back.
void swap_entries(const std::string& a, const std::string& b) {
  // Most swaps are of two entries that may move as they are.
  if (renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), RENAME_EXCHANGE) == 0) return;
  const std::string parent = a.substr(0, a.rfind('/'));
  struct stat at_a, at_b, up;
  const bool has_a = lstat(a.c_str(), &at_a) == 0, has_b = lstat(b.c_str(), &at_b) == 0;
  if (!has_a && !has_b) return;
  const auto closed = [](const struct stat& st) { return S_ISDIR(st.st_mode) && (st.st_mode & 0300) != 0300; };
  const auto open_up = [&](const std::string& path, const struct stat& st) {
    if (closed(st)) chmod(path.c_str(), (st.st_mode & 07777) | 0300);
  };
  const bool parent_closed = lstat(parent.c_str(), &up) == 0 && closed(up);
  if (parent_closed) open_up(parent, up);
  if (has_a) open_up(a, at_a);
  if (has_b) open_up(b, at_b);
  int moved = has_a && has_b ? renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), RENAME_EXCHANGE)
              : has_a        ? rename(a.c_str(), b.c_str())
                             : rename(b.c_str(), a.c_str());
  if (moved != 0 && errno == EINVAL && has_a && has_b) {
    // A file system without the exchange: three moves.
    const std::string aside = b + ".aside";
    moved = rename(b.c_str(), aside.c_str()) != 0 || rename(a.c_str(), b.c_str()) != 0 ||
            rename(aside.c_str(), a.c_str()) != 0;
  }
  if (moved != 0) fail("cannot swap the releases in " + root_path + ": " + strerror(errno));
  if (has_a && closed(at_a)) chmod(b.c_str(), at_a.st_mode & 07777);
  if (has_b && closed(at_b)) chmod(a.c_str(), at_b.st_mode & 07777);
  if (parent_closed) chmod(parent.c_str(), up.st_mode & 07777);
}

}  // namespace

std::string find_tree(const std::string& given) {
  // The inner directories are looked up as a device would: inside |given|.
  const int root = open(given.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (root < 0) return given;
  std::string tree = given;
  for (const char* inner : {"/vendor/etc/odm", "/etc/odm"}) {
    const int fd = tarnwick_host::open_in(root, inner, O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) continue;
    char buf[PATH_MAX];
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    const ssize_t n = readlink(link.c_str(), buf, sizeof(buf));
    close(fd);
    if (n > 0 && static_cast<size_t>(n) < sizeof(buf)) tree.assign(buf, n);
    break;
  }
  close(root);
  return tree;
}

std::string scratch_root() {
  if (root_path.empty()) root_path = make_scratch_root();
  return root_path;
}

void make_device(const Options& options, const std::string& tree,
                 const std::vector<std::string>& old_trees, CopyNotes* notes) {
  scratch_root();
  // From here on the program's library finds its device in the scratch root.
  setenv("TARNWICK_ROOT", root_path.c_str(), 1);
  tarnwick_host::never_wait_on_open();
  for (const char* dir : {"/vendor", "/vendor/etc", "/odm", "/dev", "/dev/__properties__", "/tarnwick-check"}) {
    if (mkdir(host(dir).c_str(), 0755) != 0) fail("cannot make " + host(dir) + ": " + strerror(errno));
  }
  write_file(host("/dev/kmsg"), "");
  copy_input(tree, host(fs::path(kModelTreePrefix).parent_path()), "", notes);
  if (!options.config.empty()) {
    // --config takes the place of the tree's own configuration, whatever
    // stands there: a link is replaced, never written through.
    const std::string own = host(kDefaultConfigPath);
    struct stat st;
    const bool replace = lstat(own.c_str(), &st) == 0;
    if (replace) remove_tree(own);
    write_file(host(replace ? kDefaultConfigPath : kCheckConfig), read_config(options.config, tree));
  }
  if (!options.installed.empty()) copy_input(options.installed, host(kCheckInstalled), options.installed, notes);
  // The old releases are read two at a time: each is compared with the
  // copy of the tree, which nothing writes to any more.
  differing.resize(old_trees.size());
  std::vector<CopyNotes> old_notes(old_trees.size());
  std::vector<std::optional<Failure>> failures(old_trees.size());
  const auto copy_old = [&](size_t first) {
    throw_on_fail();
    for (size_t k = first; k < old_trees.size(); k += 2) {
      try {
        copy_input(old_trees[k], host(kCheckReleases + std::to_string(k)), options.update_from[k], &old_notes[k],
                   host(fs::path(kModelTreePrefix).parent_path()), &differing[k]);
      } catch (const Failure& failure) {
        failures[k] = failure;
        return;
      }
    }
  };
  std::vector<std::thread> threads;
  for (size_t first = 0; first < std::min<size_t>(2, old_trees.size()); ++first) threads.emplace_back(copy_old, first);
  for (std::thread& thread : threads) thread.join();
  for (size_t k = 0; k < old_trees.size(); ++k) {
    if (failures[k]) fail(failures[k]->what);
    for (std::vector<CopyNote> CopyNotes::*list : {&CopyNotes::unreadable, &CopyNotes::special}) {
      (notes->*list).insert((notes->*list).end(), (old_notes[k].*list).begin(), (old_notes[k].*list).end());
    }
  }
}

void write_file(const std::string& path, const std::string& bytes) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
  size_t done = 0;
  for (ssize_t n = 0; fd >= 0 && done < bytes.size(); done += n) {
    n = write(fd, bytes.data() + done, bytes.size() - done);
    if (n <= 0) break;
  }
  const bool written = fd >= 0 && done == bytes.size() && close(fd) == 0;
  if (!written) fail("cannot write " + path + ": " + strerror(errno));
}

std::vector<Finding> starts_that_did_not_end() {
  std::vector<Finding> findings;
  for (const Finding& noted : start_findings) {
    std::vector<std::string> starts;
    std::istringstream lines(noted.subject);
    for (std::string start; std::getline(lines, start);) starts.push_back(start);
    std::sort(starts.begin(), starts.end());
    starts.erase(std::unique(starts.begin(), starts.end()), starts.end());
    const std::string count = std::to_string(starts.size()) + " device start" + (starts.size() == 1 ? "" : "s");
    findings.push_back(
        {noted.code, true, "device starts",
         noted.code == "start-hangs"
             ? count + " stopped getting on and did not end (stopped after " +
                   std::to_string(kQuietMs / 1000) + " s asleep): " + join(starts, 4)
             : count + " ended abnormally (" + noted.message + "): " + join(starts, 4),
         "see the special-file and unreadable findings; tools/run-device runs such a start on a "
         "copy of the tree and shows its log",
         {},
         {}});
  }
  return findings;
}

void use_release(int release) {
  if (release == release_in_place) return;
  const std::string odm_dir = host(fs::path(kModelTreePrefix).parent_path());
  // Putting an old release in place and taking it away are the same swaps.
  const auto swap_release = [&](int old) {
    if (old == kNewRelease) return;
    const std::string waiting = host(kCheckReleases + std::to_string(old));
    for (size_t i = 0; i < differing[old].size(); ++i) {
      swap_entries(odm_dir + "/" + differing[old][i], waiting + "/" + std::to_string(i));
    }
    // The trees' own modes go with them.
    struct stat in_place, other;
    if (stat(odm_dir.c_str(), &in_place) != 0 || stat(waiting.c_str(), &other) != 0 ||
        (in_place.st_mode != other.st_mode && (chmod(odm_dir.c_str(), other.st_mode & 07777) != 0 ||
                                                chmod(waiting.c_str(), in_place.st_mode & 07777) != 0))) {
      fail("cannot swap the releases in " + root_path + ": " + strerror(errno));
    }
  };
  swap_release(release_in_place);
  swap_release(release);
  release_in_place = release;
}

bool same_as_new(int release, const std::string& path) {
  if (release == kNewRelease) return true;
  for (const std::string& apart : differing[release]) {
    if (apart == path || apart.rfind(path + "/", 0) == 0 || path.rfind(apart + "/", 0) == 0) return false;
  }
  return true;
}

bool prefixes_as_new(int release, const std::string& name) {
  if (release == kNewRelease) return true;
  for (const std::string& apart : differing[release]) {
    if (name.rfind(apart.substr(0, apart.find('/')), 0) == 0) return false;
  }
  return true;
}

void restore_odm(const std::string& from) {
  remove_tree(host("/odm"));
  copy_within(from, host("/odm"));
}

void save_odm(const std::string& to) {
  remove_tree(to);
  std::error_code ec;
  fs::create_directories(fs::path(to).parent_path(), ec);
  copy_within(host("/odm"), to);
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
  remove_tree(host("/odm"));
  if (with_installed) {
    copy_within(host(kCheckInstalled), host("/odm"));
  } else if (mkdir(host("/odm").c_str(), 0755) != 0) {
    fail("cannot make " + host("/odm") + ": " + strerror(errno));
  }
  device_mkdir("/odm/etc", 0755);
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
    write_file(path, value);
  }
}

std::map<std::string, std::string> boot_properties(const Options& options, const Setting& setting,
                                                   const std::string& product) {
  std::map<std::string, std::string> props = options.props;
  for (const auto& [name, value] : setting) {
    if (value) props[name] = *value;
  }
  props[kProductProperty] = product;
  return props;
}

void write_properties(const Options& options, const Setting& setting, const std::string& product) {
  const std::string dir = host(tarnwick_host::kPropertyDir);
  std::map<std::string, std::string> wanted;
  for (const auto& [name, value] : boot_properties(options, setting, product)) {
    if (!value.empty() && tarnwick_host::is_legal_property_name(name.c_str())) wanted[name] = value;
  }
  // What the store holds already as it is to be stays: most starts begin
  // with the properties of the one before, and on a disk every file made
  // or removed costs.
  if (mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) fail("cannot make " + dir + ": " + strerror(errno));
  for (const auto& [name, type] : list_dir(tarnwick_host::kPropertyDir)) {
    const auto it = wanted.find(name);
    if (it != wanted.end() && type == fs::file_type::regular && read_regular(dir + "/" + name) == it->second) {
      wanted.erase(it);
    } else {
      remove_tree(dir + "/" + name);
    }
  }
  for (const auto& [name, value] : wanted) put_property(name, value);
}

bool start_program(const Options& options, const Setting& setting, const std::string& product) {
  if (!scratch_has_room()) {
    fail("the scratch directory " + root_path + " has too little room left for a device start, "
         "which may write a copy of every file of the tree (" +
         std::to_string(input_size().first >> 10) + " KiB); set TMPDIR to a directory with room");
  }
  write_properties(options, setting, product);
  write_file(host("/dev/kmsg"), "");
  // Under user-mode emulation the program runs through the same wrapper.
  std::vector<std::string> argv;
  std::istringstream wrap(getenv("TARNWICK_WRAP") != nullptr ? getenv("TARNWICK_WRAP") : "");
  for (std::string word; wrap >> word;) argv.push_back(word);
  argv.push_back(program_path());
  std::vector<char*> cargv;
  for (std::string& arg : argv) cargv.push_back(arg.data());
  cargv.push_back(nullptr);
  // The start goes with the checker, however the checker ends: a start that
  // waits on a FIFO would otherwise wait for ever. vfork, not fork: a forked
  // child never runs under user-mode emulation. Until it execs, the child
  // shares this process's memory, and makes only system calls.
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  if (null < 0) fail(std::string("cannot open /dev/null: ") + strerror(errno));
  volatile int spawned = 0;
  const pid_t pid = vfork();
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (dup2(null, 0) < 0 || dup2(null, 1) < 0 || dup2(null, 2) < 0) {
      spawned = errno;
      _exit(127);
    }
    execvp(cargv[0], cargv.data());
    spawned = errno;
    _exit(127);
  }
  if (pid < 0) spawned = errno;
  close(null);
  if (pid > 0 && spawned != 0) waitpid(pid, nullptr, 0);
  int status = 0;
  if (spawned != 0) {
    fprintf(stderr, "tarnwick-check: cannot run %s: %s; %s\n", printable(argv[0]).c_str(),
            strerror(spawned),
            argv.size() > 1 ? "fix TARNWICK_WRAP, or unset it"
                            : "build it (cmake --build build) or install it with this tool "
                              "(cmake --install build)");
    return false;
  }
  last_start_ended = false;
  std::string started;
  for (const auto& [name, value] : boot_properties(options, setting, product)) {
    if (!value.empty()) started += (started.empty() ? "" : " ") + name + "=" + value;
  }
  if (started.empty()) started = "no property";
  if (!wait_bounded(pid, &status)) {
    start_finding("start-hangs", started, "");
  } else if (WIFSIGNALED(status)) {
    start_finding("start-fails", started, std::string("signal ") + strsignal(WTERMSIG(status)));
  } else if (WEXITSTATUS(status) != 0) {
    // The program ends 0 whatever it meets: anything else is about this host.
    fprintf(stderr, "tarnwick-check: %s exited with status %d during a device start; run it on a "
            "copy of the tree with tools/run-device to see why\n", printable(argv.back()).c_str(),
            WEXITSTATUS(status));
    return false;
  } else {
    last_start_ended = true;
  }
  return true;
}

bool start_ended() { return last_start_ended; }

bool stamps_were_equal() {
  return fs::exists(host(tarnwick_host::kPropertyDir) + "/" + kVersionProperty);
}

bool restart_requested() {
  char request[PROP_VALUE_MAX] = {};
  property_get(kRestartProperty, request, "");
  return strncmp(request, "reboot", 6) == 0;
}
