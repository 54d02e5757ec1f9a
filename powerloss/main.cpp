// crash-states: the host and guest half of tools/powerloss. It reads the write
// log of a recorded device start, lists the crash states to check, writes the
// disk image of one, and judges the /odm a state leads to.
#include <errno.h>
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "powerloss/crash_states.h"
#include "powerloss/odm_check.h"
#include "powerloss/state_image.h"
#include "powerloss/write_log.h"

namespace {

const char kUsage[] = R"(Usage:
  crash-states list LOG [--states N] [--seed S] [--stamp FILE] [--drop-flushes K,...]
      every prefix of the log, then up to N (default 200) reordered states,
      those drawn with seed S (default 1); one line each: ID KIND ENTRIES
      WHAT, after three lines beginning with "#" that count them. FILE: the
      new stamp, whose epoch and the one before it get every subset of whole
      writes. K: entries whose flush is taken as never made, to show what
      the reorderings find without it
  crash-states image LOG BASE OUT ENTRIES
      writes to OUT the image BASE with the log's ENTRIES ("0-12,14"; blocks
      of an entry as "15[0,2-3]"; "-" for none)
  crash-states check ODM REFERENCE
      in a crash state: a stamp with the new version vouches for every file
  crash-states compare ODM REFERENCE
      after the next starts: ODM equals REFERENCE
Exit status: 0 when it holds, 1 when not, 2 on a usage or read error (a
REFERENCE that cannot be read whole included).
)";

int usage_error(const std::string& message) {
  fprintf(stderr, "crash-states: %s\n%s", message.c_str(), kUsage);
  return 2;
}

bool load(const std::string& path, WriteLog* log) {
  std::string error;
  if (read_write_log(path, log, &error)) return true;
  fprintf(stderr, "crash-states: %s\n", error.c_str());
  return false;
}

// A number of |text|, or false.
bool number(const char* text, uint64_t* value) {
  char* end;
  errno = 0;
  *value = strtoull(text, &end, 10);
  return *text != '\0' && *end == '\0' && errno == 0 && text[0] != '-';
}

// "1 write", "2 writes".
std::string counted(size_t n, const std::string& noun) {
  return std::to_string(n) + " " + noun + (n == 1 ? "" : noun.back() == 'h' ? "es" : "s");
}

// One sentence on |state| for the reader of a failure report.
std::string describe(const WriteLog& log, const CrashState& state, size_t writes) {
  if (state.kind == StateKind::kPrefix) {
    return "the first " + std::to_string(state.pieces.size()) + " of " + counted(writes, "write") +
           ", in log order";
  }
  const std::vector<size_t> epochs = entry_epochs(log);
  std::vector<size_t> epoch_entries;
  for (size_t i = 0; i < epochs.size(); ++i) {
    if (epochs[i] == state.epoch && changes_disk(log.entries[i])) epoch_entries.push_back(i);
  }
  size_t whole = 0;
  size_t part = 0;
  std::vector<size_t> lost = epoch_entries;
  for (const Piece& piece : state.pieces) {
    if (epochs[piece.entry] != state.epoch) continue;
    ++(piece.blocks.empty() ? whole : part);
    lost.erase(std::remove(lost.begin(), lost.end(), piece.entry), lost.end());
  }
  const std::string some = "of the " + counted(epoch_entries.size(), "write");
  const std::string which = " (entries " + std::to_string(epoch_entries.front()) + "-" +
                            std::to_string(epoch_entries.back()) + ")";
  std::string taken = ", " + std::to_string(whole) + " whole" +
                      (part > 0 ? " and " + std::to_string(part) + " in part" : "");
  if (!lost.empty() && lost.size() <= 3) {
    taken += ", lost: entr" + std::string(lost.size() == 1 ? "y" : "ies");
    for (size_t i = 0; i < lost.size(); ++i) taken += (i ? ", " : " ") + std::to_string(lost[i]);
  }
  if (state.epoch == 0) return some + " before the first flush" + which + taken;
  return "every write up to flush " + std::to_string(state.epoch) + ", then " + some +
         " after it" + which + taken;
}

// |text| as "3,5,9" into |numbers|, or false.
bool number_list(const char* text, std::vector<uint64_t>* numbers) {
  std::string item;
  for (const char* p = text;; ++p) {
    if (*p != ',' && *p != '\0') {
      item += *p;
      continue;
    }
    uint64_t value;
    if (!number(item.c_str(), &value)) return false;
    numbers->push_back(value);
    item.clear();
    if (*p == '\0') return true;
  }
}

bool read_file(const std::string& path, std::string* bytes) {
  FILE* f = fopen(path.c_str(), "rb");
  if (f == nullptr) return false;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof(buf), f)) > 0) bytes->append(buf, n);
  const bool ok = !ferror(f);
  fclose(f);
  return ok;
}

int list(int argc, char** argv) {
  if (argc < 1) return usage_error("list needs a log");
  uint64_t count = 200;
  uint64_t seed = 1;
  std::string stamp_path;
  std::vector<uint64_t> dropped;
  for (int i = 1; i < argc; i += 2) {
    const bool has_value = i + 1 < argc;
    bool ok = has_value;
    if (strcmp(argv[i], "--states") == 0) ok = ok && number(argv[i + 1], &count);
    else if (strcmp(argv[i], "--seed") == 0) ok = ok && number(argv[i + 1], &seed);
    else if (strcmp(argv[i], "--stamp") == 0) ok = ok && (stamp_path = argv[i + 1], true);
    else if (strcmp(argv[i], "--drop-flushes") == 0) ok = ok && number_list(argv[i + 1], &dropped);
    else ok = false;
    if (!ok) return usage_error(std::string("bad option ") + argv[i]);
  }
  WriteLog log;
  if (!load(argv[0], &log)) return 2;
  for (uint64_t k : dropped) {
    if (k >= log.entries.size() || (log.entries[k].flags & kLogFlush) == 0) {
      fprintf(stderr, "crash-states: entry %" PRIu64 " of %s is no flush\n", k, argv[0]);
      return 2;
    }
    log.entries[k].flags &= ~kLogFlush;
  }
  std::string stamp;
  if (!stamp_path.empty() && !read_file(stamp_path, &stamp)) {
    fprintf(stderr, "crash-states: cannot read %s: %s\n", stamp_path.c_str(), strerror(errno));
    return 2;
  }
  std::vector<size_t> holding;
  std::string error;
  if (!writes_holding(argv[0], log, stamp, &holding, &error)) {
    fprintf(stderr, "crash-states: %s\n", error.c_str());
    return 2;
  }
  // The write that puts the stamp on the disk is the last to carry it.
  std::vector<size_t> focus;
  std::string stamp_line = "# stamp: no write holds the new stamp";
  if (!holding.empty()) {
    const size_t epoch = entry_epochs(log)[holding.back()];
    if (epoch > 0) focus.push_back(epoch - 1);
    focus.push_back(epoch);
    stamp_line = "# stamp: the new stamp is written by entry " + std::to_string(holding.back()) + ", in epoch " + std::to_string(epoch);
  }

  std::vector<CrashState> states = prefix_states(log);
  const size_t writes = states.back().pieces.size();
  size_t flushes = 0;
  for (const LogEntry& entry : log.entries) flushes += (entry.flags & kLogFlush) != 0;
  size_t kinds[kStateKinds] = {};
  size_t torn = 0;
  for (const CrashState& state : reordered_states(log, count, seed, focus)) {
    states.push_back(state);
    ++kinds[static_cast<size_t>(state.kind)];
    torn += std::any_of(state.pieces.begin(), state.pieces.end(), [](const Piece& p) { return !p.blocks.empty(); });
  }
  auto of = [&](StateKind kind) { return kinds[static_cast<size_t>(kind)]; };
  printf("# log: %zu entries, %s, %s\n", log.entries.size(), counted(writes, "write").c_str(),
         counted(flushes, "flush").c_str());
  printf("%s\n", stamp_line.c_str());
  uint64_t around = 0;
  for (size_t e : focus) around += epoch_whole_subsets(log, e);
  printf("# reordered: %zu of the %" PRIu64 " subsets of whole writes around the stamp, %zu of the %" PRIu64
         " others, %zu with one write lost, %zu with two, %zu drawn (%zu with writes in part)\n",
         of(StateKind::kStamp), around, of(StateKind::kSubset), whole_write_subsets(log) - around,
         of(StateKind::kOneLost), of(StateKind::kTwoLost), of(StateKind::kDrawn), torn);
  for (size_t id = 0; id < states.size(); ++id) {
    printf("%zu %s %s %s\n", id + 1, kind_name(states[id].kind), format_pieces(states[id].pieces).c_str(),
           describe(log, states[id], writes).c_str());
  }
  return 0;
}

int image(int argc, char** argv) {
  if (argc != 4) return usage_error("image needs LOG BASE OUT ENTRIES");
  WriteLog log;
  if (!load(argv[0], &log)) return 2;
  std::vector<Piece> pieces;
  if (!parse_pieces(argv[3], &pieces)) return usage_error(std::string("bad entries ") + argv[3]);
  std::string error;
  if (write_state_image(argv[0], log, pieces, argv[1], argv[2], &error)) return 0;
  fprintf(stderr, "crash-states: %s\n", error.c_str());
  return 2;
}

int judge(int argc, char** argv, bool (*rule)(const std::string&, const std::string&,
                                               std::vector<std::string>*)) {
  if (argc != 2) return usage_error("needs ODM REFERENCE");
  std::vector<std::string> report;
  if (!read_whole(argv[1], &report)) {
    for (const std::string& line : report) fprintf(stderr, "crash-states: %s\n", line.c_str());
    return 2;
  }
  const bool holds = rule(argv[0], argv[1], &report);
  for (const std::string& line : report) printf("%s\n", line.c_str());
  return holds ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 2 && (strcmp(argv[1], "-h") == 0 || strcmp(argv[1], "--help") == 0)) {
    fputs(kUsage, stdout);
    return 0;
  }
  if (argc < 2) return usage_error("no command");
  const std::string command = argv[1];
  if (command == "list") return list(argc - 2, argv + 2);
  if (command == "image") return image(argc - 2, argv + 2);
  if (command == "check") return judge(argc - 2, argv + 2, check_stamp);
  if (command == "compare") return judge(argc - 2, argv + 2, compare_odm);
  return usage_error("unknown command " + command);
}
