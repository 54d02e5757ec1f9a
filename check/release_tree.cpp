// Finding a device path inside an input, and writing a tree into the scratch
// root by names that never lead through a link.
#include "check/release_tree.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>

#include <android-base/strings.h>

#include "check/check.h"

using android::base::unique_fd;

namespace {

const int kDirFlags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

std::vector<std::string> components(const std::string& path) {
  std::vector<std::string> parts;
  for (std::string& part : android::base::Split(path, "/")) {
    if (!part.empty()) parts.push_back(std::move(part));
  }
  return parts;
}

// The input path of device path |device| (a "/"-joined list of components):
// the first directory of |map| it lies in, longest first.
bool to_input(const std::string& device, const DeviceMap& map, std::string* path) {
  size_t best = std::string::npos;
  for (size_t i = 0; i < map.size(); ++i) {
    const std::string& dir = map[i].first;
    const bool inside = dir == "/" || device == dir || android::base::StartsWith(device, dir + "/");
    if (inside && (best == std::string::npos || dir.size() > map[best].first.size())) best = i;
  }
  if (best == std::string::npos) return false;
  const std::string& dir = map[best].first;
  std::string rest =
      dir == "/" ? device.substr(1) : device.substr(std::min(device.size(), dir.size() + 1));
  *path = map[best].second;
  if (!rest.empty()) *path += (path->empty() ? "" : "/") + rest;
  return true;
}

// The directory that holds |name| in the tree, opened without following a
// link; with |make|, missing directories on the way are made (their mode,
// unless an entry of their own gives one, is that of an unpacker: 0755).
bool open_parent(TreeOut* out, const std::string& name, bool make, unique_fd* dir,
                 std::string* last, std::string* why) {
  if (!plain_relative(name)) {
    *why = "has an absolute name, an empty, \".\" or \"..\" component";
    return false;
  }
  if (name.size() >= PATH_MAX) {
    *why = "has a name longer than a path may be";
    return false;
  }
  std::vector<std::string> parts = components(name);
  *last = parts.back();
  parts.pop_back();
  unique_fd fd(fcntl(out->root.get(), F_DUPFD_CLOEXEC, 0));
  std::string sofar;
  for (const std::string& part : parts) {
    sofar += (sofar.empty() ? "" : "/") + part;
    unique_fd next(openat(fd.get(), part.c_str(), kDirFlags));
    if (next < 0 && errno == ENOENT && make) {
      if (mkdirat(fd.get(), part.c_str(), 0700) != 0 && errno != EEXIST) {
        *why = "cannot be made: " + std::string(strerror(errno));
        return false;
      }
      out->made_dirs.emplace(sofar, false);
      out->dir_modes.emplace(sofar, 0755);
      next.reset(openat(fd.get(), part.c_str(), kDirFlags));
    }
    if (next < 0) {
      *why =
          errno == ELOOP || errno == ENOTDIR
              ? "lies beneath " + shown(sofar) + ", which is not a directory but a link or a file"
              : "cannot be made: " + shown(sofar) + ": " + strerror(errno);
      return false;
    }
    fd = std::move(next);
  }
  *dir = std::move(fd);
  return true;
}

// Counts one more entry against the bound.
bool count_entry(TreeOut* out, std::string* why) {
  if (++out->entries <= kMaxTreeEntries) return true;
  *why = "is one entry more than the " + std::to_string(kMaxTreeEntries) + " a tree may hold";
  return false;
}

}  // namespace

bool plain_relative(const std::string& name) {
  if (name.empty() || name[0] == '/') return false;
  for (const std::string& part : android::base::Split(name, "/")) {
    if (part.empty() || part == "." || part == "..") return false;
  }
  return true;
}

bool find_in_input(const std::string& device_path, const DeviceMap& map, const InputLookup& lookup,
                   std::string* path, std::string* why) {
  std::vector<std::string> todo = components(device_path);
  std::reverse(todo.begin(), todo.end());
  std::vector<std::string> done;
  int links = 0;
  std::string in;
  while (!todo.empty()) {
    const std::string part = todo.back();
    todo.pop_back();
    if (part == ".") continue;
    if (part == "..") {
      if (!done.empty()) done.pop_back();
      continue;
    }
    done.push_back(part);
    const std::string device = "/" + android::base::Join(done, "/");
    if (!to_input(device, map, &in)) {
      *why = "leads to " + shown(device) + ", which lies outside it";
      return false;
    }
    const InputNode node = lookup(in);
    switch (node.type) {
      case InputNode::kDirectory:
        break;
      case InputNode::kLink: {
        if (++links > kMaxLinks) {
          *why = "leads through more than " + std::to_string(kMaxLinks) + " links";
          return false;
        }
        done.pop_back();
        if (!node.target.empty() && node.target[0] == '/') done.clear();
        std::vector<std::string> target = components(node.target);
        todo.insert(todo.end(), target.rbegin(), target.rend());
        break;
      }
      case InputNode::kMissing:
        *why = "has no " + shown(in);
        return false;
      case InputNode::kOther:
        *why = "has " + shown(in) + " as a file, not a directory";
        return false;
      case InputNode::kUnreadable:
        *why = "cannot read " + shown(in) + ": " + node.target;
        return false;
    }
  }
  const std::string device = "/" + android::base::Join(done, "/");
  if (!to_input(device, map, &in)) {
    *why = "leads to " + shown(device) + ", which lies outside it";
    return false;
  }
  *path = in;
  return true;
}

InputLookup host_lookup(const std::string& base) {
  return [base](const std::string& path) {
    InputNode node;
    unique_fd dir(open(base.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    std::vector<std::string> parts = components(path);
    if (parts.empty()) {
      node.type = dir >= 0 ? InputNode::kDirectory : InputNode::kMissing;
      return node;
    }
    const std::string last = parts.back();
    parts.pop_back();
    for (const std::string& part : parts) {
      if (dir < 0) return node;
      dir.reset(openat(dir.get(), part.c_str(), kDirFlags));
    }
    struct stat st;
    if (dir < 0 || fstatat(dir.get(), last.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return node;
    if (S_ISLNK(st.st_mode)) {
      char target[PATH_MAX];
      const ssize_t n = readlinkat(dir.get(), last.c_str(), target, sizeof(target));
      if (n < 0 || n == sizeof(target)) return node;
      node.type = InputNode::kLink;
      node.target.assign(target, n);
    } else {
      node.type = S_ISDIR(st.st_mode) ? InputNode::kDirectory : InputNode::kOther;
    }
    return node;
  };
}

bool find_image_tree(const InputLookup& lookup, std::string* path, std::string* error) {
  // A vendor image is the device's /vendor; a system image without a vendor
  // partition beside it is the device's root, with /vendor in it or a link
  // to /system/vendor.
  const std::pair<DeviceMap, const char*> places[] = {
      {{{"/vendor", ""}}, "/vendor/etc/odm"},
      {{{"/", ""}}, "/vendor/etc/odm"},
      {{{"/", ""}}, "/system/vendor/etc/odm"},
  };
  std::string first_why;
  for (const auto& [map, device_path] : places) {
    std::string why;
    if (find_in_input(device_path, map, lookup, path, &why)) return true;
    // A corrupt image is no image without a tree.
    if (why.compare(0, 11, "cannot read") == 0) {
      *error = why;
      return false;
    }
    if (first_why.empty()) first_why = why;
  }
  *error =
      "holds no vendor ODM tree: neither etc/odm (a vendor image) nor vendor/etc/odm or "
      "system/vendor/etc/odm (a system image) is a directory in it (/vendor/etc/odm " +
      first_why + ")";
  return false;
}

bool find_package_tree(const InputLookup& lookup, std::string* path, std::string* error) {
  const std::pair<DeviceMap, const char*> places[] = {
      {{{"/vendor", "VENDOR"}}, "/vendor/etc/odm"},
      {{{"/system", "SYSTEM"}, {"/vendor", "SYSTEM/vendor"}}, "/vendor/etc/odm"},
  };
  std::string first_why;
  for (const auto& [map, device_path] : places) {
    std::string why;
    if (find_in_input(device_path, map, lookup, path, &why)) return true;
    if (first_why.empty()) first_why = why;
  }
  *error =
      "holds no vendor ODM tree: neither VENDOR/etc/odm nor SYSTEM/vendor/etc/odm is a "
      "directory in it (/vendor/etc/odm " +
      first_why + ")";
  return false;
}

bool out_start(TreeOut* out, const std::string& dir, std::string* why) {
  if (mkdir(dir.c_str(), 0700) != 0) {
    *why = "cannot make " + dir + ": " + strerror(errno);
    return false;
  }
  out->root.reset(open(dir.c_str(), kDirFlags));
  out->root_path = dir;
  if (out->root < 0) {
    *why = "cannot open " + dir + ": " + strerror(errno);
    return false;
  }
  out->dir_modes[""] = 0755;
  return true;
}

bool out_directory(TreeOut* out, const std::string& name, mode_t mode, std::string* why) {
  if (name.empty()) {
    out->dir_modes[""] = mode & 07777;
    return true;
  }
  if (!count_entry(out, why)) return false;
  unique_fd dir;
  std::string last;
  if (!open_parent(out, name, true, &dir, &last, why)) return false;
  const std::string key = android::base::Join(components(name), "/");
  if (mkdirat(dir.get(), last.c_str(), 0700) != 0) {
    // Only a directory made on the way to an earlier entry may be there already.
    const int error = errno;
    const auto made = out->made_dirs.find(key);
    struct stat st;
    if (error != EEXIST || made == out->made_dirs.end() || made->second ||
        fstatat(dir.get(), last.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISDIR(st.st_mode)) {
      *why = error == EEXIST ? "appears twice" : "cannot be made: " + std::string(strerror(error));
      return false;
    }
  }
  out->made_dirs[key] = true;
  out->dir_modes[key] = mode & 07777;
  return true;
}

bool out_file(TreeOut* out, const std::string& name, unique_fd* fd, std::string* why) {
  if (!count_entry(out, why)) return false;
  unique_fd dir;
  std::string last;
  if (!open_parent(out, name, true, &dir, &last, why)) return false;
  fd->reset(
      openat(dir.get(), last.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (*fd < 0) {
    *why = errno == EEXIST ? "appears twice" : "cannot be made: " + std::string(strerror(errno));
    return false;
  }
  return true;
}

bool out_write(TreeOut* out, int fd, const void* data, size_t size, uint64_t offset,
               std::string* why) {
  const auto* bytes = static_cast<const char*>(data);
  if (std::all_of(bytes, bytes + size, [](char c) { return c == 0; })) return true;
  if (size > kMaxTreeBytes - std::min(out->bytes, kMaxTreeBytes)) {
    *why = "takes the tree beyond " + std::to_string(kMaxTreeBytes >> 20) + " MiB of data";
    return false;
  }
  out->bytes += size;
  for (size_t done = 0; done < size;) {
    const ssize_t n = pwrite(fd, bytes + done, size - done, offset + done);
    if (n <= 0) {
      *why = "cannot be written: " + std::string(n < 0 ? strerror(errno) : "no room");
      return false;
    }
    done += n;
  }
  return true;
}

bool out_end_file(int fd, uint64_t size, mode_t mode, std::string* why) {
  if (ftruncate(fd, size) != 0 || fchmod(fd, mode & 07777) != 0) {
    *why = "cannot be written: " + std::string(strerror(errno));
    return false;
  }
  return true;
}

bool out_link(TreeOut* out, const std::string& name, const std::string& target, std::string* why) {
  if (!count_entry(out, why)) return false;
  if (target.empty() || target.size() >= PATH_MAX || target.find('\0') != std::string::npos) {
    *why = "is a link without a target a link can have";
    return false;
  }
  unique_fd dir;
  std::string last;
  if (!open_parent(out, name, true, &dir, &last, why)) return false;
  if (symlinkat(target.c_str(), dir.get(), last.c_str()) != 0) {
    *why = errno == EEXIST ? "appears twice" : "cannot be made: " + std::string(strerror(errno));
    return false;
  }
  return true;
}

bool out_special(TreeOut* out, const std::string& name, mode_t mode, dev_t device,
                 std::string* why) {
  if (!count_entry(out, why)) return false;
  unique_fd dir;
  std::string last;
  if (!open_parent(out, name, true, &dir, &last, why)) return false;
  const bool is_device = S_ISCHR(mode) || S_ISBLK(mode);
  if (mknodat(dir.get(), last.c_str(), (mode & S_IFMT) | 0600, is_device ? device : 0) != 0) {
    if (is_device && errno == EPERM) {
      out->unmade.emplace_back(android::base::Join(components(name), "/"),
                               std::string(S_ISCHR(mode) ? "character" : "block") + " device " +
                                   std::to_string(major(device)) + ":" +
                                   std::to_string(minor(device)));
      return true;
    }
    *why = errno == EEXIST ? "appears twice" : "cannot be made: " + std::string(strerror(errno));
    return false;
  }
  // The node is not opened: a FIFO's open would wait for a writer.
  if (fchmodat(dir.get(), last.c_str(), mode & 07777, 0) != 0) {
    *why = "cannot be given its mode: " + std::string(strerror(errno));
    return false;
  }
  return true;
}

bool out_finish(TreeOut* out, std::string* why) {
  std::vector<std::pair<std::string, mode_t>> dirs(out->dir_modes.begin(), out->dir_modes.end());
  // Deepest first: a parent keeps its search permission until its children have their modes.
  std::stable_sort(dirs.begin(), dirs.end(), [](const auto& a, const auto& b) {
    return std::count(a.first.begin(), a.first.end(), '/') + !a.first.empty() >
           std::count(b.first.begin(), b.first.end(), '/') + !b.first.empty();
  });
  for (const auto& [name, mode] : dirs) {
    int status;
    if (name.empty()) {
      status = fchmodat(AT_FDCWD, out->root_path.c_str(), mode, 0);
    } else {
      unique_fd dir;
      std::string last;
      if (!open_parent(out, name, false, &dir, &last, why)) return false;
      status = fchmodat(dir.get(), last.c_str(), mode, 0);
    }
    if (status != 0) {
      *why = "cannot give " + shown(name) + " its mode: " + strerror(errno);
      return false;
    }
  }
  return true;
}

void remove_unpacked(const char* path) { remove_at(AT_FDCWD, path); }

void remove_at(int dir, const char* name) {
  if (unlinkat(dir, name, 0) == 0) return;
  struct stat st;
  if (fstatat(dir, name, &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISDIR(st.st_mode)) return;
  if ((st.st_mode & 0700) != 0700) fchmodat(dir, name, 0700, 0);
  const int fd = openat(dir, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return;
  char buf[4096];
  for (bool removed = true; removed;) {
    removed = false;
    lseek(fd, 0, SEEK_SET);
    for (ssize_t n; (n = getdents64(fd, buf, sizeof(buf))) > 0;) {
      for (ssize_t at = 0; at < n;) {
        const auto* entry = reinterpret_cast<const dirent64*>(buf + at);
        at += entry->d_reclen;
        if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
        remove_at(fd, entry->d_name);
        removed = true;
      }
    }
  }
  close(fd);
  unlinkat(dir, name, AT_REMOVEDIR);
}
