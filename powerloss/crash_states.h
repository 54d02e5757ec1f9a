// The states a disk can be left in when power fails during a logged run. A
// disk may hold back any write it has not been told to flush: once a flush
// completes, every write logged before it is on the disk; of the writes since
// the last flush (one epoch), any subset may be, and a write of several
// blocks may be there in part, since a disk writes only one block at a time
// whole.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "powerloss/write_log.h"

// The unit a disk writes whole: the block size both file systems are made
// with, and a flash page.
inline constexpr uint64_t kBlockSize = 4096;

// What of one logged write is on the disk.
struct Piece {
  size_t entry = 0;
  std::vector<uint64_t> blocks;  // its blocks there, ascending; empty: all of it
  bool operator<(const Piece& o) const { return entry < o.entry || (entry == o.entry && blocks < o.blocks); }
  bool operator==(const Piece& o) const { return entry == o.entry && blocks == o.blocks; }
};

// Why a state is checked, in the order they are made.
enum class StateKind {
  kPrefix,     // a prefix of the log
  kStamp,      // a subset of whole writes of the stamp's epoch or the one before
  kSubset,     // a subset of whole writes: all of them are checked
  kOneLost,    // an epoch with one write lost
  kTwoLost,    // an epoch with two writes lost
  kDrawn,      // drawn at random, few writes or blocks lost more often than many
};
inline constexpr size_t kStateKinds = 6;
// "prefix", "stamp", "subset", "one-lost", "two-lost", "drawn".
const char* kind_name(StateKind kind);

struct CrashState {
  StateKind kind = StateKind::kPrefix;
  size_t epoch = 0;           // the epoch power failed in, from 0
  std::vector<Piece> pieces;  // in log order
};

// The flush epoch of each entry: 0 up to and including the first flush, which
// ends it. (QEMU logs a flush without data.)
std::vector<size_t> entry_epochs(const WriteLog& log);

// One state per prefix of the log's writes: none, the first, the first two,
// and so on up to all of them.
std::vector<CrashState> prefix_states(const WriteLog& log);

// How many subsets of whole writes of one epoch no prefix gives, over all
// epochs: the states of a disk that never tears a write (saturated far above
// any count asked for).
uint64_t whole_write_subsets(const WriteLog& log);
// The same for the epoch |epoch| alone.
uint64_t epoch_whole_subsets(const WriteLog& log, size_t epoch);

// Up to |count| distinct states, each holding every write of the epochs
// before its own and, of its own epoch's writes, a subset that no prefix
// gives. Where faults are likeliest first, each kind while it fits in what is
// left of |count|: every subset of whole writes of the epochs in |focus| (the
// stamp's and the one before it); every subset of whole writes of every
// epoch; or else every state that loses one write of an epoch, then the pairs
// of each epoch whose pairs fit. The rest are drawn with |seed|: a point
// where power fails in an epoch, and of the writes before it one lost, or two,
// or more, each half as likely as one fewer; by blocks in half the draws (in
// all of them when every subset of whole writes was taken). Fewer when the log
// allows fewer.
std::vector<CrashState> reordered_states(const WriteLog& log, size_t count, uint64_t seed,
                                         const std::vector<size_t>& focus = {});

// |pieces| as "0-12,14,15[0,2-3]": whole entries, then an entry's blocks in
// brackets ("-" when there is none); and back, false on bad text.
std::string format_pieces(const std::vector<Piece>& pieces);
bool parse_pieces(const std::string& text, std::vector<Piece>* pieces);
