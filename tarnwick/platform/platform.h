// The one door to the platform: libcutils (properties, restart request, kernel
// log) and libbase's LOG. On a device these are the platform's own headers; on a
// development host the four libcutils functions come from host_cutils.cpp and
// host_properties.cpp, with the device's signatures and constants.
#pragma once

#if defined(__ANDROID__)
#include <cutils/android_reboot.h>
#include <cutils/klog.h>
#include <cutils/properties.h>
#else
#include "tarnwick/platform/host_cutils.h"
#endif

#include <android-base/logging.h>
