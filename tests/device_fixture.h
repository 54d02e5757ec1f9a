// Helpers for tests that run inside the device sandbox, where /odm, /vendor,
// the property store and /dev/kmsg belong to the test.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

// Writes |content| to |path|, creating the directories above it.
void write_file(const std::string& path, const std::string& content);
// The bytes of |path|, or "<missing>" when it cannot be read.
std::string read_file(const std::string& path);
// Sets a property as boot.prop would, bypassing property_set's rules; an
// empty |value| with |present| false removes it.
void put_prop(const std::string& name, const std::string& value);
void drop_prop(const std::string& name);
// The value file of |name| ("<unset>" when there is none).
std::string stored_prop(const std::string& name);
mode_t file_mode(const std::string& path);
// Runs |body| with the effective uid and gid 1000; returns its result, or
// kCannotDropPrivileges when the test does not run as root.
inline constexpr int kCannotDropPrivileges = 100;
int run_unprivileged(const std::function<int()>& body);
#define SKIP_UNLESS_PRIVILEGED(status) \
  if ((status) == kCannotDropPrivileges) GTEST_SKIP() << "needs root to drop to uid 1000"

// Starts every test from an empty device and records the log lines written.
class DeviceTest : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  // Log lines recorded so far, and forgets them.
  std::vector<std::string> TakeLog();
  std::vector<std::string> log_;
};
