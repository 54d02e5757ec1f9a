// A target-files package as a ZIP, read with the platform's own ZIP reader
// (libziparchive). Its vendor ODM tree is unpacked into the scratch root: a
// link entry (one whose Unix mode says so) becomes a link to what it holds,
// modes come from each entry's Unix mode.
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <memory>

#include <android-base/logging.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>
#include <ziparchive/zip_archive.h>

#include "check/check.h"
#include "check/release_tree.h"

using android::base::unique_fd;

namespace {

// A tree may expand to this many times the size of the whole package, or to
// kMinZipBomb whatever its size, and to kMaxTreeBytes at most: a package
// whose tree expands further is a ZIP bomb, not a release.
const uint64_t kMaxZipExpansion = 100;
const uint64_t kMinZipBomb = 64ull << 20;
// The entry count of an archive's end record when the real count lies in a
// ZIP64 record, which this version of the reader does not read.
const size_t kZip64EntryCount = 0xffff;

struct Entry {
  ZipEntry zip;
  bool directory;  // named with a trailing "/", or a directory by its mode
};

mode_t type_of(const Entry& entry) {
  if (entry.directory) return S_IFDIR;
  const mode_t type = entry.zip.unix_mode & S_IFMT;
  return type != 0 ? type : S_IFREG;
}

// The target that link entry |entry| holds; empty when it cannot be one.
std::string link_target(ZipArchiveHandle archive, Entry entry) {
  std::string target(entry.zip.uncompressed_length, '\0');
  if (target.empty() || target.size() >= PATH_MAX ||
      ExtractToMemory(archive, &entry.zip, reinterpret_cast<uint8_t*>(target.data()),
                      target.size()) != 0) {
    return "";
  }
  return target;
}

struct FileData {
  TreeOut* out;
  int fd;
  uint64_t offset = 0;
  std::string why;
};

bool append_data(const uint8_t* data, size_t size, void* cookie) {
  auto* file = static_cast<FileData*>(cookie);
  if (!out_write(file->out, file->fd, data, size, file->offset, &file->why)) return false;
  file->offset += size;
  return true;
}

// Writes entry |entry|, named |name| in the tree.
bool write_entry(ZipArchiveHandle archive, TreeOut* out, const std::string& name, Entry entry,
                 std::string* why) {
  const mode_t mode = entry.zip.unix_mode & 07777;
  switch (type_of(entry)) {
    case S_IFDIR:
      return out_directory(out, name, mode, why);
    case S_IFLNK: {
      const std::string target = link_target(archive, entry);
      if (target.empty()) {
        *why = "is a link entry whose target cannot be read";
        return false;
      }
      return out_link(out, name, target, why);
    }
    case S_IFIFO:
    case S_IFSOCK:
      return out_special(out, name, entry.zip.unix_mode, 0, why);
    case S_IFCHR:
    case S_IFBLK:
      out->unmade.emplace_back(name,
                               type_of(entry) == S_IFCHR ? "character device" : "block device");
      return true;
    default: {
      unique_fd fd;
      if (!out_file(out, name, &fd, why)) return false;
      FileData file{out, fd.get(), 0, ""};
      const int32_t status = ProcessZipEntryContents(archive, &entry.zip, append_data, &file);
      if (status != 0) {
        *why = !file.why.empty() ? file.why
                                 : "cannot be unpacked: " + std::string(ErrorCodeString(status));
        return false;
      }
      return out_end_file(fd.get(), entry.zip.uncompressed_length, mode, why);
    }
  }
}

}  // namespace

bool read_zip(int fd, const std::string& scratch, ReleaseInput* in, std::string* error) {
  // The reader's own warnings would be a second account of what the error line says.
  android::base::ScopedLogSeverity quiet(android::base::FATAL);
  ZipArchiveHandle handle = nullptr;
  const int32_t opened = OpenArchiveFd(fcntl(fd, F_DUPFD_CLOEXEC, 0), "", &handle, true);
  std::unique_ptr<ZipArchive, decltype(&CloseArchive)> archive(handle, CloseArchive);
  if (opened != 0) {
    *error = std::string("cannot be read as a ZIP: ") + ErrorCodeString(opened) +
             " (it is truncated or corrupt, or a ZIP64 archive of more than 4 GiB, which the "
             "platform's ZIP reader of this host does not read)";
    return false;
  }
  const ZipArchiveInfo info = GetArchiveInfo(handle);
  if (info.entry_count >= kZip64EntryCount) {
    *error =
        "has 65535 entries or more, a ZIP64 archive, which the platform's ZIP reader of "
        "this host does not read: give the package extracted";
    return false;
  }
  void* cookie = nullptr;
  if (const int32_t status = StartIteration(handle, &cookie); status != 0) {
    *error = std::string("cannot be read as a ZIP: ") + ErrorCodeString(status);
    return false;
  }
  std::unique_ptr<void, decltype(&EndIteration)> iteration(cookie, EndIteration);
  std::map<std::string, Entry> entries;
  ZipEntry zip;
  std::string name;
  int32_t status;
  while ((status = Next(cookie, &zip, &name)) == 0) {
    const bool directory = android::base::EndsWith(name, "/") || S_ISDIR(zip.unix_mode);
    std::string key = android::base::EndsWith(name, "/") ? name.substr(0, name.size() - 1) : name;
    // Unpacked anywhere, such a name would leave the directory it is unpacked into.
    if (!plain_relative(key)) {
      *error = "has an entry named " + shown(name) +
               ", absolute or with an empty, \".\" or \"..\" component: refused";
      return false;
    }
    if (!entries.emplace(key, Entry{zip, directory}).second) {
      *error = "has the entry " + shown(key) + " twice: refused";
      return false;
    }
  }
  if (status != -1) {
    *error = std::string("cannot be read as a ZIP: ") + ErrorCodeString(status);
    return false;
  }

  const InputLookup lookup = [&](const std::string& path) {
    InputNode node;
    if (path.empty()) {
      node.type = InputNode::kDirectory;
      return node;
    }
    const auto at = entries.find(path);
    if (at != entries.end()) {
      const mode_t type = type_of(at->second);
      node.type = type == S_IFDIR   ? InputNode::kDirectory
                  : type == S_IFLNK ? InputNode::kLink
                                    : InputNode::kOther;
      if (type == S_IFLNK) node.target = link_target(handle, at->second);
      return node;
    }
    const auto below = entries.lower_bound(path + "/");
    if (below != entries.end() && android::base::StartsWith(below->first, path + "/")) {
      node.type = InputNode::kDirectory;
    }
    return node;
  };
  std::string tree;
  if (!find_package_tree(lookup, &tree, error)) return false;

  // All that the tree's entries need is known before the first is written.
  const std::string prefix = tree + "/";
  uint64_t size = 0;
  for (auto it = entries.lower_bound(prefix); it != entries.end(); ++it) {
    if (!android::base::StartsWith(it->first, prefix)) break;
    size += it->second.zip.uncompressed_length;
    for (size_t slash = it->first.find('/', prefix.size()); slash != std::string::npos;
         slash = it->first.find('/', slash + 1)) {
      const auto above = entries.find(it->first.substr(0, slash));
      if (above != entries.end() && type_of(above->second) != S_IFDIR) {
        *error = "has the entry " + shown(it->first) + " beneath " + shown(above->first) +
                 ", which is " + (type_of(above->second) == S_IFLNK ? "a link" : "a file") +
                 ": refused, never written through";
        return false;
      }
    }
  }
  const uint64_t bound = std::min<uint64_t>(
      kMaxTreeBytes, std::max<uint64_t>(kMinZipBomb, kMaxZipExpansion * info.archive_size));
  if (size > bound) {
    *error = "its tree " + shown(tree) + " expands to " + std::to_string(size) +
             " bytes, more than " + std::to_string(kMaxZipExpansion) +
             " times the size of the whole package (" + std::to_string(info.archive_size) +
             " bytes) and " + std::to_string(kMinZipBomb >> 20) + " MiB, or more than " +
             std::to_string(kMaxTreeBytes >> 20) + " MiB: refused as a ZIP bomb";
    return false;
  }

  TreeOut out;
  std::string why;
  if (!out_start(&out, scratch + "/tree", &why)) {
    *error = why;
    return false;
  }
  if (const auto own = entries.find(tree); own != entries.end()) {
    out_directory(&out, "", own->second.zip.unix_mode, &why);
  }
  for (auto it = entries.lower_bound(prefix); it != entries.end(); ++it) {
    if (!android::base::StartsWith(it->first, prefix)) break;
    if (!write_entry(handle, &out, it->first.substr(prefix.size()), it->second, &why)) {
      *error = "its entry " + shown(it->first) + " " + why;
      return false;
    }
  }
  if (!out_finish(&out, &why)) {
    *error = "its tree " + why;
    return false;
  }
  in->tree = out.root_path;
  in->inner = tree;
  in->unmade = std::move(out.unmade);
  return true;
}
