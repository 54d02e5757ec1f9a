// The fuzz targets reach the device's fixed paths (/odm, /vendor, the property
// store, /dev/kmsg), so each one runs inside the device sandbox over a scratch
// root of its own. Call enter_device_sandbox from LLVMFuzzerInitialize.
#pragma once

#include <string>

// Outside the sandbox: runs this fuzzer again inside it, with the same
// arguments, over a fresh scratch root (/vendor writable), then removes the
// root and exits with the inner run's status; it does not return. The working
// directory and the directories of the paths given on the command line (corpus
// directories, inputs, -artifact_prefix=, -exact_artifact_path=, -dict=) are
// bound at their own paths, so relative and absolute paths mean the same
// inside. One process per sandbox: -jobs and -fork would share one /odm.
// Inside: enters the original working directory and silences the program's
// log, which would otherwise cost most of the time of an iteration.
void enter_device_sandbox(int* argc, char*** argv);

// Writes |content| to |path|, creating the directories above it.
void put_file(const std::string& path, const std::string& content);

// The bytes of |path|; false when it cannot be opened.
bool get_file(const std::string& path, std::string* content);
