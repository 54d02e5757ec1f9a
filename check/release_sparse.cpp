// Android's sparse image, made raw by the platform's libsparse: a raw file
// with holes where the image has none of its blocks (or blocks of zeros),
// bounded in size and in the data its fill chunks may make.
#include <errno.h>
#include <fcntl.h>
#include <setjmp.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include <android-base/unique_fd.h>
#include <sparse/sparse.h>

#include "check/release_tree.h"

using android::base::unique_fd;

namespace {

struct RawOut {
  int fd;
  uint64_t offset = 0;
  uint64_t written = 0;  // bytes other than zeros
  uint64_t max_written;
};

// libsparse's writer: |data| null is a stretch the image leaves out.
int write_raw(void* priv, const void* data, size_t size) {
  auto* out = static_cast<RawOut*>(priv);
  if (size > kMaxImageBytes - std::min(out->offset, kMaxImageBytes)) return -EFBIG;
  const auto* bytes = static_cast<const char*>(data);
  if (bytes != nullptr && !std::all_of(bytes, bytes + size, [](char c) { return c == 0; })) {
    // Data comes from the image itself, or from fill chunks, which must not
    // turn a few bytes into gigabytes.
    if (size > out->max_written - std::min(out->written, out->max_written)) return -ENOSPC;
    out->written += size;
    for (size_t done = 0; done < size;) {
      const ssize_t n = pwrite(out->fd, bytes + done, size - done, out->offset + done);
      if (n <= 0) return -EIO;
      done += n;
    }
  }
  out->offset += size;
  return 0;
}

sigjmp_buf bus_jump;

void on_bus(int) { siglongjmp(bus_jump, 1); }

// While it lives, a bus error ends the conversion instead of the process.
struct BusGuard {
  struct sigaction old;
  BusGuard() {
    struct sigaction action = {};
    action.sa_handler = on_bus;
    sigaction(SIGBUS, &action, &old);
  }
  ~BusGuard() { sigaction(SIGBUS, &old, nullptr); }
};

}  // namespace

bool unsparse(int fd, const std::string& raw, std::string* error) {
  struct stat st;
  if (fstat(fd, &st) != 0) {
    *error = "cannot read it: " + std::string(strerror(errno));
    return false;
  }
  unique_fd out(open(raw.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (out < 0) {
    *error = "cannot make " + raw + ": " + strerror(errno);
    return false;
  }
  std::unique_ptr<sparse_file, decltype(&sparse_file_destroy)> sparse(
      sparse_file_import(fd, false, false), sparse_file_destroy);
  if (!sparse) {
    *error = "its chunks do not make a sparse image: it is truncated or corrupt";
    return false;
  }
  // The image written back in the same format is no longer than the image
  // itself, unless its data runs past its end.
  if (sparse_file_len(sparse.get(), true, false) > st.st_size) {
    *error = "its chunks hold more data than the file: it is truncated";
    return false;
  }
  RawOut raw_out{out.get(), 0, 0, static_cast<uint64_t>(st.st_size) + kMaxTreeBytes};
  volatile int status = -EFAULT;
  {
    // libsparse maps the image's data into memory: a chunk of a cut image
    // that the check above lets through would end the checker where it is read.
    BusGuard guard;
    if (sigsetjmp(bus_jump, 1) == 0) {
      status = sparse_file_callback(sparse.get(), false, false, write_raw, &raw_out);
    }
  }
  if (status == 0 && ftruncate(out.get(), raw_out.offset) == 0) return true;
  *error = status == -EFBIG ? "its raw image would be larger than " +
                                  std::to_string(kMaxImageBytes >> 30) + " GiB"
           : status == -ENOSPC
               ? "its fill chunks expand beyond its own size and " +
                     std::to_string(kMaxTreeBytes >> 20) + " MiB more"
               : "it cannot be made raw: it is truncated or corrupt, or the scratch space is full";
  return false;
}
