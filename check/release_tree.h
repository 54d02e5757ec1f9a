// What the readers of releases share: the limits they keep, how a device path
// is found inside an input (links resolved inside it, as on a device), and
// how a tree is written into the scratch root without following a link.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <android-base/unique_fd.h>
#include <linux/filter.h>

#include "check/release_input.h"

// The data a tree read from a package or an image may hold, holes not
// counted: a vendor ODM tree holds configuration files, not gigabytes.
inline constexpr uint64_t kMaxTreeBytes = 1ull << 30;
// The entries it may hold.
inline constexpr size_t kMaxTreeEntries = 200000;
// The size an image may have once raw, and what reading it may write in all.
inline constexpr uint64_t kMaxImageBytes = 16ull << 30;
// The time reading an image may take.
inline constexpr int kReadSeconds = 600;
// How far a link may lead to another before a lookup gives up, as the kernel's.
inline constexpr int kMaxLinks = 40;

// One entry of an input, as far as finding the tree needs it.
struct InputNode {
  enum Type { kMissing, kDirectory, kLink, kOther, kUnreadable } type = kMissing;
  std::string target;  // of a link; why, when it cannot be read
};
// Looks up |path|, relative to the input's root and with no link in it ("" is the root).
using InputLookup = std::function<InputNode(const std::string& path)>;
// Where device paths lie in an input: device directory -> input path, e.g.
// {"/vendor", "VENDOR"}.
using DeviceMap = std::vector<std::pair<std::string, std::string>>;

// Finds device path |device_path| in an input laid out as |map| says, each
// link resolved as a device resolves it (absolute targets from the device's
// root, ".." stopping there). True with |*path| the input path of the
// directory it names; false with |*why| when it is missing, not a directory,
// or lies outside the input.
bool find_in_input(const std::string& device_path, const DeviceMap& map, const InputLookup& lookup,
                   std::string* path, std::string* why);
// The lookup of a host directory |base|, links read and never followed.
InputLookup host_lookup(const std::string& base);
// True when |name| is relative and has no empty, "." or ".." component.
bool plain_relative(const std::string& name);

// A tree being written into the scratch root. Every entry is made by a name
// relative to it; each directory on the way is opened without following a
// link, so that an entry that would pass through a link (or a file) an
// earlier entry made is refused, not written through.
struct TreeOut {
  android::base::unique_fd root;
  std::string root_path;
  std::map<std::string, mode_t> dir_modes;  // applied last, so that a mode-000 directory fills
  std::map<std::string, bool> made_dirs;    // name -> made by an entry of its own
  std::vector<std::pair<std::string, std::string>> unmade;
  uint64_t bytes = 0;
  size_t entries = 0;
};

// Makes the empty directory |dir| for a tree. Each function below returns
// false with |*why| set (a phrase about |name|) when it cannot.
bool out_start(TreeOut* out, const std::string& dir, std::string* why);
// Directory |name| ("" for the tree's own), with |mode| once it is full.
bool out_directory(TreeOut* out, const std::string& name, mode_t mode, std::string* why);
// A new empty file |name|, open for writing, in |*fd|.
bool out_file(TreeOut* out, const std::string& name, android::base::unique_fd* fd,
              std::string* why);
// Writes |size| bytes at |offset| of |fd|, within the tree's data bound;
// all-zero blocks are left as holes.
bool out_write(TreeOut* out, int fd, const void* data, size_t size, uint64_t offset,
               std::string* why);
// Ends file |fd|: its length |size| and its mode |mode|.
bool out_end_file(int fd, uint64_t size, mode_t mode, std::string* why);
bool out_link(TreeOut* out, const std::string& name, const std::string& target, std::string* why);
// A FIFO, socket, or character or block device; a device that this process
// may not make is listed in |out->unmade| instead.
bool out_special(TreeOut* out, const std::string& name, mode_t mode, dev_t device,
                 std::string* why);
// Gives every directory its mode, deepest first.
bool out_finish(TreeOut* out, std::string* why);
// Removes |path| and everything under it, directories without permissions
// too, by system calls alone: a signal handler may call it.
void remove_unpacked(const char* path);
// The same for |name| in directory |dir|, by system calls alone, so that a
// signal handler may do it; a directory without permissions is given them first.
void remove_at(int dir, const char* name);

// The readers (release_zip.cpp, release_ext4.cpp, release_erofs.cpp,
// release_sparse.cpp). Each reads the input open at |fd| into |scratch| and
// fills |in| (kind already set); false with |*error| set to the part of the
// error line after the input's name and kind.
bool read_zip(int fd, const std::string& scratch, ReleaseInput* in, std::string* error);
bool read_ext4(int fd, const std::string& scratch, ReleaseInput* in, std::string* error);
bool read_erofs(int fd, const std::string& scratch, ReleaseInput* in, std::string* error);
// Writes the raw image that sparse image |fd| holds to a new file |raw|,
// holes kept; false with |*error| set.
bool unsparse(int fd, const std::string& raw, std::string* error);
struct Confinement;
// Runs |work| in a child process that shares the checker's memory until it
// runs a program (vfork): |work| makes system calls only, then execs; its
// result is the child's exit status when the exec fails. The program may
// write to |error_fd|, which ends up in |*output|. It is killed when it runs
// longer than kReadSeconds or takes more than kMaxImageBytes of the file
// system that holds |scratch|. False with |*why| set (a phrase about the
// child) unless it exits with status 0.
bool run_child(const std::function<int(int error_fd)>& work, const std::string& scratch,
               std::string* output, std::string* why, Confinement* confinement = nullptr);

// A child that runs a program over input, confined to directory |root|
// (release_confine.cpp): it may make, write and remove entries only beneath
// it (Landlock), changes no owner or time, and each mode it sets is set by
// the checker, on what the path names beneath |root| without a link on the
// way, else refused and listed in |refused|.
struct Confinement {
  std::string root;
  android::base::unique_fd root_fd, ruleset, parent_end, child_end, listener;
  std::vector<struct sock_filter> program;  // the seccomp filter, made before the child
  size_t notif_size = 0, resp_size = 0;
  std::vector<std::string> refused;
};
// Before the child starts; false with |*why| set when this host cannot confine it.
bool confine_prepare(const std::string& root, Confinement* confinement, std::string* why);
// In the child, before it runs the program: system calls only.
bool confine_child(Confinement* confinement);
// In the checker once the child runs, and for each call of the child's it judges.
bool confine_parent(Confinement* confinement);
void confine_serve(Confinement* confinement);
// Where an image's tree lies: a vendor image's etc/odm, else a system
// image's vendor/etc/odm (of a device without a vendor partition). False
// with |*error| set when it holds none.
bool find_image_tree(const InputLookup& lookup, std::string* path, std::string* error);
// Where a target-files package's tree lies: VENDOR/etc/odm, else
// SYSTEM/vendor/etc/odm (a device without a vendor partition).
bool find_package_tree(const InputLookup& lookup, std::string* path, std::string* error);
