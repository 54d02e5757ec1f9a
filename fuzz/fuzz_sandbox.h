// Fuzz targets reach the device's fixed paths (/odm, /vendor, the property
// store, /dev/kmsg), so each one runs inside the device sandbox over a scratch
// root. Call from LLVMFuzzerInitialize.
#pragma once

#include <string>

// Outside the sandbox: re-executes the fuzzer inside it (does not return).
// Inside: changes to the directory the fuzzer was started in and silences the
// program's log, so libFuzzer's relative paths and speed are as usual.
void enter_device_sandbox(int* argc, char*** argv);

// Writes |content| to |path|, creating the directories above it.
void put_file(const std::string& path, const std::string& content);
