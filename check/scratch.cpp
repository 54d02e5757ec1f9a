// The scratch root: one directory per run under $TMPDIR, held by a lock that
// its run keeps for as long as it lives, so that a later run can tell the
// roots of killed runs (no holder) from those of live ones and remove them.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <time.h>
#include <unistd.h>

#include "check/check.h"
#include "check/host_io.h"
#include "check/release_tree.h"

namespace {

const char kPrefix[] = "tarnwick-check.";
const char kLock[] = ".lock";
// Where the scratch root goes without TMPDIR: on disk, not in memory, since a
// tree's copies take what the tree takes on disk.
const char kDefaultTmp[] = "/var/tmp";
// A root without a lock is being made, or its run died before taking it; one
// this old is taken for the latter.
const time_t kUnlockedAge = 60;
// Room for the property store, the kernel log, the stamp and the directories.
const unsigned long long kSpareBytes = 1 << 20, kSpareFiles = 256;

char removal_path[PATH_MAX];
int root_fd = -1;

void remove_root() {
  if (removal_path[0] != '\0') remove_at(AT_FDCWD, removal_path);
}

// An interrupted check leaves no scratch root behind.
void on_signal(int sig) {
  remove_root();
  signal(sig, SIG_DFL);
  raise(sig);
}

// Removes the scratch roots in |tmp| that runs of this user left when they
// were killed: nobody holds their lock.
void sweep(const std::string& tmp) {
  std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(tmp.c_str()), closedir);
  while (const dirent* entry = dir ? readdir(dir.get()) : nullptr) {
    if (strncmp(entry->d_name, kPrefix, sizeof(kPrefix) - 1) != 0) continue;
    struct stat st;
    if (fstatat(dirfd(dir.get()), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0 ||
        !S_ISDIR(st.st_mode) || st.st_uid != geteuid()) {
      continue;
    }
    const std::string lock = std::string(entry->d_name) + "/" + kLock;
    const int fd = openat(dirfd(dir.get()), lock.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    const bool dead = fd >= 0 ? flock(fd, LOCK_EX | LOCK_NB) == 0
                              : errno == ENOENT && time(nullptr) - st.st_mtime > kUnlockedAge;
    if (fd >= 0) close(fd);
    if (dead) remove_at(dirfd(dir.get()), entry->d_name);
  }
}

// Set in a thread that copies beside others: fail throws there.
thread_local bool fail_throws = false;

}  // namespace

void throw_on_fail() { fail_throws = true; }

void fail(const std::string& what) {
  if (fail_throws) throw Failure{what};
  fprintf(stderr, "tarnwick-check: %s\n", printable(what).c_str());
  exit(2);
}

std::string make_scratch_root() {
  const char* env = getenv("TMPDIR");
  const std::string tmp = env != nullptr && env[0] != '\0' ? env : kDefaultTmp;
  sweep(tmp);
  std::string path = tmp + "/" + kPrefix + "XXXXXX";
  if (path.size() >= sizeof(removal_path) || mkdtemp(path.data()) == nullptr) {
    fail("cannot make a scratch directory in " + tmp + " (TMPDIR): " + strerror(errno));
  }
  strcpy(removal_path, path.c_str());
  for (int sig : {SIGINT, SIGTERM, SIGHUP}) signal(sig, on_signal);
  atexit(remove_root);
  root_fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  // The lock gets its name only once it is held: another run's sweep never
  // finds it free while this run lives (a young root without one it leaves).
  const std::string held = path + "/" + kLock + ".new";
  const int lock = open(held.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (root_fd < 0 || lock < 0 || flock(lock, LOCK_EX | LOCK_NB) != 0 ||
      rename(held.c_str(), (path + "/" + kLock).c_str()) != 0) {
    fail("cannot set up the scratch directory " + path + ": " + strerror(errno));
  }
  // The lock stays open, and so held, until the process ends.
  return path;
}

void remove_tree(const std::string& path) { remove_at(AT_FDCWD, path.c_str()); }

bool scratch_has_room() {
  struct statvfs fs;
  if (fstatvfs(root_fd, &fs) != 0) return true;
  // A file system that counts no inodes (f_files 0) has no limit on them.
  const auto [bytes, files] = input_size();
  return static_cast<unsigned long long>(fs.f_bavail) * fs.f_frsize >= bytes + kSpareBytes &&
         (fs.f_files == 0 || fs.f_favail >= files + kSpareFiles);
}
