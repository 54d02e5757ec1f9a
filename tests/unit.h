// Unit tests call the program's library over one device root for the whole
// run (unit_main.cpp): /odm, /vendor, the property store and /dev/kmsg are
// theirs, emptied for each test.
#pragma once

#include <gtest/gtest.h>

#include <functional>

#include "tests/harness.h"

// Sets property |name| as boot.prop would, past property_set's rules.
void put_prop(const std::string& name, const std::string& value);
// Runs |body| as a process without privilege: as root, with the effective uid
// and gid 1000; otherwise as it is, where a file's mode alone keeps its owner out.
int run_unprivileged(const std::function<int()>& body);

class DeviceTest : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  std::vector<std::string> TakeLog();  // the log lines since the last call
  std::vector<std::string> log_;
};
