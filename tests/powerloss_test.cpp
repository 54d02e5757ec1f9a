// crash-states: which states a log allows, their images, and the two checks.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>

#include "powerloss/crash_states.h"
#include "powerloss/odm_check.h"
#include "powerloss/state_image.h"

namespace {

namespace fs = std::filesystem;
using Strings = std::vector<std::string>;

class Powerloss : public testing::Test {
 protected:
  void SetUp() override {
    char name[] = "/tmp/powerloss_test.XXXXXX";
    dir_ = mkdtemp(name);
  }
  void TearDown() override { fs::remove_all(dir_); }
  void put(const std::string& path, const std::string& bytes, mode_t mode = 0644) {
    fs::create_directories(fs::path(dir_ + "/" + path).parent_path());
    std::ofstream(dir_ + "/" + path, std::ios::binary) << bytes;
    chmod((dir_ + "/" + path).c_str(), mode);
  }
  std::string get(const std::string& path) {
    std::ifstream in(dir_ + "/" + path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }
  // A log in the dm-log-writes format of 512-byte sectors: (4 KiB block,
  // blocks, fill byte), or a flush where blocks is 0.
  void put_log(const std::vector<std::tuple<int, int, char>>& writes) {
    auto le = [](uint64_t v, int n) { return std::string(reinterpret_cast<char*>(&v), n); };
    std::string log = le(0x6a736677736872, 8) + le(1, 8) + le(writes.size(), 8) + le(512, 4);
    for (const auto& [block, blocks, fill] : writes) {
      log.resize((log.size() + 511) / 512 * 512);
      log += le(block * 8, 8) + le(blocks * 8, 8) + le(blocks ? 0 : 1, 8) + le(0, 8);
      log.resize(log.size() + 480);
      log += std::string(blocks * 4096, fill);
    }
    put("log", log);
    std::string error;
    ASSERT_TRUE(read_write_log(dir_ + "/log", &log_, &error)) << error;
  }
  std::string dir_;
  WriteLog log_;
};

// Entries 0 and 1 (one block, two blocks) before the first flush, 3 and 4
// after it: the reordered states are every subset of an epoch's blocks that
// no prefix gives, the epochs before it whole.
TEST_F(Powerloss, StatesAreThePrefixesAndEveryOtherSubsetOfAnEpoch) {
  put_log({{1, 1, 'a'}, {2, 2, 'b'}, {0, 0, 0}, {1, 1, 'c'}, {5, 1, 'd'}, {0, 0, 0}});
  Strings prefixes;
  for (const CrashState& state : prefix_states(log_)) prefixes.push_back(format_pieces(state.pieces));
  EXPECT_EQ(prefixes, (Strings{"-", "0", "0-1", "0-1,3", "0-1,3-4"}));
  for (size_t count : {100, 3}) {
    std::set<std::string> drawn;
    for (const CrashState& state : reordered_states(log_, count, 7)) {
      EXPECT_NE(state.kind, StateKind::kPrefix);
      drawn.insert(format_pieces(state.pieces));
    }
    const std::set<std::string> all = {"1", "1[0]", "1[1]", "0,1[0]", "0,1[1]", "0-1,4"};
    EXPECT_EQ(drawn.size(), std::min<size_t>(count, all.size()));
    EXPECT_TRUE(std::includes(all.begin(), all.end(), drawn.begin(), drawn.end()));
  }
}

// A 31-write epoch has too many subsets to check them all: the ones that lose
// a single write (where a missing flush shows first) must all be there, not
// left to a draw, and the stamp's epochs get every subset.
TEST_F(Powerloss, FewLostWritesOfALongEpochAreNeverLeftToChance) {
  std::vector<std::tuple<int, int, char>> writes;
  for (int i = 0; i < 31; ++i) writes.emplace_back(i, 1, 'a');
  writes.insert(writes.end(), {{0, 0, 0}, {40, 1, 'b'}, {41, 1, 'c'}, {42, 1, 'd'}, {0, 0, 0}});
  put_log(writes);
  struct Row {
    std::vector<size_t> focus;
    size_t stamp, one_lost, two_lost;
  };
  // Entries 32-34 are the short epoch; losing an epoch's last write is a prefix.
  for (const Row& row : {Row{{}, 0, 32, 2}, Row{{1}, 4, 30, 0}}) {
    SCOPED_TRACE(row.focus.size());
    std::map<StateKind, size_t> kinds;
    std::set<std::string> seen;
    for (const CrashState& state : reordered_states(log_, 40, 3, row.focus)) {
      ++kinds[state.kind];
      EXPECT_TRUE(seen.insert(format_pieces(state.pieces)).second);
    }
    EXPECT_EQ(kinds[StateKind::kStamp], row.stamp);
    EXPECT_EQ(kinds[StateKind::kOneLost], row.one_lost);
    EXPECT_EQ(kinds[StateKind::kTwoLost], row.two_lost);
    EXPECT_EQ(seen.size(), 40u);
    for (int lost = 0; lost < 30; ++lost) {
      std::vector<Piece> all_but;
      for (size_t i = 0; i < 31; ++i) {
        if (i != static_cast<size_t>(lost)) all_but.push_back(Piece{i, {}});
      }
      EXPECT_EQ(seen.count(format_pieces(all_but)), 1u) << lost;
    }
  }
}

// A disk that is never written leaves an empty log; the stamp's write is found
// by its bytes.
TEST_F(Powerloss, EmptyLogAndTheWritesHoldingTheStamp) {
  put("empty", "");
  WriteLog empty;
  std::string error;
  ASSERT_TRUE(read_write_log(dir_ + "/empty", &empty, &error)) << error;
  EXPECT_EQ(prefix_states(empty).size(), 1u);
  put_log({{1, 1, 'a'}, {0, 0, 0}, {2, 2, 'b'}, {3, 1, 'b'}});
  const std::pair<std::string, std::vector<size_t>> cases[] = {{"bb", {2, 3}}, {"ab", {}}, {"", {}}};
  for (const auto& [bytes, entries] : cases) {
    std::vector<size_t> found;
    ASSERT_TRUE(writes_holding(dir_ + "/log", log_, bytes, &found, &error)) << error;
    EXPECT_EQ(found, entries) << bytes;
  }
}

TEST_F(Powerloss, StateImageWritesThePiecesInLogOrder) {
  put_log({{1, 1, 'a'}, {2, 2, 'b'}, {0, 0, 0}, {1, 1, 'c'}});
  put("base", std::string(4 * 4096, 'z'));
  const std::pair<std::string, std::string> cases[] = {
      {"-", "zzzz"}, {"0-1,3", "zcbb"}, {"1[1]", "zzzb"}, {"0,1[0]", "zabz"}};
  for (const auto& [text, blocks] : cases) {
    SCOPED_TRACE(text);
    std::vector<Piece> pieces;
    ASSERT_TRUE(parse_pieces(text, &pieces));
    EXPECT_EQ(format_pieces(pieces), text);
    std::string error;
    ASSERT_TRUE(write_state_image(dir_ + "/log", log_, pieces, dir_ + "/base", dir_ + "/out", &error)) << error;
    std::string want;
    for (char c : blocks) want += std::string(4096, c);
    EXPECT_TRUE(get("out") == want);
  }
}

// The stamp vouches only when its version line is the new one; convergence
// is every name, mode and byte, the file system's lost+found aside.
TEST_F(Powerloss, StampVouchesAndOdmConverges) {
  put("ref/odmver.txt", "old\nv2");
  put("ref/etc/a.xml", "hello\n");
  const std::tuple<std::string, std::string, bool> cases[] = {
      {"v2\n", "hello\n", true}, {"v2", "hel", false}, {"x\nv1", "hel", true}, {"", "", true}};
  for (const auto& [stamp, file, holds] : cases) {
    SCOPED_TRACE(stamp + "|" + file);
    fs::remove_all(dir_ + "/odm");
    put("odm/odmver.txt", stamp);
    put("odm/etc/a.xml", file);
    Strings report;
    EXPECT_EQ(check_stamp(dir_ + "/odm", dir_ + "/ref", &report), holds);
    EXPECT_EQ(report.size(), holds ? 1u : 2u);
  }
  fs::remove_all(dir_ + "/odm");
  fs::copy(dir_ + "/ref", dir_ + "/odm", fs::copy_options::recursive);
  fs::create_directory(dir_ + "/odm/lost+found");
  Strings report;
  EXPECT_TRUE(compare_odm(dir_ + "/odm", dir_ + "/ref", &report));
  chmod((dir_ + "/odm/etc/a.xml").c_str(), 0600);
  EXPECT_FALSE(compare_odm(dir_ + "/odm", dir_ + "/ref", &report));
  EXPECT_EQ(report, (Strings{"/odm/etc/a.xml: mode 600, not 644"}));
}

// A tree that cannot be read is never taken for an empty one.
TEST_F(Powerloss, UnreadableTreeIsAnError) {
  put("ref/odmver.txt", "v2");
  Strings report;
  EXPECT_TRUE(read_whole(dir_ + "/ref", &report));
  EXPECT_FALSE(read_whole(dir_ + "/gone", &report));
  EXPECT_EQ(report.size(), 1u);
  // Read as empty, two missing trees would be equal.
  EXPECT_FALSE(compare_odm(dir_ + "/gone", dir_ + "/gone-too", &report));
}

}  // namespace
