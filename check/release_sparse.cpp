// Android's sparse image, made raw by the platform's libsparse: a raw file
// with holes where the image has none of its blocks (or blocks of zeros).
#include <errno.h>
#include <fcntl.h>
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
  std::string output;
  // libsparse maps the image's data into memory: a chunk that runs past the
  // end of a cut image would end the process that touches it.
  auto work = [&](int error_fd) {
    std::unique_ptr<sparse_file, decltype(&sparse_file_destroy)> sparse(
        sparse_file_import(fd, false, false), sparse_file_destroy);
    std::string what;
    if (!sparse) {
      what = "its chunks do not make a sparse image: it is truncated or corrupt";
    } else if (sparse_file_len(sparse.get(), true, false) > st.st_size) {
      // The image written back in the same format is no longer than the
      // image itself, unless its data runs past its end.
      what = "its chunks hold more data than the file: it is truncated";
    } else {
      RawOut raw_out{out.get(), 0, 0, static_cast<uint64_t>(st.st_size) + kMaxTreeBytes};
      const int status = sparse_file_callback(sparse.get(), false, false, write_raw, &raw_out);
      if (status == -EFBIG) {
        what = "its raw image would be larger than " + std::to_string(kMaxImageBytes >> 30) + " GiB";
      } else if (status == -ENOSPC) {
        what = "its fill chunks expand beyond its own size and " +
               std::to_string(kMaxTreeBytes >> 20) + " MiB more";
      } else if (status != 0 || ftruncate(out.get(), raw_out.offset) != 0) {
        what = "it cannot be made raw: it is truncated or corrupt, or the scratch space is full";
      }
    }
    if (what.empty()) return 0;
    (void)!write(error_fd, what.data(), what.size());
    return 1;
  };
  std::string why;
  if (!run_child(work, raw, &output, &why)) {
    *error = !output.empty() ? output : "its reader " + why + ": it is truncated or corrupt";
    return false;
  }
  return true;
}
