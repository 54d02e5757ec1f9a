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

// A random subset of |writes|: whole writes, or when |by_block| single blocks.
std::vector<Piece> random_subset(const WriteLog& log, const std::vector<size_t>& writes,
                                 bool by_block, std::mt19937_64& rng) {
  std::vector<Piece> pieces;
  for (size_t w : writes) {
    Piece piece;
    piece.entry = w;
    const uint64_t n = blocks_of(log, w);
    if (!by_block || n == 1) {
      if (draw(rng, 2)) pieces.push_back(piece);
      continue;
    }
    for (uint64_t b = 0; b < n; ++b) {
      if (draw(rng, 2)) piece.blocks.push_back(b);
    }
    if (piece.blocks.size() == n) piece.blocks.clear();  // all of it
    else if (piece.blocks.empty()) continue;
    pieces.push_back(piece);
  }
  return pieces;
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

uint64_t whole_write_subsets(const WriteLog& log) {
  uint64_t total = 0;
  for (const std::vector<size_t>& writes : epoch_writes(log)) {
    const size_t k = writes.size();
    total += k >= 32 ? UINT32_MAX : (uint64_t{1} << k) - std::min<uint64_t>(k + 1, uint64_t{1} << k);
  }
  return total;
}

std::vector<CrashState> reordered_states(const WriteLog& log, size_t count, uint64_t seed) {
  const std::vector<std::vector<size_t>> epochs = epoch_writes(log);
  // Each epoch that has such subsets, with how many are left to draw.
  std::map<size_t, uint64_t> left;
  for (size_t e = 0; e < epochs.size(); ++e) {
    const uint64_t n = epochs[e].empty() ? 0 : non_prefix_subsets(log, epochs[e]);
    if (n > 0) left[e] = n;
  }
  std::set<std::vector<Piece>> seen;
  std::vector<CrashState> states;
  auto add = [&](size_t epoch, const std::vector<Piece>& subset) {
    if (is_prefix(subset, epochs[epoch]) || !seen.insert(subset).second) return;
    CrashState state;
    state.reordered = true;
    state.epoch = epoch;
    for (size_t e = 0; e < epoch; ++e) {
      for (size_t w : epochs[e]) state.pieces.push_back(Piece{w, {}});
    }
    state.pieces.insert(state.pieces.end(), subset.begin(), subset.end());
    states.push_back(state);
    if (--left[epoch] == 0) left.erase(epoch);
  };

  // The states of a disk that never tears a write: all of them when there
  // is room, so that none is left to chance.
  const bool all_whole = whole_write_subsets(log) <= count;
  for (size_t e = 0; all_whole && e < epochs.size(); ++e) {
    for (uint64_t mask = 1; mask + 1 < (uint64_t{1} << epochs[e].size()); ++mask) {
      std::vector<Piece> subset;
      for (size_t i = 0; i < epochs[e].size(); ++i) {
        if (mask & (uint64_t{1} << i)) subset.push_back(Piece{epochs[e][i], {}});
      }
      add(e, subset);
    }
  }

  std::mt19937_64 rng(seed);
  while (states.size() < count && !left.empty()) {
    // Epochs are drawn in proportion to their writes, so a long epoch is
    // tried more often without crowding out the short ones.
    uint64_t total = 0;
    for (const auto& [e, n] : left) total += epochs[e].size();
    uint64_t pick = draw(rng, total);
    auto it = left.begin();
    while (pick >= epochs[it->first].size()) pick -= epochs[it->first].size(), ++it;
    const bool by_block = all_whole || draw(rng, 2);
    add(it->first, random_subset(log, epochs[it->first], by_block, rng));
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
