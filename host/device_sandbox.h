// Host programs that call the program's library on its fixed device paths
// (/odm, /vendor, the property store, /dev/kmsg) run inside the device
// sandbox of tools/run-device: they start once on the host, make a scratch
// device root, and run themselves again inside it.
#pragma once

#include <string>
#include <vector>

namespace device_sandbox {

// True in a process that rerun() started. It also enters the working
// directory the host process had, when that is bound into the sandbox.
bool inside();

// A new device root holding an empty vendor/, in /dev/shm when it is
// writable (memory-backed), else in /tmp.
std::string make_root();

// Runs this executable again with |args| inside the sandbox over |root|
// (tools/run-device, given |options| first), forwarding SIGINT, SIGTERM and
// SIGHUP; then removes |root|. Returns the exit status, 128 + the signal when
// it was killed, or 2 when it could not be started.
int rerun(const std::string& root, const std::vector<std::string>& options,
          const std::vector<std::string>& args);

// The options that bind host path |src| at |dst| in the sandbox, read-only.
std::vector<std::string> ro_bind(const std::string& src, const std::string& dst);

}  // namespace device_sandbox
