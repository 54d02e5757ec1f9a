// On a device, device paths are the paths: the C library's calls, unchanged.
#include <fcntl.h>
#include <sys/stat.h>

#include "tarnwick/platform/platform.h"

FILE* device_fopen(const char* path, const char* mode) { return fopen(path, mode); }

DIR* device_opendir(const char* path) { return opendir(path); }

int device_open(const char* path, int flags, mode_t mode) { return open(path, flags, mode); }

int device_mkdir(const char* path, mode_t mode) { return mkdir(path, mode); }

int device_remove(const char* path) { return remove(path); }

int device_chmod(const char* path, mode_t mode) { return chmod(path, mode); }
