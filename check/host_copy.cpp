// Copies of what the checker was given, and its reads of them, by system
// calls on directory descriptors: no link below the top is followed, no FIFO
// is opened, no device file is made, and a file's holes stay holes.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <openssl/evp.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <memory>

#include "check/check.h"
#include "check/host_io.h"

namespace {

// The regular files the copies of the inputs hold: their count and bytes.
std::atomic<unsigned long long> input_bytes{0}, input_files{0};

// While the old releases are copied: the files copied so far, by mode, size
// and digest. A file like one of them becomes another link to it (releases
// repeat their files, and on some disks every file made costs).
thread_local std::map<std::string, std::string>* copied = nullptr;

const size_t kChunk = 1 << 20;

// Two chunks, for reads and compares that never call one another: made once
// for each thread that copies, not for every small file.
char* chunks() {
  thread_local const std::unique_ptr<char[]> buf(new char[2 * kChunk]);
  return buf.get();
}

struct Fd {
  int fd;
  explicit Fd(int f) : fd(f) {}
  ~Fd() {
    if (fd >= 0) close(fd);
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
};

std::string joined(const std::string& dir, const std::string& name) {
  return dir.empty() ? name : dir + "/" + name;
}

// What a special file is, in words.
std::string special_kind(const struct stat& st) {
  if (S_ISFIFO(st.st_mode)) return "FIFO";
  if (S_ISSOCK(st.st_mode)) return "socket";
  const std::string numbers = " " + std::to_string(major(st.st_rdev)) + ":" + std::to_string(minor(st.st_rdev));
  if (S_ISCHR(st.st_mode)) return "character device" + numbers;
  if (S_ISBLK(st.st_mode)) return "block device" + numbers;
  return "file of unknown type";
}

// Copies |size| bytes from |in| to |out|, leaving the holes of |in| as holes.
// False, with errno set, when a write fails; a read that fails or ends early
// ends the copy (the rest stays a hole), as a file cut short would.
bool copy_bytes(int in, int out, off_t size) {
  char* const buf = chunks();
  for (off_t pos = 0; pos < size;) {
    off_t data = lseek(in, pos, SEEK_DATA);
    if (data < 0 && errno == ENXIO) break;  // only a hole is left
    if (data < 0) data = pos;                // no hole look-up here: read on
    off_t hole = lseek(in, data, SEEK_HOLE);
    if (hole < 0 || hole > size) hole = size;
    for (pos = data; pos < hole;) {
      const ssize_t n = pread(in, buf, std::min<off_t>(kChunk, hole - pos), pos);
      if (n <= 0) return ftruncate(out, size) == 0;
      for (ssize_t done = 0; done < n;) {
        const ssize_t w = pwrite(out, buf + done, n - done, pos + done);
        if (w <= 0) {
          if (w == 0) errno = ENOSPC;
          return false;
        }
        done += w;
      }
      pos += n;
    }
  }
  return ftruncate(out, size) == 0;
}

// Whether |a| and |b|, both |size| bytes long, hold the same bytes.
bool same_bytes(int a, int b, off_t size) {
  char* const buf = chunks();
  for (off_t pos = 0; pos < size;) {
    const size_t want = std::min<off_t>(kChunk, size - pos);
    if (pread(a, buf, want, pos) != static_cast<ssize_t>(want) ||
        pread(b, buf + kChunk, want, pos) != static_cast<ssize_t>(want) ||
        memcmp(buf, buf + kChunk, want) != 0) {
      return false;
    }
    pos += want;
  }
  return true;
}

// Whether regular file |in| (as |st| says it is) holds what entry |name| of
// directory |like| does, with the same mode: then that entry may stand for it.
bool same_as(int in, const struct stat& st, int like, const std::string& name) {
  struct stat other;
  if (like < 0 || fstatat(like, name.c_str(), &other, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(other.st_mode) ||
      other.st_size != st.st_size || (other.st_mode & 07777) != (st.st_mode & 07777)) {
    return false;
  }
  Fd theirs(openat(like, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  return theirs.fd >= 0 && same_bytes(in, theirs.fd, st.st_size);
}

// The names in directory |fd|, sorted; false when it cannot be listed whole.
bool names_in(int fd, std::vector<std::string>* names) {
  std::unique_ptr<DIR, int (*)(DIR*)> listing(fdopendir(dup(fd)), closedir);
  errno = 0;
  while (const dirent* entry = listing ? readdir(listing.get()) : nullptr) {
    if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) names->push_back(entry->d_name);
  }
  std::sort(names->begin(), names->end());
  return listing && errno == 0;
}

// Whether entry |name| of |from| is a regular file with the mode and bytes of
// entry |name| of |like|, all readable; its bytes are added to |files| and |bytes|.
bool same_file(int from, int like, const std::string& name, unsigned long long* files,
               unsigned long long* bytes) {
  struct stat st;
  if (fstatat(from, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(st.st_mode)) return false;
  Fd in(openat(from, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  *files += 1;
  *bytes += st.st_size;
  return in.fd >= 0 && same_as(in.fd, st, like, name);
}

// Directory |name| of |dir| opened and listed when it is a directory of mode
// |mode| that its owner may list and enter; else -1.
int open_listed(int dir, const std::string& name, mode_t mode, std::vector<std::string>* names) {
  struct stat st;
  if (fstatat(dir, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 || st.st_mode != mode || !S_ISDIR(mode) ||
      (mode & 0500) != 0500) {
    return -1;
  }
  const int fd = openat(dir, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd >= 0 && !names_in(fd, names)) {
    close(fd);
    return -1;
  }
  return fd;
}

void write_failed(const std::string& what, const std::string& where) {
  fail("cannot " + what + " " + where + ": " + strerror(errno) +
       (errno == ENOSPC || errno == EDQUOT ? " (set TMPDIR to a directory with room)" : ""));
}

// Copies entry |name| of directory |from| (its path |shown| in notes, or none
// when |notes| is null) into directory |to| as |to_name|, as host path
// |to_path| for errors.
void copy_entry(int from, int to, int like, const std::string& name, const std::string& to_name,
                const std::string& label, const std::string& shown, const std::string& to_path,
                CopyNotes* notes) {
  struct stat st;
  const std::string where = to_path + "/" + to_name;
  if (fstatat(from, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
    if (notes != nullptr) notes->unreadable.push_back({label, shown, strerror(errno)});
    return;
  }
  const mode_t mode = st.st_mode & 07777;
  if (S_ISLNK(st.st_mode)) {
    std::string target(st.st_size > 0 ? st.st_size + 1 : 4096, '\0');
    const ssize_t n = readlinkat(from, name.c_str(), target.data(), target.size());
    if (n < 0) {
      if (notes != nullptr) notes->unreadable.push_back({label, shown, strerror(errno)});
      return;
    }
    target.resize(n);
    if (symlinkat(target.c_str(), to, to_name.c_str()) != 0) write_failed("make the link", where);
  } else if (S_ISDIR(st.st_mode)) {
    if (mkdirat(to, to_name.c_str(), 0700) != 0) write_failed("make the directory", where);
    Fd in(openat(from, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    Fd out(openat(to, to_name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (out.fd < 0) write_failed("open the directory", where);
    Fd theirs(like < 0 ? -1 : openat(like, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (in.fd < 0) {
      if (notes != nullptr) notes->unreadable.push_back({label, shown, strerror(errno)});
    } else {
      std::unique_ptr<DIR, int (*)(DIR*)> listing(fdopendir(dup(in.fd)), closedir);
      std::vector<std::string> names;
      errno = 0;
      while (const dirent* entry = listing ? readdir(listing.get()) : nullptr) {
        if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) names.push_back(entry->d_name);
      }
      if ((!listing || errno != 0) && notes != nullptr) notes->unreadable.push_back({label, shown, strerror(errno)});
      for (const std::string& child : names) {
        copy_entry(in.fd, out.fd, theirs.fd, child, child, label, joined(shown, child), where, notes);
      }
    }
    if (fchmod(out.fd, mode) != 0) write_failed("set the mode of", where);
  } else if (S_ISREG(st.st_mode)) {
    if (notes != nullptr) {
      input_bytes += st.st_size;
      ++input_files;
    }
    Fd in(openat(from, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (in.fd >= 0 && same_as(in.fd, st, like, name)) {
      if (linkat(like, name.c_str(), to, to_name.c_str(), 0) == 0) return;
    }
    std::string* first = nullptr;
    if (in.fd >= 0 && copied != nullptr) {
      first = &(*copied)[std::to_string(st.st_mode) + ' ' + std::to_string(st.st_size) + ' ' + digest_of(in.fd)];
      if (!first->empty() && linkat(AT_FDCWD, first->c_str(), to, to_name.c_str(), 0) == 0) return;
      *first = where;
    }
    Fd out(openat(to, to_name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (out.fd < 0) write_failed("make the file", where);
    if (in.fd < 0) {
      // Left empty, with the mode that made it unreadable.
      if (notes != nullptr) notes->unreadable.push_back({label, shown, strerror(errno)});
    } else if (!copy_bytes(in.fd, out.fd, st.st_size)) {
      write_failed("write", where);
    }
    if (fchmod(out.fd, mode) != 0) write_failed("set the mode of", where);
  } else if (S_ISFIFO(st.st_mode) || S_ISSOCK(st.st_mode)) {
    if (notes != nullptr) notes->special.push_back({label, shown, special_kind(st)});
    if (mknodat(to, to_name.c_str(), (st.st_mode & S_IFMT) | 0600, 0) != 0 ||
        fchmodat(to, to_name.c_str(), mode, 0) != 0) {
      write_failed("make the " + special_kind(st), where);
    }
  } else if (notes != nullptr) {
    // A device's bytes are the host's, never the input's: not made.
    notes->special.push_back({label, shown, special_kind(st)});
  }
}

// Where directory |from| (holding |names|) parts from directory |like|
// (holding |their_names|), whose path is |prefix|: each entry that is not
// what |like|'s is, all the way down, is added to |differing| (relative to
// the top) and copied into |slots| under its number there; an entry only
// |like| has is added alone. Directories of the same mode in both are
// looked into, not copied.
void copy_differences(int from, int like, const std::vector<std::string>& names,
                      const std::vector<std::string>& their_names, int slots, const std::string& prefix,
                      const std::string& label, const std::string& slots_path, CopyNotes* notes,
                      std::vector<std::string>* differing) {
  std::vector<std::string> only_theirs;
  std::set_difference(their_names.begin(), their_names.end(), names.begin(), names.end(),
                      std::back_inserter(only_theirs));
  for (const std::string& name : only_theirs) differing->push_back(joined(prefix, name));
  for (const std::string& name : names) {
    const std::string path = joined(prefix, name);
    struct stat st;
    std::vector<std::string> inner, their_inner;
    if (fstatat(from, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode)) {
      Fd in(open_listed(from, name, st.st_mode, &inner));
      Fd theirs(in.fd < 0 ? -1 : open_listed(like, name, st.st_mode, &their_inner));
      if (theirs.fd >= 0) {
        copy_differences(in.fd, theirs.fd, inner, their_inner, slots, path, label, slots_path, notes, differing);
        continue;
      }
    }
    unsigned long long files = 0, bytes = 0;
    if (same_file(from, like, name, &files, &bytes)) {
      input_files += files;
      input_bytes += bytes;
      continue;
    }
    const std::string slot = std::to_string(differing->size());
    differing->push_back(path);
    copy_entry(from, slots, like, name, slot, label, path, slots_path, notes);
  }
}

}  // namespace

void copy_input(const std::string& from, const std::string& to, const std::string& label,
                CopyNotes* notes, const std::string& like, std::vector<std::string>* differing) {
  // The top is copied under a name of its own, then given its place.
  const std::string parent = to.substr(0, to.rfind('/'));
  Fd in(open(from.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (in.fd < 0) fail("cannot read " + from + ": " + strerror(errno));
  Fd out(open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (out.fd < 0) write_failed("open", parent);
  const std::string name = to.substr(to.rfind('/') + 1);
  struct stat st;
  if (fstat(in.fd, &st) != 0) fail("cannot read " + from + ": " + strerror(errno));
  if (mkdirat(out.fd, name.c_str(), 0700) != 0) write_failed("make the directory", to);
  Fd top(openat(out.fd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (top.fd < 0) write_failed("open the directory", to);
  std::vector<std::string> names;
  if (!names_in(in.fd, &names)) fail("cannot read " + from + ": " + strerror(errno));
  Fd theirs(like.empty() ? -1 : open(like.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  std::vector<std::string> their_names;
  if (differing != nullptr) {
    if (theirs.fd < 0 || !names_in(theirs.fd, &their_names)) write_failed("read", like);
    thread_local std::map<std::string, std::string> files;
    copied = &files;
    copy_differences(in.fd, theirs.fd, names, their_names, top.fd, "", label, to, notes, differing);
    copied = nullptr;
  } else {
    for (const std::string& child : names) {
      copy_entry(in.fd, top.fd, theirs.fd, child, child, label, child, to, notes);
    }
  }
  if (fchmod(top.fd, (st.st_mode & 07777) | 0700) != 0) write_failed("set the mode of", to);
}

std::pair<unsigned long long, unsigned long long> input_size() { return {input_bytes, input_files}; }

void copy_within(const std::string& from, const std::string& to) { copy_input(from, to, "", nullptr); }

std::string read_open(int fd, size_t limit) {
  struct stat st;
  if (fd < 0 || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return "";
  // Up to the end, not to st_size: /proc's files tell no size.
  std::string bytes;
  char buf[65536];
  for (ssize_t n; bytes.size() < limit &&
                  (n = pread(fd, buf, std::min(sizeof(buf), limit - bytes.size()), bytes.size())) > 0;) {
    bytes.append(buf, n);
  }
  return bytes;
}

std::string read_regular(const std::string& path, size_t limit) {
  Fd fd(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  return read_open(fd.fd, limit);
}

std::string release_digest(int fd, const std::vector<std::string>& releases) {
  // Only the releases' files are known, and they live as long as the run:
  // no other file has their numbers.
  static std::map<std::pair<dev_t, ino_t>, std::string> known;
  struct stat st;
  if (fstat(fd, &st) != 0) return digest_of(fd);
  const auto it = known.find(std::make_pair(st.st_dev, st.st_ino));
  if (it != known.end()) return it->second;
  // A link in a release may lead out of it, to a file a start writes.
  char path[PATH_MAX];
  const ssize_t n = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path, sizeof(path) - 1);
  const std::string at(path, n > 0 ? n : 0);
  const bool in_release = std::any_of(releases.begin(), releases.end(),
                                      [&](const std::string& dir) { return at.rfind(dir, 0) == 0; });
  if (!in_release) return digest_of(fd);
  return known[std::make_pair(st.st_dev, st.st_ino)] = digest_of(fd);
}

namespace {

using DigestContext = std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)>;

DigestContext digest_start() {
  DigestContext ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free);
  EVP_DigestInit_ex(ctx.get(), EVP_sha256(), nullptr);
  return ctx;
}

std::string digest_end(EVP_MD_CTX* ctx) {
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_DigestFinal_ex(ctx, md, &length);
  static const char kHex[] = "0123456789abcdef";
  std::string hex;
  for (unsigned int i = 0; i < length; ++i) {
    hex += kHex[md[i] >> 4];
    hex += kHex[md[i] & 15];
  }
  return hex;
}

}  // namespace

std::string digest_of(int fd) {
  const DigestContext ctx = digest_start();
  char* const buf = chunks();
  for (off_t pos = 0;;) {
    const ssize_t n = pread(fd, buf, kChunk, pos);
    if (n <= 0) break;
    EVP_DigestUpdate(ctx.get(), buf, n);
    pos += n;
  }
  return digest_end(ctx.get());
}

std::string digest_of_bytes(const std::string& bytes) {
  const DigestContext ctx = digest_start();
  EVP_DigestUpdate(ctx.get(), bytes.data(), bytes.size());
  return digest_end(ctx.get());
}
