#include "powerloss/state_image.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include <android-base/unique_fd.h>

using android::base::unique_fd;

namespace {

const size_t kChunk = 1 << 20;
// Zero blocks of this size are left as holes, which keeps images of a mostly
// empty file system small and quick to write.
const size_t kBlock = 4096;

bool fail(std::string* error, const std::string& what) {
  *error = what + ": " + strerror(errno);
  return false;
}

bool write_all(int fd, const char* data, size_t size, off_t offset) {
  while (size > 0) {
    const ssize_t n = pwrite(fd, data, size, offset);
    if (n <= 0) return false;
    data += n, size -= n, offset += n;
  }
  return true;
}

// Copies |size| bytes of |in| to |out|, skipping zero blocks (|out| starts out
// empty and as long as |in|) and, where |in| says so, its holes.
bool copy_sparse(int in, int out, off_t size, std::string* error) {
  std::vector<char> buf(kChunk);
  off_t pos = 0;
  while (pos < size) {
    off_t data = lseek(in, pos, SEEK_DATA);
    if (data < 0 && errno == ENXIO) break;
    if (data < 0) data = pos;  // no hole information: read everything
    off_t hole = lseek(in, data, SEEK_HOLE);
    if (hole < 0) hole = size;
    for (pos = data; pos < hole;) {
      const ssize_t n = pread(in, buf.data(), std::min<off_t>(kChunk, hole - pos), pos);
      if (n < 0) return fail(error, "reading the base image");
      if (n == 0) break;
      for (ssize_t b = 0; b < n; b += kBlock) {
        const size_t len = std::min<size_t>(kBlock, n - b);
        const bool zero = std::all_of(buf.data() + b, buf.data() + b + len, [](char c) { return c == 0; });
        if (!zero && !write_all(out, buf.data() + b, len, pos + b)) {
          return fail(error, "writing the state image");
        }
      }
      pos += n;
    }
    pos = std::max(pos, hole);
  }
  return true;
}

}  // namespace

bool write_state_image(const std::string& log_path, const WriteLog& log,
                       const std::vector<Piece>& pieces, const std::string& base,
                       const std::string& out, std::string* error) {
  unique_fd in(open(base.c_str(), O_RDONLY | O_CLOEXEC));
  if (in < 0) return fail(error, base);
  const off_t size = lseek(in, 0, SEEK_END);
  unique_fd log_fd(open(log_path.c_str(), O_RDONLY | O_CLOEXEC));
  if (log_fd < 0) return fail(error, log_path);
  unique_fd image(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (image < 0) return fail(error, out);
  if (size < 0 || ftruncate(image, size) != 0) return fail(error, out);
  if (!copy_sparse(in, image, size, error)) return false;

  std::vector<char> buf;
  for (const Piece& piece : pieces) {
    const std::string name = "entry " + std::to_string(piece.entry);
    if (piece.entry >= log.entries.size()) {
      *error = name + " is not in the log";
      return false;
    }
    const LogEntry& entry = log.entries[piece.entry];
    const uint64_t offset = entry.sector * log.sector_size;
    const uint64_t length = entry.sectors * log.sector_size;
    if (offset + length > static_cast<uint64_t>(size)) {
      *error = name + " writes past the end of the image";
      return false;
    }
    if (entry.flags & kLogDiscard) {
      buf.assign(length, 0);
    } else {
      buf.resize(length);
      if (pread(log_fd, buf.data(), length, entry.data_offset) != static_cast<ssize_t>(length)) {
        return fail(error, "reading " + name + " of the log");
      }
    }
    if (piece.blocks.empty()) {
      if (!write_all(image, buf.data(), length, offset)) return fail(error, out);
      continue;
    }
    for (uint64_t block : piece.blocks) {
      const uint64_t at = block * kBlockSize;
      if (at >= length) {
        *error = name + " has no block " + std::to_string(block);
        return false;
      }
      if (!write_all(image, buf.data() + at, std::min(kBlockSize, length - at), offset + at)) {
        return fail(error, out);
      }
    }
  }
  return true;
}
