#include "powerloss/crash_states.h"

#include <stdlib.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>

std::vector<size_t> entry_epochs(const WriteLog& log) {
  std::vector<size_t> epochs;
  size_t epoch = 0;
  for (const LogEntry& entry : log.entries) {
    epochs.push_back(epoch);
    if (entry.flags & kLogFlush) ++epoch;
  }
  return epochs;
}

namespace {

// The disk-changing entries of each epoch, in log order.
std::vector<std::vector<size_t>> epoch_writes(const WriteLog& log) {
  const std::vector<size_t> epochs = entry_epochs(log);
  std::vector<std::vector<size_t>> writes(epochs.empty() ? 1 : epochs.back() + 1);
  for (size_t i = 0; i < log.entries.size(); ++i) {
    if (changes_disk(log.entries[i])) writes[epochs[i]].push_back(i);
  }
  return writes;
}

uint64_t blocks_of(const WriteLog& log, size_t entry) {
  const uint64_t bytes = log.entries[entry].sectors * log.sector_size;
  return (bytes + kBlockSize - 1) / kBlockSize;
}

// How many subsets of the blocks of |writes| are not a prefix of whole
// writes, saturated far above any count asked for.
uint64_t non_prefix_subsets(const WriteLog& log, const std::vector<size_t>& writes) {
  uint64_t blocks = 0;
  for (size_t w : writes) blocks += blocks_of(log, w);
  if (blocks >= 62) return UINT64_MAX / 2;
  return (uint64_t{1} << blocks) - writes.size() - 1;
}

// A draw in [0, |bound|) from |rng| that does not depend on the library's
// distributions, so that a seed gives the same states everywhere.
uint64_t draw(std::mt19937_64& rng, uint64_t bound) {
  const uint64_t limit = UINT64_MAX - UINT64_MAX % bound;
  uint64_t v;
  do v = rng(); while (v >= limit);
  return v % bound;
}

// What power can cut: a whole write, or when |block| is set one block of it.
struct Unit {
  size_t entry;
  uint64_t block;
};

// A draw of the epoch |writes|: power fails after some of its units were
// issued, and of those, one is lost, or two, or more, each count half as
// likely as one fewer.
std::vector<Piece> draw_lost(const WriteLog& log, const std::vector<size_t>& writes, bool by_block,
                             std::mt19937_64& rng) {
  std::vector<Unit> units;
  for (size_t w : writes) {
    const uint64_t n = by_block ? blocks_of(log, w) : 1;
    for (uint64_t b = 0; b < n; ++b) units.push_back(Unit{w, n == 1 ? UINT64_MAX : b});
  }
  const size_t issued = 1 + draw(rng, units.size());
  size_t lost = 1;
  while (lost < issued && draw(rng, 2)) ++lost;
  std::vector<size_t> order(issued);
  for (size_t i = 0; i < issued; ++i) order[i] = i;
  for (size_t i = 0; i < lost; ++i) std::swap(order[i], order[i + draw(rng, issued - i)]);
  std::vector<bool> gone(issued, false);
  for (size_t i = 0; i < lost; ++i) gone[order[i]] = true;

  std::vector<Piece> pieces;
  for (size_t i = 0; i < issued; ++i) {
    if (gone[i]) continue;
    if (pieces.empty() || pieces.back().entry != units[i].entry) pieces.push_back(Piece{units[i].entry, {}});
    if (units[i].block != UINT64_MAX) pieces.back().blocks.push_back(units[i].block);
  }
  for (Piece& piece : pieces) {
    if (!piece.blocks.empty() && piece.blocks.size() == blocks_of(log, piece.entry)) piece.blocks.clear();
  }
  return pieces;
}

// The subset of |writes| given by the bits of |mask|.
std::vector<Piece> subset_of(const std::vector<size_t>& writes, uint64_t mask) {
  std::vector<Piece> subset;
  for (size_t i = 0; i < writes.size(); ++i) {
    if (mask & (uint64_t{1} << i)) subset.push_back(Piece{writes[i], {}});
  }
  return subset;
}

// |writes| without the |i|-th and the |j|-th.
std::vector<Piece> all_but(const std::vector<size_t>& writes, size_t i, size_t j) {
  std::vector<Piece> subset;
  for (size_t k = 0; k < writes.size(); ++k) {
    if (k != i && k != j) subset.push_back(Piece{writes[k], {}});
  }
  return subset;
}

// How many subsets of |k| whole writes no prefix gives, saturated.
uint64_t whole_subsets(size_t k) {
  return k >= 32 ? UINT32_MAX : (uint64_t{1} << k) - std::min<uint64_t>(k + 1, uint64_t{1} << k);
}

bool is_prefix(const std::vector<Piece>& pieces, const std::vector<size_t>& writes) {
  for (size_t i = 0; i < pieces.size(); ++i) {
    if (pieces[i].entry != writes[i] || !pieces[i].blocks.empty()) return false;
  }
  return true;
}

}  // namespace

std::vector<CrashState> prefix_states(const WriteLog& log) {
  const std::vector<size_t> epochs = entry_epochs(log);
  std::vector<CrashState> states(1);
  for (size_t i = 0; i < log.entries.size(); ++i) {
    if (!changes_disk(log.entries[i])) continue;
    CrashState next = states.back();
    next.epoch = epochs[i];
    next.pieces.push_back(Piece{i, {}});
    states.push_back(next);
  }
  return states;
}

const char* kind_name(StateKind kind) {
  static const char* const kNames[kStateKinds] = {"prefix", "stamp", "subset", "one-lost", "two-lost", "drawn"};
  return kNames[static_cast<size_t>(kind)];
}

uint64_t whole_write_subsets(const WriteLog& log) {
  uint64_t total = 0;
  for (const std::vector<size_t>& writes : epoch_writes(log)) total += whole_subsets(writes.size());
  return total;
}

uint64_t epoch_whole_subsets(const WriteLog& log, size_t epoch) {
  const std::vector<std::vector<size_t>> epochs = epoch_writes(log);
  return epoch < epochs.size() ? whole_subsets(epochs[epoch].size()) : 0;
}

std::vector<CrashState> reordered_states(const WriteLog& log, size_t count, uint64_t seed,
                                         const std::vector<size_t>& focus) {
  const std::vector<std::vector<size_t>> epochs = epoch_writes(log);
  // Each epoch that has such subsets, with how many are left to draw.
  std::map<size_t, uint64_t> left;
  for (size_t e = 0; e < epochs.size(); ++e) {
    const uint64_t n = epochs[e].empty() ? 0 : non_prefix_subsets(log, epochs[e]);
    if (n > 0) left[e] = n;
  }
  std::set<std::vector<Piece>> seen;
  std::vector<CrashState> states;
  auto add = [&](StateKind kind, size_t epoch, const std::vector<Piece>& subset) {
    if (states.size() >= count || is_prefix(subset, epochs[epoch]) || !seen.insert(subset).second) return;
    CrashState state;
    state.kind = kind;
    state.epoch = epoch;
    for (size_t e = 0; e < epoch; ++e) {
      for (size_t w : epochs[e]) state.pieces.push_back(Piece{w, {}});
    }
    state.pieces.insert(state.pieces.end(), subset.begin(), subset.end());
    states.push_back(state);
    auto it = left.find(epoch);
    if (it != left.end() && --it->second == 0) left.erase(it);
  };
  auto fits = [&](uint64_t n) { return n <= count - states.size(); };
  auto every_subset = [&](StateKind kind, size_t e) {
    if (epochs[e].size() >= 32) return;
    for (uint64_t mask = 1; mask + 1 < (uint64_t{1} << epochs[e].size()); ++mask) add(kind, e, subset_of(epochs[e], mask));
  };

  for (size_t e : focus) {
    if (e < epochs.size() && fits(whole_subsets(epochs[e].size()))) every_subset(StateKind::kStamp, e);
  }
  // The states of a disk that never tears a write: all of them when there
  // is room, so that none is left to chance.
  const bool all_whole = fits(whole_write_subsets(log));
  for (size_t e = 0; all_whole && e < epochs.size(); ++e) every_subset(StateKind::kSubset, e);
  for (size_t e = 0; !all_whole && e < epochs.size(); ++e) {
    for (size_t i = 0; i < epochs[e].size(); ++i) add(StateKind::kOneLost, e, all_but(epochs[e], i, i));
  }
  for (size_t e = 0; !all_whole && e < epochs.size(); ++e) {
    const size_t n = epochs[e].size();
    if (!fits(n * (n - 1) / 2)) continue;
    for (size_t i = 0; i < n; ++i) {
      for (size_t j = i + 1; j < n; ++j) add(StateKind::kTwoLost, e, all_but(epochs[e], i, j));
    }
  }

  std::mt19937_64 rng(seed);
  // Draws that repeat a state are retried; this ends the search where few
  // states are left to find.
  for (size_t tries = 0; states.size() < count && !left.empty() && tries < 64 * count; ++tries) {
    // Epochs are drawn in proportion to their writes, so a long epoch is
    // tried more often without crowding out the short ones.
    uint64_t total = 0;
    for (const auto& [e, n] : left) total += epochs[e].size();
    uint64_t pick = draw(rng, total);
    auto it = left.begin();
    while (pick >= epochs[it->first].size()) pick -= epochs[it->first].size(), ++it;
    const bool by_block = all_whole || draw(rng, 2);
    add(StateKind::kDrawn, it->first, draw_lost(log, epochs[it->first], by_block, rng));
  }
  return states;
}

namespace {

// |numbers| (ascending) as "0-12,14".
std::string format_runs(const std::vector<uint64_t>& numbers) {
  std::string text;
  for (size_t i = 0; i < numbers.size();) {
    size_t j = i;
    while (j + 1 < numbers.size() && numbers[j + 1] == numbers[j] + 1) ++j;
    if (!text.empty()) text += ',';
    text += std::to_string(numbers[i]);
    if (j > i) text += '-' + std::to_string(numbers[j]);
    i = j + 1;
  }
  return text;
}

// Reads "N" or "N-M" at |*p| into |numbers|, which must stay ascending.
bool parse_run(const char** p, std::vector<uint64_t>* numbers) {
  char* end;
  const uint64_t first = strtoull(*p, &end, 10);
  if (end == *p) return false;
  uint64_t last = first;
  if (*end == '-') {
    const char* from = end + 1;
    last = strtoull(from, &end, 10);
    if (end == from || last < first) return false;
  }
  for (uint64_t n = first; n <= last; ++n) {
    if (!numbers->empty() && n <= numbers->back()) return false;
    numbers->push_back(n);
  }
  *p = end;
  return true;
}

}  // namespace

std::string format_pieces(const std::vector<Piece>& pieces) {
  std::string text;
  std::vector<uint64_t> whole;
  auto flush_whole = [&] {
    if (whole.empty()) return;
    text += (text.empty() ? "" : ",") + format_runs(whole);
    whole.clear();
  };
  for (const Piece& piece : pieces) {
    if (piece.blocks.empty()) {
      whole.push_back(piece.entry);
      continue;
    }
    flush_whole();
    text += (text.empty() ? "" : ",") + std::to_string(piece.entry) + "[" + format_runs(piece.blocks) + "]";
  }
  flush_whole();
  return text.empty() ? "-" : text;
}

bool parse_pieces(const std::string& text, std::vector<Piece>* pieces) {
  pieces->clear();
  if (text == "-") return true;
  const char* p = text.c_str();
  while (true) {
    std::vector<uint64_t> entries;
    if (!parse_run(&p, &entries)) return false;
    for (uint64_t e : entries) {
      if (!pieces->empty() && e <= pieces->back().entry) return false;
      pieces->push_back(Piece{e, {}});
    }
    if (*p == '[') {
      if (entries.size() != 1) return false;
      ++p;
      do {
        if (!parse_run(&p, &pieces->back().blocks)) return false;
      } while (*p == ',' && ++p);
      if (*p++ != ']') return false;
    }
    if (*p == '\0') return true;
    if (*p++ != ',') return false;
  }
}
