// A program run over input in a child process, watched: one that loops or
// fills the disk is ended, and the checker goes on.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <android-base/unique_fd.h>

#include "check/release_tree.h"

using android::base::unique_fd;

namespace {

// How much of its standard error the checker keeps.
const size_t kMaxOutput = 64 * 1024;

double now() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec + ts.tv_nsec / 1e9;
}

uint64_t free_bytes(const std::string& path) {
  struct statvfs vfs;
  return statvfs(path.c_str(), &vfs) == 0 ? uint64_t{vfs.f_bavail} * vfs.f_frsize : 0;
}

}  // namespace

bool run_child(const std::function<int(int error_fd)>& work, const std::string& scratch,
               std::string* output, std::string* why, Confinement* confinement) {
  int pipe_fds[2];
  if (pipe2(pipe_fds, O_CLOEXEC) != 0) {
    *why = "cannot make a pipe: " + std::string(strerror(errno));
    return false;
  }
  unique_fd from_child(pipe_fds[0]), to_parent(pipe_fds[1]);
  const uint64_t free_before = free_bytes(scratch);
  // No handler of the checker's may run in the child (one removes the
  // scratch root): signals wait until the child has its own.
  sigset_t all, before;
  sigfillset(&all);
  sigprocmask(SIG_BLOCK, &all, &before);
  // vfork, not fork: a forked child of a process under user-mode emulation
  // (the AArch64 build's tests) never runs.
  const pid_t pid = vfork();
  if (pid == 0) {
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) signal(sig, SIG_DFL);
    sigprocmask(SIG_SETMASK, &before, nullptr);
    _exit(work(to_parent.get()));
  }
  sigprocmask(SIG_SETMASK, &before, nullptr);
  if (pid < 0) {
    *why = "cannot start a process: " + std::string(strerror(errno));
    return false;
  }
  to_parent.reset();
  fcntl(from_child.get(), F_SETFL, O_NONBLOCK);
  const double deadline = now() + kReadSeconds;
  std::string killed_why;
  if (confinement != nullptr && !confine_parent(confinement)) killed_why = "could not be confined";
  int status = 0;
  for (;;) {
    pollfd p[2] = {{from_child.get(), POLLIN, 0},
                   {confinement != nullptr ? confinement->listener.get() : -1, POLLIN, 0}};
    poll(p, 2, 100);
    if ((p[1].revents & POLLIN) != 0) confine_serve(confinement);
    char buf[4096];
    for (ssize_t n; (n = read(from_child.get(), buf, sizeof(buf))) > 0;) {
      if (output->size() < kMaxOutput)
        output->append(buf, std::min<size_t>(n, kMaxOutput - output->size()));
    }
    const pid_t done = waitpid(pid, &status, WNOHANG);
    if (done == pid) break;
    if (killed_why.empty() && now() > deadline) {
      killed_why = "did not end within " + std::to_string(kReadSeconds) + " s";
    }
    const uint64_t free_now = free_bytes(scratch);
    if (killed_why.empty() && free_now < free_before && free_before - free_now > kMaxImageBytes) {
      killed_why =
          "took more than " + std::to_string(kMaxImageBytes >> 30) + " GiB of the scratch space";
    }
    if (!killed_why.empty()) {
      kill(pid, SIGKILL);
      while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
      }
      *why = killed_why;
      return false;
    }
  }
  if (WIFSIGNALED(status)) {
    *why = "was ended by signal " + std::to_string(WTERMSIG(status)) + " (" +
           strsignal(WTERMSIG(status)) + ")";
    return false;
  }
  if (WEXITSTATUS(status) != 0) {
    *why = "failed (exit status " + std::to_string(WEXITSTATUS(status)) + ")";
    return false;
  }
  return true;
}
