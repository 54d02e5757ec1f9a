// tarnwick-check over trees that a partner could hand in to harm the build
// server: links out of the tree, loops, special files, names that would act
// on a terminal, entries it may not read, no room for its scratch root. Each
// ends within its bound, with nothing read or written outside what it was
// given and its scratch root, and leaves no scratch root behind.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <functional>

#include "tests/harness.h"

namespace fs = std::filesystem;

namespace {

const std::string kSecret = "PLANTED-SECRET-5e1f";
const auto kCopyTree = fs::copy_options::recursive | fs::copy_options::copy_symlinks;

// A scratch directory holding the tree (tree/), a planted host file
// (plant/secret), the checker's TMPDIR (tmp/) and whatever a case adds.
struct Case {
  std::string name;
  std::function<std::vector<std::string>(const std::string& dir)> make;  // the checker's arguments
  std::vector<int> statuses;  // those allowed
  bool root_only = false;     // needs root to be made (device files, a mount)
  bool as_user = false;       // run as an ordinary user
  std::vector<std::string> names;  // texts the JSON document must keep byte for byte
};

Case C(std::string name, std::function<std::vector<std::string>(const std::string&)> make,
       std::vector<int> statuses, bool root_only = false, bool as_user = false,
       std::vector<std::string> names = {}) {
  return {std::move(name), std::move(make), std::move(statuses), root_only, as_user, std::move(names)};
}

std::string tree(const std::string& dir) {
  fs::copy(std::string(EXAMPLES_DIR) + "/device/vendor/etc/odm", dir + "/tree", kCopyTree);
  return dir + "/tree";
}

// Replaces |path| with a link to |target|, or with what |make| makes.
void replace(const std::string& path, const std::function<void()>& make) {
  fs::remove_all(path);
  fs::create_directories(fs::path(path).parent_path());
  make();
}
void link(const std::string& target, const std::string& path) {
  replace(path, [&] { fs::create_symlink(target, path); });
}

std::vector<Case> cases() {
  const std::string cfg = "/odm_default/odm/etc/odmconfig.xml", stamp = "/odm_default/odm/odmver.txt";
  const std::string manifest = "/odm_RK7/odm/etc/vintf/manifest.xml";
  return {
      C("links out of the tree",
       [=](const std::string& d) {
         const std::string t = tree(d);
         link(d + "/plant/secret", t + cfg);
         link("../../plant", t + "/odm_RK7/odm/etc/up");
         link("/etc/passwd", t + manifest);
         link("../../../../plant/secret", t + stamp);
         return std::vector<std::string>{t};
       },
       {0, 1}),
      C("--config through a link in the tree",
       [=](const std::string& d) {
         const std::string t = tree(d);
         link(d + "/plant/secret", t + cfg);
         put(d + "/given.xml", "<c><setup_odm/></c>");
         return std::vector<std::string>{"--config", d + "/given.xml", t};
       },
       {0, 1}),
      C("--installed with links to host files",
       [=](const std::string& d) {
         fs::create_directories(d + "/installed/etc");
         link(d + "/plant/secret", d + "/installed/odmver.txt");
         link(d + "/plant/secret", d + "/installed/etc/sensors.conf");
         link(d + "/plant", d + "/installed/etc/vintf");
         return std::vector<std::string>{"--installed", d + "/installed", tree(d)};
       },
       {0, 1}),
      C("loops of links",
       [=](const std::string& d) {
         const std::string t = tree(d);
         link("odm_loop", t + "/odm_loop");
         link("..", t + "/odm_RK7/odm/etc/again");
         link("/vendor/etc/odm/odm_VX41/odm/etc/vintf/manifest.xml", t + manifest);
         return std::vector<std::string>{t};
       },
       {0, 1}),
      C("FIFOs, a socket and devices where starts read them",
       [=](const std::string& d) {
         const std::string t = tree(d), old = d + "/old";
         fs::copy(t, old, kCopyTree);
         replace(t + manifest, [&] { mkfifo((t + manifest).c_str(), 0644); });
         replace(t + stamp, [&] { mknod((t + stamp).c_str(), S_IFCHR | 0644, makedev(1, 5)); });
         replace(t + "/odm_RK7DS/odm/etc/sensors.conf",
                 [&] { mknod((t + "/odm_RK7DS/odm/etc/sensors.conf").c_str(), S_IFSOCK | 0644, 0); });
         replace(old + cfg, [&] { mkfifo((old + cfg).c_str(), 0644); });
         fs::create_directories(d + "/installed/etc");
         mkfifo((d + "/installed/odmver.txt").c_str(), 0644);
         return std::vector<std::string>{"--update-from", old, "--installed", d + "/installed", t};
       },
       {1}, true),
      C("names that act on a terminal",
       [=](const std::string& d) {
         const std::string t = tree(d);
         fs::rename(t + "/odm_RK7", t + "/odm_\x1b[2J\r\x07\x7f\xc2\x9b\xff");
         put(t + "/odm_VX41/odm/etc/\x1b]0;owned\x07\n\t.conf", "x\n");
         put(t + cfg, "<c><model name='M\x1b[31m'><alias>r\x1b[1A\x9b</alias></model><setup_odm/></c>");
         return std::vector<std::string>{t};
       },
       {0, 1}, false, false,
       {"odm_\x1b[2J\r\x07\x7f\xc2\x9b\xff", "\x1b]0;owned\x07\n\t.conf", "r\x1b[1A\x9b"}),
      C("unreadable entries, as an ordinary user",
       [=](const std::string& d) {
         const std::string t = tree(d);
         chmod((t + "/odm_RK7/odm/etc/sensors.conf").c_str(), 0);
         chmod((t + "/odm_VX41/odm/etc/permissions").c_str(), 0);
         chmod((t + "/odm_RK7DS/odm/etc").c_str(), 0300);
         return std::vector<std::string>{t};
       },
       {1}, false, true),
      C("no room for the scratch root",
       [=](const std::string& d) {
         mount("tmpfs", (d + "/tmp").c_str(), "tmpfs", 0, "size=160k,mode=1777");
         return std::vector<std::string>{"--update-from", std::string(EXAMPLES_DIR) + "/update/old",
                                         std::string(EXAMPLES_DIR) + "/update/new"};
       },
       {2}, true),
  };
}

// The first byte of |text| that would act on a terminal, or npos.
size_t raw_control(const std::string& text) {
  for (size_t i = 0; i < text.size(); ++i) {
    const unsigned char c = text[i];
    if ((c < 0x20 && c != '\n') || c == 0x7f || c >= 0x80) return i;  // the report is ASCII
  }
  return std::string::npos;
}

TEST(Hostile, EndsInBoundsAndStaysInside) {
  for (const Case& c : cases()) {
    SCOPED_TRACE(c.name);
    if (c.root_only && geteuid() != 0) {
      GTEST_LOG_(INFO) << "not root: " << c.name << " cannot be made here";
      continue;
    }
    // The emulator lies where the build put it, which an ordinary user may
    // not reach: the native suite runs these.
    if (c.as_user && !wrapper().empty()) {
      GTEST_LOG_(INFO) << "under the emulator: " << c.name << " runs in the native suite";
      continue;
    }
    const std::string dir = make_root();
    put(dir + "/plant/secret", kSecret + "\n");
    fs::create_directories(dir + "/tmp");
    fs::permissions(dir + "/tmp", fs::perms::all | fs::perms::sticky_bit);
    const std::vector<std::string> args = c.make(dir);
    if (c.as_user && geteuid() == 0) {
      for (const auto& entry : fs::recursive_directory_iterator(dir)) lchown(entry.path().c_str(), 1000, 1000);
    }
    const auto before = snapshot(dir);
    for (const bool json : {false, true}) {
      std::vector<std::string> argv = {"timeout", "-s", "KILL", "120"};
      if (c.as_user && geteuid() == 0) {
        argv.insert(argv.end(), {"setpriv", "--reuid=1000", "--regid=1000", "--clear-groups"});
      }
      argv.insert(argv.end(), {"env", "TMPDIR=" + dir + "/tmp"});
      for (const auto& word : wrapper()) argv.push_back(word);
      argv.push_back(c.as_user ? checker_for_others() : TARNWICK_CHECK);
      if (json) argv.push_back("--json");
      argv.insert(argv.end(), args.begin(), args.end());
      const int status = spawn(argv, dir + ".out", dir + ".err");
      const std::string out = get(dir + ".out"), err = get(dir + ".err");
      EXPECT_NE(std::find(c.statuses.begin(), c.statuses.end(), status), c.statuses.end())
          << "exit status " << status << (json ? " (--json)" : "") << "\n" << err;
      EXPECT_EQ((out + err).find(kSecret), std::string::npos) << "the planted file reached the output";
      EXPECT_EQ(raw_control(err), std::string::npos) << err;
      if (!json) {
        EXPECT_EQ(raw_control(out), std::string::npos) << out;
      }
      if (json && status != 2) {
        // A consumer that reads the names back as bytes gets them whole.
        std::string check = "import json, sys\nd = json.load(open(sys.argv[1]))\ntexts = []\n"
                            "def walk(v):\n  if isinstance(v, dict): [walk(k) or walk(x) for k, x in v.items()]\n"
                            "  elif isinstance(v, list): [walk(x) for x in v]\n"
                            "  elif isinstance(v, str): texts.append(v.encode('utf-8', 'surrogateescape'))\n"
                            "walk(d)\nfor name in sys.argv[2:]:\n"
                            "  want = bytes.fromhex(name)\n"
                            "  assert any(want in t for t in texts), name\n";
        std::vector<std::string> py = {"python3", "-c", check, dir + ".out"};
        for (const std::string& name : c.names) {
          std::string hex;
          for (unsigned char ch : name) hex += "0123456789abcdef"[ch >> 4], hex += "0123456789abcdef"[ch & 15];
          py.push_back(hex);
        }
        EXPECT_EQ(spawn(py, "/dev/null", dir + ".py"), 0) << get(dir + ".py");
      }
      const auto after = snapshot(dir);
      for (const auto& [path, what] : after) {
        EXPECT_TRUE(before.count(path) != 0 && before.at(path) == what) << "changed outside the scratch root: " << path;
      }
      for (const auto& entry : before) EXPECT_EQ(after.count(entry.first), 1u) << "removed: " << entry.first;
      EXPECT_TRUE(fs::is_empty(dir + "/tmp")) << "a scratch root was left behind";
    }
    umount2((dir + "/tmp").c_str(), MNT_DETACH);
    for (const char* extra : {".out", ".err", ".py"}) fs::remove(dir + extra);
    remove_root(dir);
  }
}

}  // namespace

// A run killed outright leaves its scratch root behind; the next run in the
// same TMPDIR removes it, and leaves a live run's alone.
TEST(Hostile, KilledRunsLeaveNothingForLong) {
  // A child this test forks never runs under user-mode emulation: the
  // native suite runs it.
  if (!wrapper().empty()) {
    GTEST_LOG_(INFO) << "under the emulator: runs in the native suite";
    return;
  }
  const std::string dir = make_root(), tmp = dir + "/tmp";
  fs::create_directories(tmp);
  const std::string t = tree(dir);
  replace(t + "/odm_default/odm/odmver.txt", [&] { mkfifo((t + "/odm_default/odm/odmver.txt").c_str(), 0644); });
  const auto scratch_roots = [&] { return std::distance(fs::directory_iterator(tmp), fs::directory_iterator()); };
  // Two runs that hang in their starts: one is killed, the other lives on.
  std::vector<pid_t> runs;
  for (int i = 0; i < 2; ++i) {
    const pid_t pid = fork();
    if (pid == 0) {
      setenv("TMPDIR", tmp.c_str(), 1);
      execl(TARNWICK_CHECK, TARNWICK_CHECK, t.c_str(), static_cast<char*>(nullptr));
      _exit(127);
    }
    runs.push_back(pid);
    while (scratch_roots() < i + 1) usleep(10000);
  }
  kill(runs[0], SIGKILL);
  waitpid(runs[0], nullptr, 0);
  EXPECT_EQ(scratch_roots(), 2);
  EXPECT_EQ(spawn({"env", "TMPDIR=" + tmp, TARNWICK_CHECK, std::string(EXAMPLES_DIR) + "/device"},
                  "/dev/null", "/dev/null"),
            0);
  EXPECT_EQ(scratch_roots(), 1) << "the killed run's root is gone, the live one's stays";
  kill(runs[1], SIGTERM);
  waitpid(runs[1], nullptr, 0);
  EXPECT_EQ(scratch_roots(), 0) << "a run ended by SIGTERM removes its own";
  remove_root(dir);
}

// Runs side by side in one TMPDIR: each one's sweep of killed runs' roots
// leaves the others' alone, also in the moment a run takes its lock.
TEST(Hostile, RunsSideBySideLeaveEachOthersRoots) {
  const std::string dir = make_root(), tmp = dir + "/tmp";
  fs::create_directories(tmp);
  std::string wrap;
  for (const auto& word : wrapper()) wrap += word + " ";
  const std::string one_run = "TMPDIR=" + tmp + " " + wrap + TARNWICK_CHECK + " " + EXAMPLES_DIR + "/device >/dev/null 2>>" +
                              dir + "/errors || echo failed";
  const std::string script = "for j in 1 2 3 4; do (for i in $(seq 40); do " + one_run + "; done) & done; wait";
  EXPECT_EQ(spawn({"sh", "-c", script}, dir + "/out", "/dev/null"), 0);
  EXPECT_EQ(get(dir + "/out"), "") << get(dir + "/errors");
  EXPECT_TRUE(fs::is_empty(tmp));
  remove_root(dir);
}
