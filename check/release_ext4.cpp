// An ext4 image, read with e2fsprogs' libext2fs: only the inodes of the tree
// and of the way to it are read, never the whole image. Links are copied
// with their targets as they are, modes with each entry, FIFOs, sockets and
// devices as what they are; owners stay those of whoever runs the checker.
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <chrono>
#include <memory>
#include <set>

#include <android-base/strings.h>
#include <android-base/unique_fd.h>
#include <ext2fs/ext2fs.h>
extern "C" {
#include <et/com_err.h>
}

#include "check/check.h"
#include "check/release_tree.h"

using android::base::unique_fd;

namespace {

struct CloseFileSystem {
  void operator()(ext2_filsys fs) const { ext2fs_close_free(&fs); }
};
using FileSystem = std::unique_ptr<struct struct_ext2_filsys, CloseFileSystem>;

// How much of a file is read at a time.
const size_t kChunk = 64 * 1024;

struct Walk {
  ext2_filsys fs = nullptr;
  TreeOut* out = nullptr;
  std::set<ext2_ino_t> dirs;  // directories seen: a loop in a corrupt image ends here
  uint64_t mapped = 0;        // bytes of data blocks read, zeros included
  std::chrono::steady_clock::time_point deadline =
      std::chrono::steady_clock::now() + std::chrono::seconds(kReadSeconds);
};

std::string ext2_error(errcode_t code) {
  static const bool known = (initialize_ext2_error_table(), true);
  (void)known;
  return error_message(code);
}

bool read_inode(ext2_filsys fs, ext2_ino_t ino, ext2_inode* inode, std::string* why) {
  if (const errcode_t code = ext2fs_read_inode(fs, ino, inode); code != 0) {
    *why = "cannot be read: " + ext2_error(code);
    return false;
  }
  return true;
}

// The bytes |size| of file |ino| from |offset|, handed to |take| a chunk at a time.
bool read_data(ext2_filsys fs, ext2_ino_t ino, ext2_inode* inode, uint64_t offset, uint64_t size,
               const std::function<bool(const char*, size_t, uint64_t)>& take, std::string* why) {
  ext2_file_t file;
  if (const errcode_t code = ext2fs_file_open2(fs, ino, inode, 0, &file); code != 0) {
    *why = "cannot be read: " + ext2_error(code);
    return false;
  }
  std::unique_ptr<struct ext2_file, decltype(&ext2fs_file_close)> closing(file, ext2fs_file_close);
  std::string buf(kChunk, '\0');
  errcode_t code = ext2fs_file_llseek(file, offset, EXT2_SEEK_SET, nullptr);
  while (code == 0 && size > 0) {
    unsigned int got = 0;
    code = ext2fs_file_read(file, buf.data(), std::min<uint64_t>(size, buf.size()), &got);
    if (code != 0 || got == 0) break;
    if (!take(buf.data(), got, offset)) return false;
    offset += got;
    size -= got;
  }
  if (code != 0 || size > 0) {
    *why = "cannot be read: " + (code != 0 ? ext2_error(code) : std::string("it ends early"));
    return false;
  }
  return true;
}

// The target of link |ino|: in the inode itself (a fast link) or in its data.
bool read_link(ext2_filsys fs, ext2_ino_t ino, ext2_inode* inode, std::string* target,
               std::string* why) {
  const uint64_t size = EXT2_I_SIZE(inode);
  if (size == 0 || size >= PATH_MAX) {
    *why = "is a link of " + std::to_string(size) + " bytes, which no link can be";
    return false;
  }
  if (ext2fs_is_fast_symlink(inode)) {
    const char* in_inode = reinterpret_cast<const char*>(inode->i_block);
    target->assign(in_inode, strnlen(in_inode, std::min<size_t>(size, sizeof(inode->i_block))));
    return true;
  }
  target->clear();
  return read_data(
      fs, ino, inode, 0, size,
      [&](const char* data, size_t n, uint64_t) {
        target->append(data, n);
        return true;
      },
      why);
}

// The device number of a device inode, in either of the kernel's two encodings.
dev_t device_of(const ext2_inode& inode) {
  if (inode.i_block[0] != 0) {
    return makedev((inode.i_block[0] >> 8) & 0xff, inode.i_block[0] & 0xff);
  }
  const uint32_t code = inode.i_block[1];
  return makedev((code & 0xfff00) >> 8, (code & 0xff) | ((code >> 12) & 0xfff00));
}

// The data blocks of a file, as runs of logical blocks.
struct BlockRuns {
  std::vector<std::pair<uint64_t, uint64_t>> runs;  // first block, blocks
  uint64_t blocks = 0;
  bool too_many = false;
};

int collect_block(ext2_filsys fs, blk64_t*, e2_blkcnt_t logical, blk64_t, int, void* priv) {
  auto* blocks = static_cast<BlockRuns*>(priv);
  if (logical < 0) return 0;
  const uint64_t at = static_cast<uint64_t>(logical);
  if (!blocks->runs.empty() && blocks->runs.back().first + blocks->runs.back().second == at) {
    ++blocks->runs.back().second;
  } else {
    blocks->runs.emplace_back(at, 1);
  }
  // A corrupt map need not be walked to its end.
  blocks->too_many = ++blocks->blocks * fs->blocksize > kMaxTreeBytes;
  return blocks->too_many ? BLOCK_ABORT : 0;
}

// Copies file |ino| to |fd|: the blocks it has, holes left as holes.
bool copy_file(Walk* walk, ext2_ino_t ino, ext2_inode* inode, int fd, std::string* why) {
  const uint64_t size = EXT2_I_SIZE(inode);
  auto write = [&](const char* data, size_t n, uint64_t offset) {
    return out_write(walk->out, fd, data, n, offset, why);
  };
  if ((inode->i_flags & EXT4_INLINE_DATA_FL) != 0) {
    return size <= walk->fs->blocksize && read_data(walk->fs, ino, inode, 0, size, write, why);
  }
  BlockRuns blocks;
  const errcode_t code = ext2fs_block_iterate3(
      walk->fs, ino, BLOCK_FLAG_DATA_ONLY | BLOCK_FLAG_READ_ONLY, nullptr, collect_block, &blocks);
  if (code != 0 || blocks.too_many) {
    *why = blocks.too_many ? "has more than " + std::to_string(kMaxTreeBytes >> 20) + " MiB of data"
                           : "cannot be read: " + ext2_error(code);
    return false;
  }
  const uint64_t block = walk->fs->blocksize;
  for (const auto& [first, count] : blocks.runs) {
    if (first * block >= size) break;
    const uint64_t bytes = std::min(count * block, size - first * block);
    walk->mapped += bytes;
    if (walk->mapped > kMaxTreeBytes) {
      *why = "takes the tree beyond " + std::to_string(kMaxTreeBytes >> 20) + " MiB of data";
      return false;
    }
    if (!read_data(walk->fs, ino, inode, first * block, bytes, write, why)) return false;
  }
  return true;
}

bool copy_dir(Walk* walk, ext2_ino_t dir, const ext2_inode& inode, const std::string& name,
              std::string* failed, std::string* why);

// Copies entry |ino|, named |name| in the tree.
bool copy_entry(Walk* walk, ext2_ino_t ino, const std::string& name, std::string* failed,
                std::string* why) {
  *failed = name;
  if (std::chrono::steady_clock::now() > walk->deadline) {
    *why = "is where reading the tree took longer than " + std::to_string(kReadSeconds) + " s";
    return false;
  }
  ext2_inode inode;
  if (!read_inode(walk->fs, ino, &inode, why)) return false;
  const mode_t mode = inode.i_mode;
  switch (mode & S_IFMT) {
    case S_IFDIR:
      return out_directory(walk->out, name, mode, why) &&
             copy_dir(walk, ino, inode, name, failed, why);
    case S_IFREG: {
      unique_fd fd;
      return out_file(walk->out, name, &fd, why) && copy_file(walk, ino, &inode, fd.get(), why) &&
             out_end_file(fd.get(), EXT2_I_SIZE(&inode), mode, why);
    }
    case S_IFLNK: {
      std::string target;
      return read_link(walk->fs, ino, &inode, &target, why) &&
             out_link(walk->out, name, target, why);
    }
    case S_IFIFO:
    case S_IFSOCK:
    case S_IFCHR:
    case S_IFBLK:
      return out_special(walk->out, name, mode, device_of(inode), why);
    default:
      *why = "is of no type a file can have";
      return false;
  }
}

struct Listing {
  std::vector<std::pair<std::string, ext2_ino_t>> entries;
  std::string bad_name;
  bool bad = false;
};

int list_entry(ext2_ino_t, int entry, ext2_dir_entry* dirent, int, int, char*, void* priv) {
  auto* listing = static_cast<Listing*>(priv);
  if (entry == DIRENT_DOT_FILE || entry == DIRENT_DOT_DOT_FILE) return 0;
  const std::string name(dirent->name, ext2fs_dirent_name_len(dirent));
  if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos ||
      name.find('\0') != std::string::npos || listing->entries.size() >= kMaxTreeEntries) {
    listing->bad_name = name;
    listing->bad = true;
    return DIRENT_ABORT;
  }
  listing->entries.emplace_back(name, dirent->inode);
  return 0;
}

bool copy_dir(Walk* walk, ext2_ino_t dir, const ext2_inode& inode, const std::string& name,
              std::string* failed, std::string* why) {
  if (!walk->dirs.insert(dir).second) {
    *why = "is a directory met a second time: the image is corrupt";
    return false;
  }
  Listing listing;
  // The flag for a directory held in its inode makes any other one fail.
  const int flags =
      (inode.i_flags & EXT4_INLINE_DATA_FL) != 0 ? DIRENT_FLAG_INCLUDE_INLINE_DATA : 0;
  const errcode_t code = ext2fs_dir_iterate2(walk->fs, dir, flags, nullptr, list_entry, &listing);
  if (listing.bad) {
    *why = "holds an entry named " + shown(listing.bad_name) +
           ", a name no entry can have, or too many entries";
    return false;
  }
  if (code != 0) {
    *why = "cannot be read: " + ext2_error(code);
    return false;
  }
  for (const auto& [entry, ino] : listing.entries) {
    if (!copy_entry(walk, ino, name.empty() ? entry : name + "/" + entry, failed, why))
      return false;
  }
  return true;
}

// The reading itself: "" or the error.
std::string read_tree(int fd, const std::string& scratch, ReleaseInput* in) {
  char path[64];
  snprintf(path, sizeof(path), "/proc/self/fd/%d", fd);
  ext2_filsys raw = nullptr;
  const errcode_t opened = ext2fs_open2(path, nullptr, EXT2_FLAG_64BITS | EXT2_FLAG_SKIP_MMP, 0, 0,
                                        unix_io_manager, &raw);
  FileSystem fs(raw);
  if (opened != 0) return "cannot be read as ext4: " + ext2_error(opened);
  const InputLookup lookup = [&](const std::string& at) {
    InputNode node;
    ext2_ino_t ino = EXT2_ROOT_INO;
    for (const std::string& part : android::base::Split(at, "/")) {
      if (part.empty()) continue;
      const errcode_t code = ext2fs_lookup(raw, ino, part.c_str(), part.size(), nullptr, &ino);
      if (code == EXT2_ET_FILE_NOT_FOUND) return node;
      if (code != 0) {
        node.type = InputNode::kUnreadable;
        node.target = ext2_error(code);
        return node;
      }
    }
    ext2_inode inode;
    if (!read_inode(raw, ino, &inode, &node.target)) {
      node.type = InputNode::kUnreadable;
      return node;
    }
    std::string why;
    node.type = LINUX_S_ISDIR(inode.i_mode)   ? InputNode::kDirectory
                : LINUX_S_ISLNK(inode.i_mode) ? InputNode::kLink
                                              : InputNode::kOther;
    if (node.type == InputNode::kLink && !read_link(raw, ino, &inode, &node.target, &why)) {
      node.type = InputNode::kOther;
    }
    return node;
  };
  std::string tree, error;
  if (!find_image_tree(lookup, &tree, &error)) return error;
  ext2_ino_t ino = EXT2_ROOT_INO;
  for (const std::string& part : android::base::Split(tree, "/")) {
    ext2fs_lookup(raw, ino, part.c_str(), part.size(), nullptr, &ino);
  }
  TreeOut out;
  Walk walk;
  walk.fs = raw;
  walk.out = &out;
  ext2_inode inode;
  std::string failed, why;
  if (!out_start(&out, scratch + "/tree", &why) || !read_inode(raw, ino, &inode, &why) ||
      !out_directory(&out, "", inode.i_mode, &why)) {
    return why;
  }
  if (!copy_dir(&walk, ino, inode, "", &failed, &why)) {
    return "its entry " + shown(failed.empty() ? tree : tree + "/" + failed) + " " + why;
  }
  if (!out_finish(&out, &why)) return "its tree " + why;
  in->tree = out.root_path;
  in->inner = tree;
  in->unmade = std::move(out.unmade);
  return "";
}

}  // namespace

bool read_ext4(int fd, const std::string& scratch, ReleaseInput* in, std::string* error) {
  *error = read_tree(fd, scratch, in);
  return error->empty();
}
