// A host start of the program finds its device root before main runs, as a
// device's paths are there before init starts the service: without one the
// program ends at once, having written nothing, not even a log line.
#include "tarnwick/platform/platform.h"

namespace {

const bool kRootFound = (tarnwick_host::find_device_root(), true);

}  // namespace
