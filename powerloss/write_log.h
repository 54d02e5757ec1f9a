// The write log of a disk, as QEMU's blklogwrites driver keeps it (the
// dm-log-writes format): a super block, then one entry per request the disk
// completed, in the order they completed.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

// Entry flags.
inline constexpr uint64_t kLogFlush = 1;
inline constexpr uint64_t kLogDiscard = 4;
inline constexpr uint64_t kLogMark = 8;

struct LogEntry {
  uint64_t sector = 0;   // first sector of the disk it wrote, in log sectors
  uint64_t sectors = 0;  // how many
  uint64_t flags = 0;
  uint64_t data_offset = 0;  // where its data starts in the log file, in bytes
};

struct WriteLog {
  uint32_t sector_size = 0;
  std::vector<LogEntry> entries;
};

// True for the entries that change the disk's content: writes and discards.
inline bool changes_disk(const LogEntry& entry) {
  return (entry.flags & kLogMark) == 0 && entry.sectors > 0;
}

// Reads the log in |path| (a file or a block device) into |log|. Returns false
// and says why in |error| when it is no such log or is cut short. An empty
// file is a log of no entries: the disk logs nothing until its first write.
bool read_write_log(const std::string& path, WriteLog* log, std::string* error);

// The writes of |log| (read from |path|) whose data holds |bytes|, in log
// order. Returns false and says why in |error| when the log cannot be read.
bool writes_holding(const std::string& path, const WriteLog& log, const std::string& bytes,
                    std::vector<size_t>* found, std::string* error);
