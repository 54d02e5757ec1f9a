// A release as it is kept: a vendor ODM tree given as a directory, a
// target-files package (zipped or extracted) or a vendor image (ext4 or
// EROFS, raw or sparse), recognised by its content and, unless it is a
// directory, read into the checker's scratch root.
#pragma once

#include <string>
#include <utility>
#include <vector>

// What a release was given as, and where its vendor ODM tree now lies on the host.
struct ReleaseInput {
  std::string given;  // as on the command line
  // In words: "directory", "extracted target-files package", "target-files
  // package (ZIP)", "ext4 image", "sparse ext4 image", "EROFS image", "sparse EROFS image".
  std::string kind;
  std::string tree;  // host directory that becomes /vendor/etc/odm
  // Where that tree stands inside the input, links resolved: "VENDOR/etc/odm",
  // "SYSTEM/vendor/etc/odm", "etc/odm", "vendor/etc/odm", ... ; "" when it is
  // the directory given.
  std::string inner;
  // Entries (relative to the tree) that could not be made as what they are,
  // and what they are ("character device 1:3"): devices, which only root may
  // make and which a ZIP holds without their numbers.
  std::vector<std::pair<std::string, std::string>> unmade;
};

// Recognises |given| by its content (magic numbers, never its name) and, for
// a package or an image, reads its vendor ODM tree into |scratch|, an empty
// host directory inside the checker's scratch root; nothing is written
// elsewhere. A directory is not copied: its tree is found inside it
// (VENDOR/etc/odm or SYSTEM/vendor/etc/odm of an extracted target-files
// package; vendor/etc/odm, etc/odm or the directory itself otherwise). False
// with |error| set to one line saying what and where.
bool read_release(const std::string& given, const std::string& scratch, ReleaseInput* out,
                  std::string* error);
