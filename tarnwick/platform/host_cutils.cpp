// Host restart request and kernel log, as libcutils provides them on a device.
#include "tarnwick/platform/platform.h"

#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <unistd.h>

#include <string>

namespace {

// The platform's default kernel-log level: records above it are dropped.
const int kKlogDefaultLevel = 6;
const char kKmsgPath[] = "/dev/kmsg";

}  // namespace

extern "C" int android_reboot(unsigned cmd, int /*flags*/, const char* reason) {
  std::string request;
  switch (cmd) {
    case ANDROID_RB_RESTART:
    case ANDROID_RB_RESTART2:
      request = "reboot";
      break;
    case ANDROID_RB_POWEROFF:
      request = "shutdown";
      break;
    case ANDROID_RB_THERMOFF:
      request = "shutdown,thermal";
      break;
    default:
      return -1;
  }
  if (reason != nullptr && reason[0] != '\0') request += std::string(",") + reason;
  return property_set("sys.powerctl", request.c_str());
}

extern "C" void klog_write(int level, const char* format, ...) {
  if (level > kKlogDefaultLevel) return;
  // Opened once per process; a failed open is not retried.
  static int fd = device_open(kKmsgPath, O_WRONLY | O_CLOEXEC | O_APPEND);
  if (fd < 0) return;
  char buf[512];
  va_list ap;
  va_start(ap, format);
  int n = vsnprintf(buf, sizeof(buf), format, ap);
  va_end(ap);
  if (n < 0) return;
  size_t length = static_cast<size_t>(n) < sizeof(buf) ? static_cast<size_t>(n) : sizeof(buf) - 1;
  ssize_t ignored = write(fd, buf, length);
  (void)ignored;
}
