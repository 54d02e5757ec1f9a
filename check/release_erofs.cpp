// An EROFS image, unpacked by erofs-utils' fsck.erofs (Debian has no library
// of it), which can only unpack a whole image: it runs confined to a
// directory of the scratch root (release_confine.cpp), keeps modes and links,
// makes FIFOs, sockets and, where it may, devices; then all but the tree is
// removed. Owners stay those of whoever runs the checker.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

#include <android-base/strings.h>
#include <android-base/unique_fd.h>

#include "check/check.h"
#include "check/release_tree.h"

using android::base::unique_fd;

namespace {

const char kProgram[] = "fsck.erofs";
// What fsck.erofs says of a device it may not make, which it leaves out and goes on.
const char kSkipped[] = "failed to create special file: ";
const char kSkippedEnd[] = ", skipped";
// Where the image's descriptor stands in the child, and its name there.
const int kImageFd = 3;
const char kImagePath[] = "/proc/self/fd/3";

// |name| in the absolute directories of PATH (a relative one would run a
// program of the working directory, which may be the tree); empty when none has it.
std::string find_program(const char* name) {
  const char* path = getenv("PATH");
  for (const std::string& dir :
       android::base::Split(path != nullptr ? path : "/usr/sbin:/usr/bin", ":")) {
    if (dir.empty() || dir[0] != '/') continue;
    const std::string candidate = dir + "/" + name;
    if (access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return "";
}

// The first error line of fsck.erofs, shown: its later ones only say that it failed.
std::string first_error(const std::string& output) {
  for (const std::string& line : android::base::Split(output, "\n")) {
    if (android::base::StartsWith(line, "<E>")) return ": " + shown(line);
  }
  return "";
}

// Leaves of |root| only the tree at |tree| (relative): each directory on the
// way loses its other entries.
void prune_to(const std::string& root, const std::string& tree) {
  std::string dir = root;
  for (const std::string& part : android::base::Split(tree, "/")) {
    chmod(dir.c_str(), S_IRWXU);
    std::unique_ptr<DIR, int (*)(DIR*)> listing(opendir(dir.c_str()), closedir);
    std::vector<std::string> others;
    while (const dirent* entry = listing ? readdir(listing.get()) : nullptr) {
      const std::string name = entry->d_name;
      if (name != "." && name != ".." && name != part) others.push_back(name);
    }
    for (const std::string& name : others) remove_unpacked((dir + "/" + name).c_str());
    dir += "/" + part;
  }
}

}  // namespace

bool read_erofs(int fd, const std::string& scratch, ReleaseInput* in, std::string* error) {
  const std::string program = find_program(kProgram);
  if (program.empty()) {
    *error = std::string("cannot be read without ") + kProgram + " (Debian's erofs-utils)";
    return false;
  }
  const std::string root = scratch + "/image";
  if (mkdir(root.c_str(), 0700) != 0) {
    *error = "cannot make " + root + ": " + strerror(errno);
    return false;
  }
  Confinement confinement;
  std::string why;
  if (!confine_prepare(root, &confinement, &why)) {
    *error = kProgram + (" " + why);
    return false;
  }
  const std::string extract = "--extract=" + root;
  auto work = [&](int error_fd) {
    unique_fd null(open("/dev/null", O_RDWR | O_CLOEXEC));
    if (null < 0 || dup2(null.get(), 0) < 0 || dup2(null.get(), 1) < 0 || dup2(error_fd, 2) < 0 ||
        dup2(fd, kImageFd) < 0 || fcntl(kImageFd, F_SETFD, 0) != 0) {
      return 126;
    }
    // Modes as the image has them: no umask of the checker's narrows them.
    umask(0);
    if (!confine_child(&confinement)) return 125;
    const char* argv[] = {kProgram,           extract.c_str(), "--no-preserve-owner",
                          "--preserve-perms", kImagePath,      nullptr};
    execv(program.c_str(), const_cast<char**>(argv));
    return 127;
  };
  std::string output;
  // fsck.erofs 1.5 ends with status 0 after some errors (a superblock whose
  // checksum does not match): an error line is a failure too.
  const bool ran = run_child(work, scratch, &output, &why, &confinement);
  if (!confinement.refused.empty()) {
    *error = "has a name that leads out of where it is unpacked (" + std::string(kProgram) +
             " would set a mode on " + shown(confinement.refused.front()) + "): refused";
    return false;
  }
  if (!ran || !first_error(output).empty()) {
    *error = kProgram + (" " + (ran ? "failed" : why)) + first_error(output);
    return false;
  }
  std::string tree;
  if (!find_image_tree(host_lookup(root), &tree, error)) return false;
  for (const std::string& line : android::base::Split(output, "\n")) {
    const size_t at = line.find(kSkipped);
    if (at == std::string::npos || !android::base::EndsWith(line, kSkippedEnd)) continue;
    const std::string path = line.substr(at + strlen(kSkipped),
                                         line.size() - at - strlen(kSkipped) - strlen(kSkippedEnd));
    const std::string prefix = root + "/" + tree + "/";
    if (android::base::StartsWith(path, prefix)) {
      // It does not say which kind of device.
      in->unmade.emplace_back(path.substr(prefix.size()), "device file");
    }
  }
  prune_to(root, tree);
  in->tree = root + "/" + tree;
  in->inner = tree;
  return true;
}
