// The one door to the platform: libcutils (properties, restart request, kernel
// log), libbase's LOG, and the file-system calls on device paths. On a device
// these are the platform's own; on a development host the four libcutils
// functions come from host_cutils.cpp and host_properties.cpp, with the
// device's signatures and constants, and device paths are looked up inside the
// device root (host_files.cpp).
#pragma once

#include <dirent.h>
#include <stdio.h>
#include <sys/types.h>

#if defined(__ANDROID__)
#include <cutils/android_reboot.h>
#include <cutils/klog.h>
#include <cutils/properties.h>
#else
#include "tarnwick/platform/host_cutils.h"
#endif

#include <android-base/logging.h>

// Each behaves as the C library call it is named after. On a device it is that
// call (device_files.cpp). A host build resolves |path| inside the directory
// that TARNWICK_ROOT names, as if it were "/": absolute links and ".." stay
// inside it. Unset or empty, paths are used as they are.
FILE* device_fopen(const char* path, const char* mode);
DIR* device_opendir(const char* path);
int device_open(const char* path, int flags, mode_t mode = 0);
int device_mkdir(const char* path, mode_t mode);
int device_remove(const char* path);
int device_chmod(const char* path, mode_t mode);
