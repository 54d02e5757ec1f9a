// A program that unpacks an image, kept inside the directory it unpacks to.
// fsck.erofs 1.5 builds each path from the names in the image, which may
// hold "/" and "..": a name can lead through a link it made a moment before,
// or above its directory. Landlock lets it make, write and remove entries
// only beneath that directory; it changes no owner or time (those calls do
// nothing); and each mode it sets is set by the checker, on the entry the
// path names beneath that directory without a link on the way, or refused.
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/landlock.h>
#include <linux/openat2.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <vector>

#include "check/release_tree.h"

using android::base::unique_fd;

#ifndef LANDLOCK_ACCESS_FS_TRUNCATE
#define LANDLOCK_ACCESS_FS_TRUNCATE (1ULL << 14)
#endif

namespace {

#if defined(__x86_64__)
const uint32_t kArch = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
const uint32_t kArch = AUDIT_ARCH_AARCH64;
#else
const uint32_t kArch = 0;
#endif

// The calls whose path the checker judges, those that do nothing, and those refused.
const int kJudged[] = {
#ifdef SYS_chmod
    SYS_chmod,
#endif
    SYS_fchmodat, 452 /* fchmodat2 */};
const int kIgnored[] = {
#ifdef SYS_utime
    SYS_utime,     SYS_utimes,  SYS_futimesat,
#endif
#ifdef SYS_chown
    SYS_chown,     SYS_lchown,
#endif
    SYS_utimensat, SYS_fchownat};
const int kRefused[] = {SYS_fchmod,    SYS_fchown,      SYS_setxattr,     SYS_lsetxattr,
                        SYS_fsetxattr, SYS_removexattr, SYS_lremovexattr, SYS_fremovexattr};

std::vector<sock_filter> filter_program() {
  std::vector<sock_filter> program = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kArch, 1, 0),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
  };
  auto add = [&](const int* calls, size_t count, uint32_t action) {
    for (size_t i = 0; i < count; ++i) {
      program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(calls[i]), 0, 1));
      program.push_back(BPF_STMT(BPF_RET | BPF_K, action));
    }
  };
  add(kJudged, std::size(kJudged), SECCOMP_RET_USER_NOTIF);
  add(kIgnored, std::size(kIgnored), SECCOMP_RET_ERRNO | 0);
  add(kRefused, std::size(kRefused), SECCOMP_RET_ERRNO | EPERM);
  program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
  return program;
}

// The path at |address| in the memory of a process, open at |mem|; empty when it cannot be read.
std::string remote_path(int mem, uint64_t address) {
  std::string path;
  char buf[256];
  while (path.size() < PATH_MAX) {
    // Never past the end of a page: the next one need not be mapped.
    const size_t room = std::min<uint64_t>(sizeof(buf), 4096 - (address + path.size()) % 4096);
    const ssize_t n = pread(mem, buf, room, address + path.size());
    if (n <= 0) return "";
    const char* end = static_cast<const char*>(memchr(buf, '\0', n));
    path.append(buf, end != nullptr ? end - buf : n);
    if (end != nullptr) return path;
  }
  return "";
}

// Sets mode |mode| on what |path| names beneath the confinement's root, as
// the child asked; 0 or the error for the child.
int judged_chmod(const Confinement& confinement, const std::string& path, mode_t mode) {
  const std::string& root = confinement.root;
  std::string rest;
  if (path == root) {
    rest = ".";
  } else if (path.compare(0, root.size() + 1, root + "/") == 0 &&
             plain_relative(path.substr(root.size() + 1))) {
    rest = path.substr(root.size() + 1);
  } else {
    return EPERM;
  }
  open_how how = {};
  how.flags = O_PATH | O_NOFOLLOW | O_CLOEXEC;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
  unique_fd fd(static_cast<int>(
      syscall(SYS_openat2, confinement.root_fd.get(), rest.c_str(), &how, sizeof(how))));
  if (fd < 0) return EPERM;
  const std::string self = "/proc/self/fd/" + std::to_string(fd.get());
  return fchmodat(AT_FDCWD, self.c_str(), mode & 07777, 0) == 0 ? 0 : errno;
}

// The room one descriptor takes in a message.
constexpr size_t kControlSize = CMSG_SPACE(sizeof(int));

// A message of the one byte at |byte| (through |iov|), with |control| for a descriptor.
msghdr one_byte_message(char* byte, iovec* iov, char* control) {
  *iov = {byte, 1};
  msghdr message = {};
  message.msg_iov = iov;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = kControlSize;
  return message;
}

}  // namespace

bool confine_prepare(const std::string& dir, Confinement* confinement, std::string* why) {
  if (kArch == 0) {
    *why = "cannot be confined on this machine's architecture";
    return false;
  }
  const long abi =
      syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
  if (abi < 1) {
    *why = "cannot be confined: this kernel has no Landlock (" + std::string(strerror(errno)) + ")";
    return false;
  }
  uint64_t rights = LANDLOCK_ACCESS_FS_WRITE_FILE | LANDLOCK_ACCESS_FS_REMOVE_DIR |
                    LANDLOCK_ACCESS_FS_REMOVE_FILE | LANDLOCK_ACCESS_FS_MAKE_CHAR |
                    LANDLOCK_ACCESS_FS_MAKE_DIR | LANDLOCK_ACCESS_FS_MAKE_REG |
                    LANDLOCK_ACCESS_FS_MAKE_SOCK | LANDLOCK_ACCESS_FS_MAKE_FIFO |
                    LANDLOCK_ACCESS_FS_MAKE_BLOCK | LANDLOCK_ACCESS_FS_MAKE_SYM;
  if (abi >= 2) rights |= LANDLOCK_ACCESS_FS_REFER;
  if (abi >= 3) rights |= LANDLOCK_ACCESS_FS_TRUNCATE;
  landlock_ruleset_attr attr = {};
  attr.handled_access_fs = rights;
  confinement->ruleset.reset(
      static_cast<int>(syscall(SYS_landlock_create_ruleset, &attr, sizeof(attr), 0)));
  confinement->root = dir;
  confinement->root_fd.reset(open(dir.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  landlock_path_beneath_attr beneath = {};
  beneath.allowed_access = rights;
  beneath.parent_fd = confinement->root_fd.get();
  int sockets[2];
  if (confinement->ruleset < 0 || confinement->root_fd < 0 ||
      syscall(SYS_landlock_add_rule, confinement->ruleset.get(), LANDLOCK_RULE_PATH_BENEATH,
              &beneath, 0) != 0 ||
      socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) != 0) {
    *why = "cannot be confined: " + std::string(strerror(errno));
    return false;
  }
  confinement->parent_end.reset(sockets[0]);
  confinement->child_end.reset(sockets[1]);
  confinement->program = filter_program();
  return true;
}

bool confine_child(Confinement* confinement) {
  // Nothing here writes to memory but the stack: until it execs, the child
  // shares the checker's (the parent's end of the socket closes on exec).
  sock_fprog fprog = {static_cast<unsigned short>(confinement->program.size()),
                      confinement->program.data()};
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
      syscall(SYS_landlock_restrict_self, confinement->ruleset.get(), 0) != 0) {
    return false;
  }
  const int listener = static_cast<int>(
      syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER, &fprog));
  if (listener < 0) return false;
  // The listener goes to the checker, which answers for the calls it judges.
  char control[kControlSize] = {};
  char byte = 0;
  iovec iov;
  msghdr message = one_byte_message(&byte, &iov, control);
  cmsghdr* header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(sizeof(int));
  memcpy(CMSG_DATA(header), &listener, sizeof(int));
  const bool sent = sendmsg(confinement->child_end.get(), &message, 0) == 1;
  close(listener);
  return sent;
}

bool confine_parent(Confinement* confinement) {
  confinement->child_end.reset();
  char control[kControlSize] = {};
  char byte;
  iovec iov;
  msghdr message = one_byte_message(&byte, &iov, control);
  if (recvmsg(confinement->parent_end.get(), &message, MSG_CMSG_CLOEXEC) != 1) return false;
  const cmsghdr* header = CMSG_FIRSTHDR(&message);
  if (header == nullptr || header->cmsg_type != SCM_RIGHTS) return false;
  int listener;
  memcpy(&listener, CMSG_DATA(header), sizeof(int));
  confinement->listener.reset(listener);
  seccomp_notif_sizes sizes = {};
  if (syscall(SYS_seccomp, SECCOMP_GET_NOTIF_SIZES, 0, &sizes) != 0) return false;
  confinement->notif_size = sizes.seccomp_notif;
  confinement->resp_size = sizes.seccomp_notif_resp;
  return true;
}

void confine_serve(Confinement* confinement) {
  std::vector<char> request_buf(std::max(confinement->notif_size, sizeof(seccomp_notif)));
  std::vector<char> response_buf(std::max(confinement->resp_size, sizeof(seccomp_notif_resp)));
  auto* request = reinterpret_cast<seccomp_notif*>(request_buf.data());
  if (ioctl(confinement->listener.get(), SECCOMP_IOCTL_NOTIF_RECV, request) != 0) return;
    // chmod(path, mode); fchmodat(dir, path, mode[, flags]).
#ifdef SYS_chmod
  const bool at = request->data.nr != SYS_chmod;
#else
  const bool at = true;
#endif
  const uint64_t address = request->data.args[at ? 1 : 0];
  const mode_t mode = static_cast<mode_t>(request->data.args[at ? 2 : 1]);
  // Opened for each call: a file opened before the child's exec would show
  // the memory it had then.
  unique_fd mem(
      open(("/proc/" + std::to_string(request->pid) + "/mem").c_str(), O_RDONLY | O_CLOEXEC));
  const std::string path = mem < 0 ? "" : remote_path(mem.get(), address);
  int error = EPERM;
  // The path is read before the call is known to be still waiting: a
  // process that went meanwhile gets no answer.
  if (ioctl(confinement->listener.get(), SECCOMP_IOCTL_NOTIF_ID_VALID, &request->id) == 0 &&
      !path.empty() && (!at || static_cast<int>(request->data.args[0]) == AT_FDCWD)) {
    error = judged_chmod(*confinement, path, mode);
  }
  if (error == EPERM) confinement->refused.push_back(path);
  auto* response = reinterpret_cast<seccomp_notif_resp*>(response_buf.data());
  response->id = request->id;
  response->val = 0;
  response->error = -error;
  response->flags = 0;
  ioctl(confinement->listener.get(), SECCOMP_IOCTL_NOTIF_SEND, response);
}
