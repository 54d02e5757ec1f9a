// The checker's own file work on the host: its scratch root, the copies it
// makes of what it was given, and its reads of them. Whatever it was given may
// come from a partner, so nothing here follows a link, waits on a FIFO or
// opens a device; what cannot be read is recorded, never skipped in silence.
#pragma once

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

// What a copy of an input met that a report must name: entries that could not
// be read, and entries that are neither files, directories nor links.
struct CopyNote {
  std::string input;  // the input, as given; empty for the tree checked
  std::string path;   // relative to the input
  std::string what;   // why it cannot be read, or what it is
};
struct CopyNotes {
  std::vector<CopyNote> unreadable, special;
};

// Makes the scratch root under $TMPDIR (default /var/tmp), removes the scratch
// roots that killed runs of this user left there, and arranges for this one
// to go at exit and on SIGINT, SIGTERM and SIGHUP. Returns its host path;
// ends the process (exit status 2, one line) when it cannot be made.
std::string make_scratch_root();

// Ends the checker: one line "tarnwick-check: |what|" on standard error, with
// control bytes escaped, and exit status 2 (the scratch root goes at exit).
[[noreturn]] void fail(const std::string& what);
// In a thread that copies beside others, after throw_on_fail(), fail throws
// the Failure instead; whoever started the thread ends the checker with it
// once the others are done, so that none writes to a scratch root that goes.
struct Failure {
  std::string what;
};
void throw_on_fail();

// Copies host directory |from| to |to| (which must not exist): directories,
// files (holes kept), links as they are, FIFOs and sockets as what they are;
// device files are not made. Nothing below |from| is followed. |label| names
// |from| in |notes| ("" for the tree checked). A write that fails ends the checker.
// A regular file whose mode and bytes are those of the file at the same path
// under |like| (a copy made before, which nothing writes to) becomes another
// link to that file: releases share most of their files. With |differing|,
// |to| holds only where |from| is not what |like| is: each such path (relative
// to the top; a directory of the same mode in both is looked into) is added
// to |differing|, and |from|'s entry there, if it has one, is copied to |to|
// under the path's number in |differing|; a regular file there with the mode
// and bytes of one copied so before becomes another link to it.
void copy_input(const std::string& from, const std::string& to, const std::string& label,
                CopyNotes* notes, const std::string& like = "",
                std::vector<std::string>* differing = nullptr);

// The bytes and the number of the regular files copied by copy_input so far.
// Copies of different inputs may run at once, each in a thread of its own.
std::pair<unsigned long long, unsigned long long> input_size();

// The same for copies inside the scratch root; what they meet is not noted.
void copy_within(const std::string& from, const std::string& to);

// Removes host path |path| and everything below it, whatever the modes.
void remove_tree(const std::string& path);

// The bytes of host file |path| when it is a regular file (a link at its end
// not followed), at most |limit| of them; empty when it is anything else.
std::string read_regular(const std::string& path, size_t limit = 1 << 20);

// The same of the file open at |fd|.
std::string read_open(int fd, size_t limit);

// A digest of the bytes of the regular file open at |fd| (SHA-256, hex).
std::string digest_of(int fd);
// The same digest of |bytes|.
std::string digest_of_bytes(const std::string& bytes);
// The same for a file of the releases in the scratch root (those under the
// host directories |releases|), which nothing writes after their copy:
// worked out once per file, however many names it has.
std::string release_digest(int fd, const std::vector<std::string>& releases);

// True when the scratch root's file system has room for what one start of
// the program can write: a copy of every regular file of the inputs at most.
// The program does not check its writes, so a start without that room could
// lose some in silence.
bool scratch_has_room();
