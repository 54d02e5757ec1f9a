// libcutils as the program sees it on a device, for host builds. The values and
// signatures are the platform's; the behaviour is described beside each function.
#pragma once

#include <sys/types.h>

#define PROP_VALUE_MAX 92

#define ANDROID_RB_RESTART 0xDEAD0001
#define ANDROID_RB_POWEROFF 0xDEAD0002
#define ANDROID_RB_RESTART2 0xDEAD0003
#define ANDROID_RB_THERMOFF 0xDEAD0004

extern "C" {

// Copies the value of |key| (at most 91 bytes) or |default_value| into |value|,
// zero-ended; returns the length copied. The store is one file per property in
// /dev/__properties__.
int property_get(const char* key, char* value, const char* default_value);

// Gives |key| the value |value|; 0 on success, -1 when refused or on failure.
int property_set(const char* key, const char* value);

// Asks for a restart or power-off through "sys.powerctl"; returns property_set's result.
int android_reboot(unsigned cmd, int flags, const char* reason);

// Writes one printf-formatted record to /dev/kmsg when |level| is at most 6.
void klog_write(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // extern "C"

// Host-only helpers shared by the host property functions and their tests.
namespace tarnwick_host {

// Directory of the file-per-property store.
inline constexpr char kPropertyDir[] = "/dev/__properties__";

// True when |name| may name a property: non-empty, only A-Z a-z 0-9 . _ - : @,
// no leading or trailing dot, no "..".
bool is_legal_property_name(const char* name);

// True when the zero-ended |value| is well-formed UTF-8 (no overlong forms,
// no surrogates, nothing above U+10FFFF).
bool is_valid_utf8(const char* value);

// Finds the device root that TARNWICK_ROOT names, once; without a usable one
// the process says what to do and exits with status 2, having touched nothing.
void find_device_root();

// rename(2) of two device paths, resolved as device_open resolves them.
int rename_path(const char* from, const char* to);

// For host tools that read a tree they were given through the program's
// library: from now on this process's opens of device paths never wait for
// the other end of a FIFO (they find it empty), where a device would hang.
void never_wait_on_open();

// open(2) of |path| inside the directory |root| as if it were "/", as device
// paths are resolved; for host tools that lay out or read a device root of
// their own (no read-only /vendor here). -1 with errno set on failure.
int open_in(int root, const char* path, int flags, mode_t mode = 0);

}  // namespace tarnwick_host
