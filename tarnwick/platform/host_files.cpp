// Device paths on a development host. TARNWICK_ROOT names the device root;
// every path is resolved inside it by the kernel (openat2 with
// RESOLVE_IN_ROOT), so an absolute link in a vendor tree leads to the root's
// own /vendor and ".." stops at the root, as on a device. Calls that act on a
// name rather than open it (mkdir, remove, rename) open the directory that
// holds the name that way and act on the name in it. /vendor is read-only on
// a device: whatever would change something that lies in the root's /vendor
// fails with EROFS instead. TARNWICK_ROOT=/ means the host's own paths, with
// the C library's calls as they are (a sandbox that binds a device at / makes
// /vendor read-only itself). Without the variable nothing is touched at all.
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/openat2.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <string>

#include "tarnwick/platform/platform.h"

namespace {

const char kRootVariable[] = "TARNWICK_ROOT";

// Set by a host tool that must not hang on a FIFO in a tree it reads.
bool no_waiting = false;

// Opens |path| with |flags| (and |mode| when it creates), |dir| standing for
// "/"; -1 with errno set on failure.
int open_beneath(int dir, const char* path, int flags, mode_t mode) {
  open_how how = {};
  how.flags = static_cast<unsigned>(flags);
  how.mode = (flags & O_CREAT) != 0 ? mode : 0;
  how.resolve = RESOLVE_IN_ROOT;
  long fd;
  // EAGAIN: a rename elsewhere raced with a ".." step; the kernel asks for a retry.
  do {
    fd = syscall(SYS_openat2, dir, path, &how, sizeof(how));
  } while (fd < 0 && errno == EAGAIN);
  return static_cast<int>(fd);
}

// What a start without a device root prints before it ends, untouched.
void refuse_without_root() {
  fprintf(stderr,
          "%s: set %s to a device root (a directory holding vendor/ and odm/, or / for the "
          "host's own paths); tools/run-device ROOT does it for you\n",
          program_invocation_short_name, kRootVariable);
  exit(2);
}

// The device root, opened once; -1 when it is the host's own "/" and paths
// are used as they are. Without a root, or with one that cannot be used, the
// process ends (exit, so that a host tool's own clean-up runs): a start over
// the host's own /odm would be far worse than none.
int open_root() {
  const char* root = getenv(kRootVariable);
  if (root == nullptr || root[0] == '\0') refuse_without_root();
  char real[PATH_MAX];
  if (realpath(root, real) != nullptr && strcmp(real, "/") == 0) return -1;
  const int fd = open(root, O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) {
    fprintf(stderr, "%s: %s=%s: %s\n", program_invocation_short_name, kRootVariable, root,
            strerror(errno));
    exit(2);
  }
  const int probe = open_beneath(fd, "/", O_PATH | O_CLOEXEC, 0);
  if (probe < 0) {
    fprintf(stderr, "%s: %s needs openat2 with RESOLVE_IN_ROOT (Linux 5.6 or later): %s\n",
            program_invocation_short_name, kRootVariable, strerror(errno));
    exit(2);
  }
  close(probe);
  return fd;
}

int root() {
  static const int fd = open_root();
  return fd;
}

int open_in_root(const char* path, int flags, mode_t mode = 0) {
  if (no_waiting && (flags & O_PATH) == 0) flags |= O_NONBLOCK;
  return open_beneath(root(), path, flags, mode);
}

// Closes |fd| and returns |result|, keeping the errno of the call that gave it.
int closing(int fd, int result) {
  const int saved = errno;
  close(fd);
  errno = saved;
  return result;
}

// Opens the directory that holds the last component of |path| and puts that
// component in |name| (with the slashes that end |path|, so that the call on
// it sees them as the kernel would). "/" itself is "." in the root.
int open_parent(const char* path, std::string* name) {
  const std::string text = path;
  if (text.empty()) {
    errno = ENOENT;
    return -1;
  }
  const size_t last = text.find_last_not_of('/');
  if (last == std::string::npos) {
    *name = ".";
    return open_in_root("/", O_PATH | O_DIRECTORY | O_CLOEXEC);
  }
  const size_t slash = text.rfind('/', last);
  *name = text.substr(slash == std::string::npos ? 0 : slash + 1);
  const std::string dir = slash == std::string::npos ? "." : text.substr(0, slash + 1);
  return open_in_root(dir.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
}

// open(2) flags for an fopen |mode|, or -1 for a mode fopen refuses.
int stream_flags(const char* mode) {
  int flags;
  switch (mode[0]) {
    case 'r': flags = O_RDONLY; break;
    case 'w': flags = O_WRONLY | O_CREAT | O_TRUNC; break;
    case 'a': flags = O_WRONLY | O_CREAT | O_APPEND; break;
    default: return -1;
  }
  for (const char* c = mode + 1; *c != '\0'; ++c) {
    if (*c == '+') flags = (flags & ~O_WRONLY) | O_RDWR;
    if (*c == 'e') flags |= O_CLOEXEC;
    if (*c == 'x') flags |= O_EXCL;
  }
  return flags;
}

// Closes |fd| and returns the host path it stood for.
std::string fd_path(int fd) {
  char buf[PATH_MAX];
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  const ssize_t n = readlink(link.c_str(), buf, sizeof(buf));
  closing(fd, 0);
  return n > 0 && static_cast<size_t>(n) < sizeof(buf) ? std::string(buf, n) : std::string();
}

// The host path of the device path |path|, links followed; empty when missing.
std::string host_path(const char* path) {
  const int fd = open_in_root(path, O_PATH | O_CLOEXEC);
  return fd < 0 ? std::string() : fd_path(fd);
}

// The host path where device path |path| lies, or where a call that creates it
// would put it; |follow| follows a link at its end, dangling ones included, as
// open(O_CREAT) and chmod do. Sets |exists|. Empty when the path leads nowhere
// (a missing directory on the way, a loop of links): the call itself then fails.
std::string location(std::string path, bool follow, bool* exists) {
  const int kMaxLinks = 40;  // as the kernel allows
  for (int hops = 0; hops <= kMaxLinks; ++hops) {
    const int fd = open_in_root(path.c_str(), O_PATH | O_CLOEXEC | (follow ? 0 : O_NOFOLLOW));
    *exists = fd >= 0;
    if (fd >= 0) return fd_path(fd);
    std::string name;
    const int dir = open_parent(path.c_str(), &name);
    if (dir < 0) return "";
    name.erase(name.find_last_not_of('/') + 1);
    char target[PATH_MAX];
    const ssize_t n = follow ? readlinkat(dir, name.c_str(), target, sizeof(target)) : -1;
    const std::string at = fd_path(dir);
    if (n <= 0 || static_cast<size_t>(n) >= sizeof(target)) return at + "/" + name;
    // A dangling link: where its target would be made, read as the device reads it.
    const std::string link(target, n);
    static const size_t root_length = host_path("/").size();
    path = link[0] == '/' ? link : at.substr(std::min(at.size(), root_length)) + "/" + link;
  }
  return "";
}

// Which state of its object lets a call reach the read-only check at all;
// in the others it fails, or changes nothing, the way it would anyway.
enum class When { kAlways, kExists, kMissing };

// True, with errno EROFS, when the change to |path| would land in the root's
// /vendor, which a device mounts read-only.
bool read_only(const char* path, bool follow, When when) {
  static const std::string vendor = host_path("/vendor");
  if (vendor.empty()) return false;
  bool exists;
  const std::string at = location(path, follow, &exists);
  const bool inside = at == vendor || at.compare(0, vendor.size() + 1, vendor + "/") == 0;
  if (!inside || (when == When::kExists && !exists) || (when == When::kMissing && exists)) {
    return false;
  }
  errno = EROFS;
  return true;
}

// True, with errno EROFS, when open(2) with |flags| would write, truncate or
// make something in the root's /vendor.
bool opens_read_only(const char* path, int flags) {
  const bool writes = (flags & O_PATH) == 0 &&
                      ((flags & O_ACCMODE) != O_RDONLY || (flags & (O_CREAT | O_TRUNC)) != 0);
  return writes && read_only(path, (flags & O_NOFOLLOW) == 0,
                             (flags & O_CREAT) != 0 ? When::kAlways : When::kExists);
}

}  // namespace

FILE* device_fopen(const char* path, const char* mode) {
  if (root() < 0) return fopen(path, mode);
  const int flags = stream_flags(mode);
  if (flags < 0) {
    errno = EINVAL;
    return nullptr;
  }
  if (opens_read_only(path, flags)) return nullptr;
  const int fd = open_in_root(path, flags, 0666);
  if (fd < 0) return nullptr;
  FILE* file = fdopen(fd, mode);
  if (file == nullptr) closing(fd, -1);
  return file;
}

DIR* device_opendir(const char* path) {
  if (root() < 0) return opendir(path);
  const int fd = open_in_root(path, O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return nullptr;
  DIR* dir = fdopendir(fd);
  if (dir == nullptr) closing(fd, -1);
  return dir;
}

int device_open(const char* path, int flags, mode_t mode) {
  if (root() < 0) return open(path, flags, mode);
  if (opens_read_only(path, flags)) return -1;
  return open_in_root(path, flags, mode);
}

int device_mkdir(const char* path, mode_t mode) {
  if (root() < 0) return mkdir(path, mode);
  // An existing name fails with EEXIST below, as it does on a device.
  if (read_only(path, false, When::kMissing)) return -1;
  std::string name;
  const int dir = open_parent(path, &name);
  return dir < 0 ? -1 : closing(dir, mkdirat(dir, name.c_str(), mode));
}

// As the C library's remove: unlink, and rmdir when that finds a directory.
int device_remove(const char* path) {
  if (root() < 0) return remove(path);
  if (read_only(path, false, When::kAlways)) return -1;
  std::string name;
  const int dir = open_parent(path, &name);
  if (dir < 0) return -1;
  int result = unlinkat(dir, name.c_str(), 0);
  if (result != 0 && errno == EISDIR) result = unlinkat(dir, name.c_str(), AT_REMOVEDIR);
  return closing(dir, result);
}

// chmod follows a link at the end of |path|, so the whole path is resolved
// here and the mode set through the descriptor's /proc name (an O_PATH
// descriptor takes no fchmod).
int device_chmod(const char* path, mode_t mode) {
  if (root() < 0) return chmod(path, mode);
  if (read_only(path, true, When::kExists)) return -1;
  const int fd = open_in_root(path, O_PATH | O_CLOEXEC);
  if (fd < 0) return -1;
  const std::string name = "/proc/self/fd/" + std::to_string(fd);
  return closing(fd, chmod(name.c_str(), mode));
}

namespace tarnwick_host {

void find_device_root() { root(); }

void never_wait_on_open() { no_waiting = true; }

int open_in(int dir, const char* path, int flags, mode_t mode) {
  return open_beneath(dir, path, flags, mode);
}

int rename_path(const char* from, const char* to) {
  if (root() < 0) return rename(from, to);
  if (read_only(from, false, When::kAlways) || read_only(to, false, When::kAlways)) return -1;
  std::string from_name, to_name;
  const int from_dir = open_parent(from, &from_name);
  if (from_dir < 0) return -1;
  const int to_dir = open_parent(to, &to_name);
  if (to_dir < 0) return closing(from_dir, -1);
  const int result = renameat(from_dir, from_name.c_str(), to_dir, to_name.c_str());
  return closing(from_dir, closing(to_dir, result));
}

}  // namespace tarnwick_host
