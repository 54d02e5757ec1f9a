#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <memory>
#include <new>

#include "tarnwick/fileutil/fileutil.h"
#include "tarnwick/platform/platform.h"

namespace {

// Chunk size of the copy: memory stays fixed however long a line is, and
// large chunks keep the copy as fast as cp's. When the heap cannot give that
// much, a small chunk on the stack does the same work more slowly.
const size_t kChunkSize = 1024 * 1024;
const size_t kSmallChunkSize = 16 * 1024;
// What one call asks the kernel to copy: the most it copies at once.
const size_t kKernelChunkSize = 0x7ffff000;

// Copies from descriptor |in|, just opened, to |out| inside the kernel until
// the end of |in| or the first call that copies nothing or fails (another
// file system, a device file, an error part-way): the caller goes on from
// where it stopped. |last| becomes the last byte copied, EOF when it cannot
// be read back; it is left alone when nothing was copied.
void copy_in_kernel(int in, int out, int* last) {
  size_t copied = 0;
  // The system call itself: the platform's C library of API 33 has no
  // copy_file_range(), its kernels (4.14 and later) have the call.
  for (long n; (n = syscall(SYS_copy_file_range, in, nullptr, out, nullptr, kKernelChunkSize, 0)) > 0;) {
    copied += static_cast<size_t>(n);
  }
  unsigned char byte;
  // The source was opened here, so the bytes copied are its first ones.
  if (copied > 0) *last = pread(in, &byte, 1, static_cast<off_t>(copied - 1)) == 1 ? byte : EOF;
}

}  // namespace

bool copy_file(std::string src, std::string dst) {
  LOG(ERROR) << " ODM src path is " << src;
  LOG(ERROR) << "ODM dest path is " << dst;
  UniqueFile in = open_file(src, "r");
  // Opened (and so truncated) whether or not the source opened.
  UniqueFile out = open_file(dst, "w");
  bool result = false;
  if (!in) {
    LOG(ERROR) << "ODM error is source file open";
  } else {
    result = true;
    // The copy is the source's lines, each ended by a newline: the bytes as they
    // are, plus a newline when the last line has none. So the kernel copies the
    // bytes where it can, and the loop below reads what it left (nothing, once
    // it reached the end) and adds the newline. Without a destination the lines
    // are only counted, for the one error line each of them earns.
    int last = '\n';
    if (out) copy_in_kernel(fileno(in.get()), fileno(out.get()), &last);
    // A last byte that could not be read back counts as a line cut short by a read error.
    bool line_open = last != '\n';  // bytes copied since the last newline
    char small_chunk[kSmallChunkSize];
    std::unique_ptr<char[]> buffer(new (std::nothrow) char[kChunkSize]);
    char* const chunk = buffer ? buffer.get() : small_chunk;
    const size_t chunk_size = buffer ? kChunkSize : kSmallChunkSize;
    size_t lines_without_dest = 0;
    size_t n;
    while ((n = fread(chunk, 1, chunk_size, in.get())) > 0) {
      if (out) {
        fwrite(chunk, 1, n, out.get());
      } else {
        for (const char* p = chunk; (p = static_cast<const char*>(memchr(p, '\n', chunk + n - p)));
             ++p) {
          ++lines_without_dest;
        }
      }
      line_open = chunk[n - 1] != '\n';
      // A short count means the end of the file or a read error; either ends the copy.
      if (n < chunk_size) break;
    }
    if (line_open) {
      if (out) {
        fputc('\n', out.get());
      } else {
        ++lines_without_dest;
      }
    }
    for (size_t i = 0; i < lines_without_dest; ++i) {
      LOG(ERROR) << "ODM error in dest file open";
      result = false;
    }
  }
  in.reset();
  out.reset();
  klog_write(3, "<3>ODM File copied successfully..!!: ");
  device_chmod(dst.c_str(), 0644);
  return result;
}
