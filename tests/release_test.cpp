// Releases as they are kept: every kind made at test time with the real tools
// (Python's zipfile, mke2fs -d, mkfs.erofs, img2simg) from a directory, read
// back entry by entry, and checked by tarnwick-check against the directory
// itself; and hostile packages and images, which leave nothing outside the
// scratch root.
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <nlohmann/json.hpp>

#include "check/release_input.h"
#include "check/release_tree.h"
#include "tests/alone.h"
#include "tests/harness.h"

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

const std::string kSamples = EXAMPLES_DIR;
// Who the checker runs as in the runs as an ordinary user.
const char kUser[] = "65534";

// Writes a ZIP of directory argv[1] (or none, "-") to argv[2], each entry as
// it is (its mode in the entry's Unix mode, a link holding its target), then
// the entries NAME MODE DATA that follow, "@N" standing for N zero bytes.
const char kZipper[] = R"(
import os, stat, sys, zipfile
root, dest, extra = sys.argv[1], sys.argv[2], sys.argv[3:]
with zipfile.ZipFile(dest, 'w', zipfile.ZIP_DEFLATED) as z:
    def add(name, mode, data):
        info = zipfile.ZipInfo(name)
        info.create_system, info.external_attr, info.compress_type = 3, mode << 16, zipfile.ZIP_DEFLATED
        z.writestr(info, data)
    for top, dirs, files in (os.walk(root) if root != '-' else []):
        for name in sorted(dirs + files):
            path = os.path.join(top, name)
            rel, mode = os.path.relpath(path, root), os.lstat(path).st_mode
            data = (os.readlink(path) if stat.S_ISLNK(mode) else
                    open(path, 'rb').read() if stat.S_ISREG(mode) else b'')
            add(rel + '/' if stat.S_ISDIR(mode) else rel, mode, data)
    for name, mode, data in zip(extra[0::3], extra[1::3], extra[2::3]):
        add(name, int(mode, 8), b'\0' * int(data[1:]) if data.startswith('@') else data)
)";

std::string q(const std::string& word) { return "'" + word + "'"; }

// Runs the zipper with |args|.
void zip(const std::string& args) {
  const std::string script =
      fs::temp_directory_path() / ("tarnwick-zipper." + std::to_string(getpid()));
  std::ofstream(script) << kZipper;
  ASSERT_EQ(spawn({"sh", "-c", "python3 " + q(script) + " " + args}, "/dev/null", "/dev/null"), 0)
      << args;
  fs::remove(script);
}

// Runs |command|; mke2fs and mkfs.vfat lie where an ordinary user's PATH may not look.
void sh(const std::string& command) {
  ASSERT_EQ(spawn({"sh", "-c", "PATH=$PATH:/usr/sbin:/sbin; " + command}, "/dev/null", "/dev/null"),
            0)
      << command;
}

struct Kind {
  std::string name;   // as read_release says it
  std::string inner;  // where the tree stands in it
};

const Kind kKinds[] = {
    {"directory", ""},
    {"extracted target-files package", "VENDOR/etc/odm"},
    {"target-files package (ZIP)", "VENDOR/etc/odm"},
    {"ext4 image", "etc/odm"},
    {"sparse ext4 image", "etc/odm"},
    {"EROFS image", "etc/odm"},
    {"sparse EROFS image", "etc/odm"},
};

// Makes |kind| of vendor ODM tree |tree| in the new directory |dir|; the
// path to give. Files are named without a suffix: the content tells the kind.
std::string make_input(const std::string& kind, const std::string& tree, const std::string& dir) {
  if (kind == "directory") return tree;
  fs::create_directories(dir);
  const bool package = kind.find("target-files") != std::string::npos;
  const std::string top = dir + (package ? "/pkg" : "/root");
  fs::create_directories(top + (package ? "/VENDOR/etc" : "/etc"));
  sh("cp -a " + q(tree) + " " + q(top + (package ? "/VENDOR/etc/odm" : "/etc/odm")));
  const std::string out = dir + "/release", raw = kind.find("sparse") == 0 ? dir + "/raw" : out;
  if (kind == "extracted target-files package") return top;
  if (package) zip(q(top) + " " + q(out));
  if (kind.find("ext4") != std::string::npos)
    sh("mke2fs -q -t ext4 -d " + q(top) + " " + q(raw) + " 16M");
  if (kind.find("EROFS") != std::string::npos) sh("mkfs.erofs --quiet " + q(raw) + " " + q(top));
  if (raw != out) sh("img2simg " + q(raw) + " " + q(out) + " && rm " + q(raw));
  return out;
}

// Every entry under |dir|, relative, as type, mode and content or target.
std::map<std::string, std::string> entries(const std::string& dir) {
  std::map<std::string, std::string> out;
  for (auto it = fs::recursive_directory_iterator(dir); it != fs::recursive_directory_iterator();
       ++it) {
    struct stat st;
    lstat(it->path().c_str(), &st);
    std::string& e = out[it->path().lexically_relative(dir)];
    e = std::string(1, "?pc?d?b?-?l?s"[(st.st_mode & S_IFMT) >> 12]) +
        std::to_string(st.st_mode & 07777);
    if (S_ISREG(st.st_mode)) {
      const std::string data = get(it->path());
      e += " " + (data.size() < 64 ? data
                                   : std::to_string(data.size()) + " bytes #" +
                                         std::to_string(std::hash<std::string>()(data)));
      if (st.st_blocks > 64) e += " (no holes)";
    }
    if (S_ISLNK(st.st_mode)) e += " -> " + fs::read_symlink(it->path()).string();
    if (S_ISCHR(st.st_mode))
      e += " " + std::to_string(major(st.st_rdev)) + "," + std::to_string(minor(st.st_rdev));
  }
  return out;
}

// A tree with an entry of each kind a tree may hold and of modes a reader could lose.
std::string rich_tree(const std::string& root) {
  const std::string tree = root + "/tree", etc = tree + "/odm_A/odm/etc";
  put(etc + "/plain.conf", "plain\n");
  put(etc + "/secret.conf", "secret\n");
  put(etc + "/locked/inside.conf", "inside\n");
  put(etc + "/read_only/inside.conf", "read only\n");
  put(etc + std::string("/esc\x1b[2Jname"), "escaped\n");
  fs::create_directories(etc + "/empty");
  fs::create_symlink("plain.conf", etc + "/relative");
  fs::create_symlink("/vendor/etc/odm/odm_A/odm/etc/plain.conf", etc + "/absolute");
  fs::create_symlink("../../../../../../../../etc/passwd", etc + "/out");
  fs::create_symlink("missing", etc + "/dangling");
  mkfifo((etc + "/fifo").c_str(), 0640);
  const int sock = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un addr = {AF_UNIX, {}};
  snprintf(addr.sun_path, sizeof(addr.sun_path), "%s/sock", etc.c_str());
  bind(sock, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
  close(sock);
  // A hole of 4 MiB and a few bytes after it: a copy that fills it is caught.
  {
    std::ofstream hole(etc + "/hole.bin", std::ios::binary);
    hole.seekp(4 << 20);
    hole << "end";
  }
  chmod((etc + "/secret.conf").c_str(), 0600);
  chmod((etc + "/plain.conf").c_str(), 04755);
  chmod((etc + "/read_only").c_str(), 0555);
  // Whoever is not root could not list it here.
  chmod((etc + "/locked").c_str(), getuid() == 0 ? 0 : 0700);
  chmod((tree + "/odm_A").c_str(), 0750);
  return tree;
}

// read_release of |given| into a new scratch directory in |root|, as user
// |uid| (a child process that becomes it) when it is not this process's: the
// entries it made. The scratch directory is removed by that user again.
std::map<std::string, std::string> read_as(uid_t uid, const std::string& given,
                                           const std::string& root, ReleaseInput* in) {
  const std::string scratch = root + "/scratch." + std::to_string(uid);
  fs::create_directories(scratch);
  std::string error;
  if (uid == getuid()) {
    if (!read_release(given, scratch, in, &error)) in->kind = "error: " + error;
    return in->tree.empty() ? std::map<std::string, std::string>() : entries(in->tree);
  }
  std::ofstream(scratch + ".out");
  if (chown(scratch.c_str(), uid, uid) != 0 || chown((scratch + ".out").c_str(), uid, uid) != 0)
    return {};
  const pid_t pid = fork();
  if (pid == 0) {
    if (setgroups(0, nullptr) != 0 || setresgid(uid, uid, uid) != 0 ||
        setresuid(uid, uid, uid) != 0)
      _exit(1);
    ReleaseInput got;
    std::string out = !read_release(given, scratch, &got, &error)
                          ? "error: " + error + "\n"
                          : got.kind + "\n" + got.inner + "\n" + got.tree + "\n";
    for (const auto& [name, why] : got.unmade) out += name + "\t" + why + "\n";
    std::ofstream(scratch + ".out") << out;
    _exit(0);
  }
  int status;
  waitpid(pid, &status, 0);
  std::istringstream out(get(scratch + ".out"));
  std::getline(out, in->kind);
  std::getline(out, in->inner);
  std::getline(out, in->tree);
  for (std::string line; std::getline(out, line);) {
    in->unmade.emplace_back(line.substr(0, line.find('\t')), line.substr(line.find('\t') + 1));
  }
  return in->tree.empty() ? std::map<std::string, std::string>() : entries(in->tree);
}

bool root() { return getuid() == 0; }

// Under user-mode emulation (the AArch64 build's tests) a forked process
// never runs, and seccomp, which confines fsck.erofs, is not there: the
// native suite reads EROFS images and runs as another user.
bool emulated() { return !wrapper().empty(); }
bool skipped(const std::string& kind) {
  return emulated() && kind.find("EROFS") != std::string::npos;
}

TEST(Release, EveryKindKeepsEachEntryAsItIs) {
  const std::string dir = make_root();
  chmod(dir.c_str(), 0755);
  const std::string tree = rich_tree(dir);
  if (root()) sh("mknod " + q(tree + "/odm_A/odm/etc/null") + " c 1 3");
  const auto expected = entries(tree);
  for (const Kind& kind : kKinds) {
    SCOPED_TRACE(kind.name);
    if (skipped(kind.name)) continue;
    const std::string given =
        make_input(kind.name, tree, dir + "/" + std::to_string(&kind - kKinds));
    // As whoever runs the tests, and once more as an ordinary user for each reader.
    const bool file = kind.name != "directory" && kind.name.find("extracted") == std::string::npos;
    std::vector<uid_t> users = {getuid()};
    if (root() && file && !emulated()) users.push_back(std::stoul(kUser));
    for (uid_t uid : users) {
      SCOPED_TRACE("uid " + std::to_string(uid));
      ReleaseInput in;
      auto got = read_as(uid, given, dir, &in);
      ASSERT_EQ(in.kind, kind.name) << in.inner;
      EXPECT_EQ(in.inner, kind.inner);
      // A ZIP holds no device numbers; an ordinary user may make no device.
      const bool device_made = root() && uid == 0 && kind.name.find("ZIP") == std::string::npos;
      auto want = expected;
      if (root() && !device_made) {
        want.erase("odm_A/odm/etc/null");
        ASSERT_EQ(in.unmade.size(), 1u);
        EXPECT_EQ(in.unmade[0].first, "odm_A/odm/etc/null");
      }
      // fsck.erofs writes a hole as the zeros it reads.
      if (kind.name.find("EROFS") != std::string::npos) {
        std::string& hole = got["odm_A/odm/etc/hole.bin"];
        if (hole.size() > 11 && hole.compare(hole.size() - 11, 11, " (no holes)") == 0)
          hole.resize(hole.size() - 11);
      }
      EXPECT_EQ(got, want);
      if (file) {
        // What the checker's removal of its scratch root leaves: nothing.
        remove_unpacked((dir + "/scratch." + std::to_string(uid)).c_str());
        EXPECT_FALSE(fs::exists(dir + "/scratch." + std::to_string(uid)));
      }
    }
  }
  remove_unpacked(dir.c_str());
}

TEST(Release, FindsTheTreeWhereADeviceWould) {
  struct Case {
    std::string name;
    std::vector<std::pair<std::string, std::string>> links;  // in the input: path -> target
    std::string tree_at;                                     // where the tree's files are
    std::string image;                                       // made into: "", "ext4", "erofs"
    std::string kind, inner;  // kind "error": the error holds |inner|
  };
  const Case cases[] = {
      {"device root, vendor/etc/odm an absolute link",
       {{"vendor/etc/odm", "/vendor/trees"}},
       "vendor/trees",
       "",
       "directory",
       "vendor/trees"},
      {"vendor directory", {}, "etc/odm", "", "directory", "etc/odm"},
      {"system package without a vendor partition",
       {},
       "SYSTEM/vendor/etc/odm",
       "",
       "extracted target-files package",
       "SYSTEM/vendor/etc/odm"},
      {"system package, /vendor of a link in it",
       {{"SYSTEM/vendor/etc/odm", "/vendor/odm"}},
       "SYSTEM/vendor/odm",
       "",
       "extracted target-files package",
       "SYSTEM/vendor/odm"},
      {"package whose tree links out",
       {{"VENDOR/etc/odm", "/system/etc/odm"}},
       "SYSTEM/etc/odm",
       "",
       "error",
       "outside"},
      {"package without a tree", {}, "VENDOR/etc/other", "", "error", "holds no vendor ODM tree"},
      {"image of a device root, /vendor a link to /system/vendor",
       {{"vendor", "/system/vendor"}},
       "system/vendor/etc/odm",
       "ext4",
       "ext4 image",
       "system/vendor/etc/odm"},
      {"image whose etc/odm links a step up and back",
       {{"etc/odm", "../odm_trees"}},
       "odm_trees",
       "erofs",
       "EROFS image",
       "odm_trees"},
      {"image whose etc/odm links out",
       {{"etc/odm", "../../system/etc/odm"}},
       "x",
       "ext4",
       "error",
       "outside"},
  };
  const std::string dir = make_root();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string top = dir + "/" + std::to_string(&c - cases);
    fs::create_directories(top + "/" + c.tree_at);
    sh("cp -a " + q(kSamples + "/update/new/.") + " " + q(top + "/" + c.tree_at));
    for (const auto& [path, target] : c.links) {
      fs::create_directories(fs::path(top + "/" + path).parent_path());
      fs::create_symlink(target, top + "/" + path);
    }
    std::string given = top;
    if (c.image == "ext4") {
      sh("mke2fs -q -t ext4 -d " + q(top) + " " + q(top + ".img") + " 16M");
      given = top + ".img";
    } else if (c.image == "erofs") {
      if (emulated()) continue;
      sh("mkfs.erofs --quiet " + q(top + ".img") + " " + q(top));
      given = top + ".img";
    }
    ReleaseInput in;
    std::string error;
    fs::create_directories(top + ".scratch");
    const bool read = read_release(given, top + ".scratch", &in, &error);
    if (c.kind == "error") {
      EXPECT_FALSE(read);
      EXPECT_NE(error.find(c.inner), std::string::npos) << error;
      continue;
    }
    ASSERT_TRUE(read) << error;
    EXPECT_EQ(in.kind, c.kind);
    EXPECT_EQ(in.inner, c.inner);
    EXPECT_EQ(entries(in.tree), entries(kSamples + "/update/new"));
  }
  remove_unpacked(dir.c_str());
}

// A location's file in |doc| relative to the tree, not to the input (under |inner|).
void strip_inner(json* doc, const std::string& inner) {
  if (doc->is_object() && doc->contains("file") && (*doc)["file"].is_string()) {
    const std::string file = (*doc)["file"];
    if (!inner.empty() && file.rfind(inner + "/", 0) == 0)
      (*doc)["file"] = file.substr(inner.size() + 1);
  }
  if (doc->is_structured()) {
    for (auto& member : *doc) strip_inner(&member, inner);
  }
}

// tarnwick-check's JSON report on |args|, without the members that name the
// releases as given, and with locations relative to the trees, which lie at
// |inner| in the releases.
json report(const std::vector<std::string>& args, int* status, const std::string& as = "",
            const std::string& inner = "") {
  const std::string out =
      fs::temp_directory_path() / ("tarnwick-release." + std::to_string(getpid()));
  std::vector<std::string> argv;
  if (!as.empty()) argv = {"setpriv", "--reuid=" + as, "--regid=" + as, "--clear-groups"};
  for (const auto& word : wrapper()) argv.push_back(word);
  argv.push_back(as.empty() ? TARNWICK_CHECK : checker_for_others());
  argv.push_back("--json");
  argv.insert(argv.end(), args.begin(), args.end());
  *status = spawn(argv, out, "/dev/null");
  json doc = json::parse(get(out), nullptr, false);
  fs::remove(out);
  if (doc.is_object()) {
    doc.erase("tree");
    doc.erase("update_from");
    doc.erase("tree_kind");
  }
  strip_inner(&doc, inner);
  return doc;
}

TEST(Release, EveryKindGivesTheDirectorysReport) {
  const std::string dir = make_root();
  chmod(dir.c_str(), 0755);
  // The update pair, and the README's forgotten stamp: a release that changes
  // sensors.conf and drops audio_effects.xml under the same version line.
  const std::string readme = dir + "/readme-new";
  sh("cp -a " + q(kSamples + "/device/vendor/etc/odm") + " " + q(readme));
  put(readme + "/odm_RK7DS/odm/etc/sensors.conf", get(readme + "/odm_RK7DS/odm/etc/sensors.conf") + "accel_rate=400\n");
  fs::remove(readme + "/odm_RK7DS/odm/etc/audio_effects.xml");
  const std::pair<std::string, std::string> pairs[] = {
      {kSamples + "/update/old", kSamples + "/update/new"}, {kSamples + "/device/vendor/etc/odm", readme}};
  for (size_t n = 0; n < std::size(pairs); ++n) {
    const auto& [old_tree, new_tree] = pairs[n];
    SCOPED_TRACE(new_tree);
    int status;
    const json expected = report({"--update-from", old_tree, new_tree}, &status);
    ASSERT_EQ(status, 1);
    for (const Kind& kind : kKinds) {
      SCOPED_TRACE(kind.name);
      if (skipped(kind.name)) continue;
      const std::string at = dir + "/" + std::to_string(n) + "-" + std::to_string(&kind - kKinds);
      const std::string old_release = make_input(kind.name, old_tree, at + "/old");
      const std::string new_release = make_input(kind.name, new_tree, at + "/new");
      EXPECT_EQ(report({"--update-from", old_release, new_release}, &status, "", kind.inner).dump(1),
                expected.dump(1));
      EXPECT_EQ(status, 1);
      // As an ordinary user, for each reader.
      if (root() && !emulated() && kind.name != "directory") {
        EXPECT_EQ(
            report({"--update-from", old_release, new_release}, &status, kUser, kind.inner).dump(1),
            expected.dump(1));
        EXPECT_EQ(status, 1);
      }
    }
  }
  remove_unpacked(dir.c_str());
}

// Releases whose directories nobody may write, as some images hold them: an
// ordinary user gets what root gets, however the releases part.
TEST(Release, ReadOnlyReleasesAsAnOrdinaryUser) {
  if (!root() || emulated()) GTEST_SKIP() << "needs root, to run as another user";
  const std::string dir = make_root();
  chmod(dir.c_str(), 0755);
  sh("cp -a " + q(kSamples + "/update/old") + " " + q(dir + "/old") + " && cp -a " +
     q(kSamples + "/update/new") + " " + q(dir + "/new") +
     // A directory of the old release's own, and one whose mode differs.
     " && mkdir -p " + q(dir + "/old/odm_KT1/odm/etc/extra") + " && echo x >" +
     q(dir + "/old/odm_KT1/odm/etc/extra/x.conf") + " && chmod -R a-w " + q(dir + "/old") + " " +
     q(dir + "/new") + " && chmod 0755 " + q(dir + "/old/odm_VX41/odm"));
  const std::vector<std::string> args = {"--rollback", "--update-from", dir + "/old", dir + "/new"};
  int status, user_status;
  const json expected = report(args, &status);
  ASSERT_TRUE(expected.is_object());
  EXPECT_EQ(report(args, &user_status, kUser).dump(1), expected.dump(1));
  EXPECT_EQ(user_status, status);
  sh("chmod -R u+w " + q(dir));
  remove_unpacked(dir.c_str());
}

// Each release in the field, given together with others, gets the answer it
// gets alone: the same course for every product text and setting, and the
// same findings, one for all the releases that share it.
TEST(Release, EachReleaseInTheFieldAsIfAlone) {
  const std::string dir = make_root();
  chmod(dir.c_str(), 0755);
  // A release in between, which dropped legacy.conf already; and the new one
  // itself, from which nothing changes.
  const std::string mid = dir + "/mid";
  sh("cp -a " + q(kSamples + "/update/old") + " " + q(mid));
  put(mid + "/odm_default/odm/odmver.txt", "REL.2026.1.1\n");
  fs::remove(mid + "/odm_KT2/odm/etc/legacy.conf");
  const std::vector<std::string> releases = {
      make_input(skipped("target-files package (ZIP)") ? "directory" : "target-files package (ZIP)",
                 kSamples + "/update/old", dir + "/old"),
      mid, kSamples + "/update/new"};
  const std::string tree = kSamples + "/update/new";
  int status;
  std::vector<std::string> args = {"--rollback"};
  for (const std::string& r : releases) args.insert(args.end(), {"--update-from", r});
  args.push_back(tree);
  const json all = report(args, &status);
  std::vector<json> alone;
  for (const std::string& r : releases) {
    alone.push_back(report({"--rollback", "--update-from", r, tree}, &status));
    EXPECT_EQ(alone.back()["settings"], all["settings"]);  // so the findings are compared too
  }
  expect_each_as_alone(all, alone, true);
  remove_unpacked(dir.c_str());
}

}  // namespace

namespace {

// Replaces the one |from| in file |path| by |to| of the same length: a name
// no tool would write into an image.
void patch(const std::string& path, const std::string& from, const std::string& to) {
  std::string data = get(path);
  const size_t at = data.find(from);
  ASSERT_NE(at, std::string::npos) << from;
  ASSERT_EQ(data.find(from, at + 1), std::string::npos) << from;
  data.replace(at, to.size(), to);
  std::ofstream(path, std::ios::binary | std::ios::trunc) << data;
}

TEST(Release, HostileInputsLeaveNothingOutside) {
  const std::string dir = make_root();
  const std::string planted = dir + "/planted", tree = kSamples + "/update/new";
  const std::string odm = "VENDOR/etc/odm/odm_KT1/odm/etc/";
  std::string up;
  for (int i = 0; i < 40; ++i) up += "../";
  struct Case {
    std::string name;
    std::function<void(const std::string& at, const std::string& given)> make;
    int status;  // -1: a report, 0 or 1
  };
  // A package of the sample tree with |extra| entries (name, mode, data).
  auto package = [&](std::vector<std::string> extra) {
    return [&, extra](const std::string& at, const std::string& given) {
      fs::create_directories(at + "/VENDOR/etc");
      sh("cp -a " + q(tree) + " " + q(at + "/VENDOR/etc/odm"));
      std::string args = q(at) + " " + q(given);
      for (const auto& word : extra) args += " " + q(word);
      zip(args);
    };
  };
  // An image of the sample tree with a link "zz" to the planted directory
  // beside a name "zzQ<c>" that becomes "zz/<c>".
  auto through_link = [&](const std::string& tool, const std::string& in, const std::string& name) {
    return [&, tool, in, name](const std::string& at, const std::string& given) {
      fs::create_directories(at + "/etc");
      sh("cp -a " + q(tree) + " " + q(at + "/etc/odm"));
      fs::create_symlink(planted, at + "/" + in + "zz");
      if (name.back() == '.') fs::create_directories(at + "/" + in + name);
      if (name.back() != '.') put(at + "/" + in + name, "x");
      // Without checksums, which would tell the patch from the name.
      sh(tool == "ext4"
             ? "mke2fs -q -t ext4 -O ^metadata_csum -d " + q(at) + " " + q(given) + " 16M"
             : "mkfs.erofs --quiet -Enosbcrc " + q(given) + " " + q(at));
      patch(given, name, "zz/" + name.substr(3));
    };
  };
  auto image_of = [&](const std::string& tool, size_t cut) {
    return [&, tool, cut](const std::string& at, const std::string& given) {
      fs::create_directories(at + "/etc");
      sh("cp -a " + q(tree) + " " + q(at + "/etc/odm"));
      sh(tool == "ext4" ? "mke2fs -q -t ext4 -d " + q(at) + " " + q(given) + " 16M"
                        : "mkfs.erofs --quiet " + q(given) + " " + q(at));
      if (cut != 0) fs::resize_file(given, cut);
    };
  };
  const Case cases[] = {
      {"entry climbing out with ../", package({odm + up + planted.substr(1) + "/x", "100644", "x"}),
       2},
      {"entry with an absolute name", package({planted + "/x", "100644", "x"}), 2},
      {"link entry, then an entry through it",
       package({odm + "l", "120777", planted, odm + "l/x", "100644", "x"}), 2},
      {"link entry pointing outside, kept",
       package({odm + "secret.conf", "120777", planted + "/secret"}), -1},
      {"ZIP bomb", package({odm + "zeros", "100644", "@104857600"}), 2},
      {"truncated ZIP",
       [&](const std::string& at, const std::string& given) {
         package({})(at, given);
         fs::resize_file(given, fs::file_size(given) / 2);
       },
       2},
      {"package without a tree",
       [&](const std::string&, const std::string& given) {
         zip("- " + q(given) + " META/misc_info.txt 100644 x VENDOR/build.prop 100644 x");
       },
       2},
      {"truncated ext4 image", image_of("ext4", 256 << 10), 2},
      {"truncated EROFS image", image_of("erofs", 4097), 2},
      {"truncated sparse image",
       [&](const std::string& at, const std::string& given) {
         image_of("ext4", 0)(at, given + ".raw");
         sh("img2simg " + q(given + ".raw") + " " + q(given));
         fs::resize_file(given, fs::file_size(given) - 4096);
       },
       2},
      {"sparse image whose data runs past its end",
       [&](const std::string&, const std::string& given) {
         // Chunk headers padded: the image written back is shorter than this one.
         const uint32_t header = 4012, block = 4096;
         auto le = [](uint64_t value, int bytes) {
           std::string out;
           for (int i = 0; i < bytes; ++i) out += static_cast<char>(value >> (8 * i));
           return out;
         };
         std::string image = le(0xed26ff3a, 4) + le(1, 2) + le(0, 2) + le(28, 2) + le(header, 2) +
                             le(block, 4) + le(4, 4) + le(2, 4) + le(0, 4);
         image +=
             le(0xcac3, 2) + le(0, 2) + le(1, 4) + le(header, 4) + std::string(header - 12, '\0');
         image += le(0xcac1, 2) + le(0, 2) + le(3, 4) + le(header + 3 * block, 4) +
                  std::string(header - 12, '\0');
         image.resize(12400);
         std::ofstream(given, std::ios::binary) << image;
       },
       2},
      {"image of another file system",
       [&](const std::string&, const std::string& given) {
         sh("mkfs.vfat -C " + q(given) + " 1024");
       },
       2},
      {"ext4 name through a link", through_link("ext4", "etc/odm/odm_KT1/odm/etc/", "zzQx"), 2},
      {"EROFS name through a link, made", through_link("erofs", "", "zzQx"), 2},
      {"EROFS name through a link, its mode set", through_link("erofs", "", "zzQ."), 2},
  };
  int status;
  const int tree_status = run({TARNWICK_CHECK, tree});
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    if (skipped(c.name)) continue;
    const std::string at = dir + "/" + std::to_string(&c - cases), tmp = at + ".tmp";
    const std::string given = at + ".release";
    fs::create_directories(tmp);
    fs::create_directories(planted);
    put(planted + "/keep", "secret bytes\n");
    put(planted + "/secret", "secret bytes\n");
    chmod(planted.c_str(), 0755);
    const auto before = entries(planted);
    c.make(at, given);
    std::vector<std::string> argv = {"env", "TMPDIR=" + tmp};
    for (const auto& word : wrapper()) argv.push_back(word);
    argv.insert(argv.end(), {TARNWICK_CHECK, given});
    status = spawn(argv, at + ".out", at + ".err");
    const std::string out = get(at + ".out"), err = get(at + ".err");
    if (c.status == -1) {
      EXPECT_EQ(status, tree_status) << err;
    } else {
      EXPECT_EQ(status, c.status) << out;
      EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
      EXPECT_NE(err.find(given), std::string::npos) << err;
    }
    EXPECT_EQ(out.find("secret bytes"), std::string::npos);
    EXPECT_EQ(entries(planted), before);
    EXPECT_TRUE(fs::is_empty(tmp));
    remove_unpacked(planted.c_str());
  }
  remove_unpacked(dir.c_str());
}

}  // namespace
