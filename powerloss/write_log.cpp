#include "powerloss/write_log.h"

#include <endian.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include <android-base/unique_fd.h>

namespace {

const uint64_t kMagic = 0x6a736677736872;
const uint64_t kVersion = 1;
// Sizes of the packed little-endian structures: the super block (magic,
// version, entry count, sector size) and an entry (sector, count, flags, data
// length).
const size_t kSuperSize = 28;
const size_t kEntrySize = 32;

uint64_t le64_at(const unsigned char* p) {
  uint64_t v;
  memcpy(&v, p, sizeof(v));
  return le64toh(v);
}

uint32_t le32_at(const unsigned char* p) {
  uint32_t v;
  memcpy(&v, p, sizeof(v));
  return le32toh(v);
}

bool read_at(int fd, uint64_t offset, unsigned char* buf, size_t size) {
  return pread(fd, buf, size, static_cast<off_t>(offset)) == static_cast<ssize_t>(size);
}

}  // namespace

bool read_write_log(const std::string& path, WriteLog* log, std::string* error) {
  android::base::unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd < 0) {
    *error = path + ": " + strerror(errno);
    return false;
  }
  log->entries.clear();
  if (lseek(fd, 0, SEEK_END) == 0) {
    log->sector_size = 512;
    return true;
  }
  unsigned char super[kSuperSize];
  if (!read_at(fd, 0, super, sizeof(super)) || le64_at(super) != kMagic) {
    *error = path + ": not a write log (no super block with its magic number)";
    return false;
  }
  if (le64_at(super + 8) != kVersion) {
    *error = path + ": write log version " + std::to_string(le64_at(super + 8)) + ", not 1";
    return false;
  }
  const uint64_t count = le64_at(super + 16);
  log->sector_size = le32_at(super + 24);
  if (log->sector_size < kEntrySize || (log->sector_size & (log->sector_size - 1)) != 0) {
    *error = path + ": sector size " + std::to_string(log->sector_size) + " is no power of two";
    return false;
  }
  // Each entry fills a sector of its own; a write's data follows it, a
  // discard has none.
  uint64_t offset = log->sector_size;
  for (uint64_t i = 0; i < count; ++i) {
    unsigned char raw[kEntrySize];
    if (!read_at(fd, offset, raw, sizeof(raw))) {
      *error = path + ": cut short at entry " + std::to_string(i) + " of " + std::to_string(count);
      return false;
    }
    LogEntry entry;
    entry.sector = le64_at(raw);
    entry.sectors = le64_at(raw + 8);
    entry.flags = le64_at(raw + 16);
    offset += log->sector_size;
    entry.data_offset = offset;
    if ((entry.flags & (kLogDiscard | kLogMark)) == 0) offset += entry.sectors * log->sector_size;
    log->entries.push_back(entry);
  }
  const off_t end = lseek(fd, 0, SEEK_END);
  if (end < 0 || static_cast<uint64_t>(end) < offset) {
    *error = path + ": cut short in the data of its last entries";
    return false;
  }
  return true;
}

bool writes_holding(const std::string& path, const WriteLog& log, const std::string& bytes,
                    std::vector<size_t>* found, std::string* error) {
  found->clear();
  if (bytes.empty()) return true;
  android::base::unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd < 0) {
    *error = path + ": " + strerror(errno);
    return false;
  }
  std::vector<unsigned char> data;
  for (size_t i = 0; i < log.entries.size(); ++i) {
    const LogEntry& entry = log.entries[i];
    if (!changes_disk(entry) || (entry.flags & kLogDiscard)) continue;
    data.resize(entry.sectors * log.sector_size);
    if (!read_at(fd, entry.data_offset, data.data(), data.size())) {
      *error = path + ": cannot read the data of entry " + std::to_string(i);
      return false;
    }
    if (std::search(data.begin(), data.end(), bytes.begin(), bytes.end()) != data.end()) found->push_back(i);
  }
  return true;
}
