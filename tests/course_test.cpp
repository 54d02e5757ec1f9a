// tarnwick-check --update-from, --rollback and --installed against the program itself:
// random release pairs and installed trees, and every row of the checker's
// answer compared with the starts of one of its product texts and settings
// run by hand. A case that differs is printed as a shell script that rebuilds
// its trees. Usage: tarnwick_course_tests [--cases N] [--seed S] [gtest flags]
// (TARNWICK_COURSE_CASES=N in the environment sets the count too)
#include <gtest/gtest.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <random>
#include <set>

#include "tests/alone.h"
#include "tests/harness.h"

namespace fs = std::filesystem;
using nlohmann::json;
using Files = std::map<std::string, std::string>;  // path -> bytes, or "->" and a link target
using Props = std::map<std::string, std::string>;

#ifdef __SANITIZE_ADDRESS__
int cases = 16;  // the sanitizers make each case ten times slower
#else
int cases = 300;
#endif
unsigned seed = 1;

namespace {

struct Gen {
  std::mt19937 rng;
  size_t pick(size_t n) { return rng() % n; }
  bool chance(int percent) { return static_cast<int>(pick(100)) < percent; }
  std::string one(const std::vector<std::string>& texts) { return texts[pick(texts.size())]; }
};

const std::vector<std::string> kModels = {"A", "B", "C", "A_RU", "VX41"};
const std::vector<std::string> kAliases = {"p", "q", "r", "q_RU"};
const std::vector<std::string> kContents = {"v=1\n", "v=2\n", "v=1", "x\r\ny\n"};
const std::vector<std::string> kFiles = {"audio.conf", "sensors.conf", "manifest_p.xml", "manifest_BDS.xml",
                                         "manifest_A.xml", "odmconfig.xml"};
const char kHwconfig[] = "ro.vendor.hwconfig.completed";

// Models with aliases moved about, a block on a board property and one on
// the hardware configuration, each there or not.
std::string config(Gen& g) {
  std::string xml = "<odm_config>";
  for (const std::string& model : kModels) {
    xml += "<model name='" + model + "'>";
    for (const std::string& alias : kAliases) {
      if (g.chance(25)) xml += "<alias>" + alias + "</alias>";
    }
    xml += "</model>";
  }
  xml += "<setup_odm>";
  for (const std::string& block : {"ro.boot.hardware.sku' config_value='" + g.one({"x", "y"}),
                                   std::string(kHwconfig) + "' config_value='1"}) {
    if (g.chance(45)) {
      xml += "<prop_value config_name='" + block + "'><target name='" + g.one(kModels) + "'><alias>" +
             g.one(kAliases) + "</alias></target></prop_value>";
    }
  }
  return xml + "</setup_odm></odm_config>";
}

void add_tree(Gen& g, const std::string& model, Files* f) {
  const std::string etc = "odm_" + model + "/odm/etc/";
  if (g.chance(90)) (*f)[etc + "vintf/manifest.xml"] = "<manifest " + model + "/>\n";
  if (g.chance(85)) (*f)[etc + "permissions/unavailable_features.xml"] = "<permissions/>\n";
  for (const std::string& file : kFiles) {
    if (file == "odmconfig.xml" ? g.chance(10) : g.chance(35)) {
      (*f)[etc + file] = file == "odmconfig.xml" ? config(g) : g.one(kContents);
    }
  }
  if (g.chance(15)) (*f)[etc + "link.conf"] = "->audio.conf";
}

Files first_release(Gen& g) {
  // A stamp ending in an empty line makes every start provision.
  Files f = {{"odm_default/odm/odmver.txt", g.chance(4) ? "REL.1\n\n" : g.one({"REL.1\n", "OLD\nREL.1", "REL.1"})}};
  if (g.chance(75)) f["odm_default/odm/etc/odmconfig.xml"] = config(g);
  if (g.chance(30)) f["odm_" + g.one(kAliases) + "/odm/odmver.txt"] = "SKU.1\n";
  for (const std::string& model : kModels) {
    if (model == "VX41" || g.chance(70)) add_tree(g, model, &f);
  }
  return f;
}

// The next release: stamps bumped or not, each apart; files changed, added
// and dropped; trees and the default configuration added and dropped.
Files next_release(Gen& g, Files f) {
  for (auto it = f.begin(); it != f.end();) {
    std::string& bytes = it->second;
    if (fs::path(it->first).filename() == "odmver.txt") {
      if (g.chance(70)) bytes.back() == '\n' ? bytes.insert(bytes.size() - 1, "1") : bytes.append("1");
    } else if (it->first.find("/odm/etc/odmconfig.xml") != std::string::npos ? g.chance(40) : g.chance(12)) {
      bytes = fs::path(it->first).filename() == "odmconfig.xml" ? config(g) : g.one(kContents);
    } else if (g.chance(it->first.rfind("odm_default/", 0) == 0 ? 15 : 8)) {
      it = f.erase(it);
      continue;
    }
    ++it;
  }
  if (g.chance(25)) f["odm_default/odm/etc/odmconfig.xml"] = config(g);
  if (g.chance(15)) f["odm_" + g.one(kAliases) + "/odm/odmver.txt"] = "SKU.2\n";
  if (g.chance(20)) add_tree(g, g.one(kModels), &f);
  if (g.chance(10)) {
    const std::string gone = "odm_" + g.one(kModels) + "/";
    for (auto it = f.lower_bound(gone); it != f.end() && it->first.rfind(gone, 0) == 0;) it = f.erase(it);
  }
  return f;
}

void write(const std::string& dir, const Files& files) {
  for (const auto& [path, bytes] : files) {
    fs::create_directories(fs::path(dir + "/" + path).parent_path());
    if (bytes.rfind("->", 0) == 0) {
      fs::create_symlink(bytes.substr(2), dir + "/" + path);
    } else {
      put(dir + "/" + path, bytes);
    }
  }
}

// A shell script that rebuilds the case in |dir| (old/, new/, installed/) and
// runs the checker on it as |args| did.
std::string reproducer(const std::string& dir, const std::vector<std::string>& args) {
  std::string out = "mkdir case && cd case\n";
  for (const std::string sub : {"old", "new", "installed"}) {
    if (!fs::exists(dir + "/" + sub)) continue;
    out += "mkdir " + sub + "\n";
    for (const auto& entry : fs::recursive_directory_iterator(dir + "/" + sub)) {
      const std::string path = "'" + entry.path().lexically_relative(dir).string() + "'";
      if (entry.is_symlink()) {
        out += "ln -s '" + fs::read_symlink(entry.path()).string() + "' " + path + "\n";
      } else if (entry.is_directory()) {
        out += "mkdir -p " + path + "\n";
      } else {
        std::string text;
        for (unsigned char c : get(entry.path())) {
          char octal[8];
          snprintf(octal, sizeof(octal), "\\%03o", c);
          text += isprint(c) && c != '\'' && c != '\\' && c != '%' ? std::string(1, c) : octal;
        }
        out += "printf '" + text + "' >" + path + "\n";
      }
    }
  }
  out += "tarnwick-check";
  for (std::string arg : std::vector<std::string>(args.begin() + 1, args.end())) {
    if (arg.find(dir) != std::string::npos) arg.replace(arg.find(dir), dir.size(), ".");
    out += " '" + arg + "'";
  }
  return out + "\n";
}

// One device start over |root|, as tools/run-device makes it: the property
// store holds |props| and nothing else, the kernel log is emptied. Its log.
std::string start(const std::string& root, const Props& props) {
  fs::remove_all(root + "/dev/__properties__");
  fs::create_directories(root + "/dev/__properties__");
  for (const auto& [name, value] : props) put(root + "/dev/__properties__/" + name, value);
  put(root + "/dev/kmsg", "");
  std::vector<std::string> argv = wrapper();
  argv.push_back(TARNWICK_PROGRAM);
  std::vector<char*> args;
  for (auto& arg : argv) args.push_back(arg.data());
  args.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 2, (root + ".log").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  setenv("TARNWICK_ROOT", root.c_str(), 1);
  pid_t pid;
  int status = -1;
  if (posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ) == 0) waitpid(pid, &status, 0);
  posix_spawn_file_actions_destroy(&actions);
  unsetenv("TARNWICK_ROOT");
  EXPECT_EQ(status, 0) << root;
  return get(root + ".log");
}

// A device as its starts leave it.
struct Device {
  std::map<std::string, std::string> etc;  // /odm/etc: entry -> mode and bytes, or link target
  std::string line, published, model;
  bool provisions = false;
};

// The /odm/etc of the /odm |odm| (a host directory).
std::map<std::string, std::string> etc_of(const std::string& odm) {
  std::map<std::string, std::string> etc;
  if (!fs::is_directory(fs::symlink_status(odm + "/etc"))) return etc;
  for (const auto& [path, what] : snapshot(odm + "/etc")) {
    etc[fs::path(path).lexically_relative(odm + "/etc")] = fs::is_directory(fs::symlink_status(path)) ? "dir" : what;
  }
  return etc;
}

// The version line of a stamp holding |bytes|: its last line.
std::string last_line(std::string bytes) {
  if (bytes == "<missing>") return "";
  if (!bytes.empty() && bytes.back() == '\n') bytes.pop_back();
  return bytes.substr(bytes.rfind('\n') + 1);
}

// Starts of |root| until one asks for no restart; |model| is where its files
// came from before.
Device settle(const std::string& root, const Props& props, const std::string& model) {
  Device d{{}, "", "", model, false};
  for (int k = 0; k < 4; ++k) {
    const std::string log = start(root, props);
    if (k == 0) d.provisions = prop(root, "ro.vendor.odm.version") == "<unset>";
    const size_t at = log.rfind("] model name is /vendor/etc/odm/odm_");
    if (at != std::string::npos) d.model = log.substr(at + 36, log.find("/odm/etc/vintf/manifest.xml", at) - at - 36);
    if (prop(root, "sys.powerctl").rfind("reboot", 0) != 0) break;
  }
  d.etc = etc_of(root + "/odm");
  d.line = last_line(get(root + "/odm/odmver.txt"));
  for (const auto& entry : fs::directory_iterator(root + "/dev/__properties__")) {
    const std::string name = entry.path().filename(), value = get(entry.path());
    if (props.count(name) == 0 || props.at(name) != value) d.published += name + "=" + value + "\n";
  }
  return d;
}

// The entries only |to| has, those both have but differ in, those only |from| has.
json diff(const std::map<std::string, std::string>& from, const std::map<std::string, std::string>& to) {
  json d = {json::array(), json::array(), json::array()};
  for (const auto& [path, what] : to) {
    if (from.count(path) == 0 || from.at(path) != what) d[from.count(path) == 0 ? 0 : 1].push_back(path);
  }
  for (const auto& entry : from) {
    if (to.count(entry.first) == 0) d[2].push_back(entry.first);
  }
  return d;
}

// A course's member as the checker writes it, from the devices by hand:
// |after| against |other|, a new device or one that never left the old release.
json course(const Device& before, const Device& after, const Device& other,
            const char* against = "against_new_device") {
  const json change = diff(before.etc, after.etc), unlike = diff(after.etc, other.etc);
  return {{"provisions", after.provisions}, {"adds", change[0]}, {"changes", change[1]},
          {"removes", change[2]}, {"version_line_before", before.line}, {"version_line_after", after.line},
          {against, {{"lacks", unlike[0]}, {"differs", unlike[1]}, {"keeps", unlike[2]},
                     {"properties_differ", after.published != other.published}}}};
}

std::string stamp_of(const std::string& tree, const std::string& product) {
  const std::string sku = "odm_" + product + "/odm/odmver.txt";
  return fs::exists(tree + "/" + sku) ? sku : "odm_default/odm/odmver.txt";
}

// A device root over the release |tree|, its /odm empty.
std::string lay_out(const std::string& root, const std::string& tree) {
  fs::remove_all(root);
  fs::create_directories(root + "/vendor/etc");
  fs::copy(tree, root + "/vendor/etc/odm", fs::copy_options::recursive | fs::copy_options::copy_symlinks);
  return root;
}

// Gives the device |root| the /odm |odm| (a host directory, moved), or an empty one.
void give_odm(const std::string& root, const std::string& odm = "") {
  fs::remove_all(root + "/odm");
  if (odm.empty()) {
    fs::create_directories(root + "/odm");
  } else {
    fs::rename(odm, root + "/odm");
  }
}

const std::set<std::string> kCourseCodes = {"stamp-not-bumped", "left-behind", "restart-without-change",
                                            "model-changed", "drift", "rollback-keeps"};

// A random case in |dir|: releases in old/ and new/, in most an installed
// /odm in installed/ that a device of the old release drifted to; the
// checker's command line.
std::vector<std::string> make_case(Gen& g, const std::string& dir) {
  const Files old_files = first_release(g);
  write(dir + "/old", old_files);
  write(dir + "/new", next_release(g, old_files));
  const bool update = g.chance(85);
  std::vector<std::string> args = {TARNWICK_CHECK, "--json"};
  if (update) args.push_back("--update-from=" + dir + "/old");
  if (update && g.chance(50)) args.push_back("--rollback");
  for (int i = 0, n = g.chance(70) ? 2 + g.pick(3) : 0; i < n; ++i) {
    args.push_back("--product=" + g.one({"p", "q", "r", "q_RU", "A", "B_RU", "C", "VX41", ""}));
  }
  if (g.chance(60) || !update) {
    const std::string root = lay_out(dir + "/drifted", dir + "/old"), installed = dir + "/installed";
    give_odm(root);
    settle(root, {{"ro.vendor.product", g.one(kAliases)}}, "");
    fs::rename(root + "/odm", installed);
    fs::remove_all(root);
    Files drift;
    if (g.chance(30)) drift["etc/" + g.one(kFiles)] = g.one(kContents);
    if (g.chance(15)) drift["etc/vintf/manifest_p.xml"] = "<manifest/>\n";
    if (g.chance(30)) drift["fbe.ini"] = g.one({"file\n", "mode=file", "block\n", "file\nblock\n"});
    if (g.chance(25)) drift["odmver.txt"] = "OLD\n" + get(installed + "/odmver.txt") + "\n";
    if (g.chance(15)) drift["etc/odmconfig.xml"] = config(g);
    // A link no tree installs over: one to a file a tree installs too would
    // make the outcome hang on the order the tree's directory lists them in.
    if (g.chance(10)) drift["etc/audio.conf"] = "->x.conf";
    if (g.chance(15)) fs::remove(installed + "/etc/" + g.one(kFiles));
    if (g.chance(10)) fs::remove(installed + "/odmver.txt");
    for (const auto& entry : drift) fs::remove(installed + "/" + entry.first);
    write(installed, drift);
    if (g.chance(10) && fs::exists(installed + "/etc/vintf/manifest.xml")) {
      fs::permissions(installed + "/etc/vintf/manifest.xml", fs::perms::owner_read);
    }
    args.push_back("--installed=" + installed);
  }
  args.push_back(dir + "/new");
  return args;
}

// Where a comparison's devices are: the releases (|old_tree| empty without
// --update-from), the installed /odm (empty without --installed), and the
// device roots.
struct Roots {
  std::string old_tree, tree, installed, old_root, root, fresh_root, copy;
  bool rollback = false;
};

// Puts |tree| in the place of the release of device |root|, its /odm kept.
void swap_release(const std::string& root, const std::string& tree) {
  fs::rename(root + "/odm", root + ".odm");
  lay_out(root, tree);
  give_odm(root, root + ".odm");
}

// The findings a course implies: code, and subject (the files of left-behind
// as a JSON list).
using Implied = std::set<std::pair<std::string, std::string>>;

// |row| of |doc| against the devices of |product| under setting |s| started
// by hand; the findings they imply go into |implied|. Returns how far the
// installed /odm then is from the new device.
size_t check_pair(const Roots& r, const json& doc, const json& row, const std::string& product, size_t s,
                  Implied* implied) {
  Props props = {{"ro.vendor.product", product}};
  for (const auto& [name, value] : doc["settings"][s].items()) {
    if (!value.is_null()) props[name] = value;
  }
  SCOPED_TRACE("row " + row.dump() + "\nstarted as: " + json(props).dump());
  give_odm(r.fresh_root);
  const Device fresh = settle(r.fresh_root, props, "");
  if (!r.old_tree.empty()) {
    give_odm(r.old_root);
    const Device old = settle(r.old_root, props, "");
    give_odm(r.root, r.old_root + "/odm");
    const Device updated = settle(r.root, props, old.model);
    json member = course(old, updated, fresh);
    member["release"] = 0;
    member["model_before"] = old.model;
    member["model_after"] = updated.model;
    member["stamp_before"] = stamp_of(r.old_tree, product);
    EXPECT_EQ(row["update"], json::array({member}));
    const json& unlike = member["against_new_device"];
    const std::string stamp = stamp_of(r.tree, product);
    if (!updated.provisions && unlike["lacks"].size() + unlike["differs"].size() + unlike["keeps"].size() > 0) {
      implied->insert({"stamp-not-bumped", stamp});
    }
    if (!unlike["keeps"].empty()) implied->insert({"left-behind", unlike["keeps"].dump()});
    if (updated.provisions && member["adds"].empty() && member["changes"].empty() && member["removes"].empty()) {
      implied->insert({"restart-without-change", stamp});
    }
    if (old.model != updated.model) {
      implied->insert({"model-changed", "odm_" + old.model + " > odm_" + updated.model});
    }
    if (r.rollback) {
      // The old release's slot back, against a device that never left it.
      swap_release(r.root, r.old_tree);
      const Device rolled = settle(r.root, props, updated.model);
      json back = course(updated, rolled, old, "against_old_device");
      back["release"] = 0;
      back["model_before"] = updated.model;
      back["model_after"] = rolled.model;
      back["model_of_old_device"] = old.model;
      EXPECT_EQ(row["rollback"], json::array({back}));
      const json& against = back["against_old_device"];
      std::vector<std::string> kept = against["keeps"];
      kept.insert(kept.end(), against["differs"].begin(), against["differs"].end());
      std::sort(kept.begin(), kept.end());
      if (!kept.empty() || !against["lacks"].empty() || rolled.model != old.model) {
        implied->insert({"rollback-keeps", kept.empty() ? "odm_" + old.model : json(kept).dump()});
      }
      swap_release(r.root, r.tree);
    }
  }
  if (r.installed.empty()) return 0;
  fs::remove_all(r.copy);
  fs::copy(r.installed, r.copy, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
  give_odm(r.root, r.copy);
  const Device later = settle(r.root, props, "");
  const Device before{etc_of(r.installed), last_line(get(r.installed + "/odmver.txt")), "", "", false};
  json member = course(before, later, fresh);
  member["judged"] = row["installed"]["judged"];
  EXPECT_EQ(row["installed"], member);
  EXPECT_EQ(row["next_start_provisions"], later.provisions);
  const json& against = member["against_new_device"];
  if (row["installed"]["judged"]) {
    if (against["lacks"].size() + against["differs"].size() > 0) implied->insert({"drift", r.installed});
    if (!against["keeps"].empty()) implied->insert({"left-behind", against["keeps"].dump()});
  }
  return against["lacks"].size() + against["differs"].size() + against["keeps"].size();
}

// The checker's answer to |args| over the releases and installed /odm of
// |r|: every row against the starts by hand of one of its product texts and
// settings drawn by |g|, or of each when |g| is null.
void compare(Gen* g, const std::vector<std::string>& args, const Roots& r) {
  std::vector<std::string> argv = wrapper();
  argv.insert(argv.end(), args.begin(), args.end());
  const int status = spawn(argv, r.copy + ".out", r.copy + ".err");
  const json doc = json::parse(get(r.copy + ".out"), nullptr, false);
  if (doc.is_discarded() || status > 1) {
    ADD_FAILURE() << "the checker exited with status " << status << ", saying " << get(r.copy + ".err");
    return;
  }
  if (!r.old_tree.empty()) lay_out(r.old_root, r.old_tree);
  lay_out(r.root, r.tree);
  lay_out(r.fresh_root, r.tree);
  Implied implied, found;
  std::vector<size_t> closeness;
  for (const json& row : doc["rows"]) {
    std::vector<std::pair<std::string, size_t>> pairs;
    for (const std::string product : row["products"]) {
      for (size_t s : row["settings"]) pairs.emplace_back(product, s);
    }
    if (g != nullptr) pairs = {pairs[g->pick(pairs.size())]};
    for (const auto& [product, s] : pairs) {
      const size_t distance = check_pair(r, doc, row, product, s, &implied);
      if (product == pairs[0].first && s == pairs[0].second) closeness.push_back(distance);
    }
  }
  // The installed /odm is judged as a device of the rows it is closest to.
  for (size_t i = 0; !r.installed.empty() && i < closeness.size(); ++i) {
    EXPECT_EQ(doc["rows"][i]["installed"]["judged"],
              closeness[i] == *std::min_element(closeness.begin(), closeness.end())) << i;
  }
  for (const json& f : doc["findings"]) {
    if (kCourseCodes.count(f["code"]) == 0) continue;
    std::string subject = f["subject"];
    if (f["code"] == "left-behind" || (f["code"] == "rollback-keeps" && subject.rfind("odm_", 0) != 0)) {
      json files = json::array();
      for (size_t at = 0, end; at <= subject.size(); at = end + 2) {
        end = std::min(subject.find(", ", at), subject.size());
        files.push_back(subject.substr(at, end - at));
      }
      subject = files.dump();
    }
    found.insert({f["code"], subject});
  }
  EXPECT_EQ(found, implied);
}

Roots roots(const std::string& dir, const std::string& old_tree, const std::string& tree,
            const std::string& installed, bool rollback = false) {
  return {old_tree, tree, installed, dir + "/old-device", dir + "/device", dir + "/fresh", dir + "/copy", rollback};
}

class Courses : public testing::TestWithParam<int> {};

TEST_P(Courses, EveryRowAsStartedByHand) {
  const std::string dir = make_root();
  for (int i = GetParam(); i < cases; i += 2) {
    const unsigned number = seed + i;
    fs::remove_all(dir);
    fs::create_directories(dir);
    Gen g{std::mt19937(number)};
    const std::vector<std::string> args = make_case(g, dir);
    const bool update = args[2].rfind("--update-from", 0) == 0;
    const bool installed = args[args.size() - 2].rfind("--installed", 0) == 0;
    const bool rollback = std::find(args.begin(), args.end(), "--rollback") != args.end();
    compare(&g, args,
            roots(dir, update ? dir + "/old" : "", dir + "/new", installed ? dir + "/installed" : "", rollback));
    if (HasFailure()) {
      ADD_FAILURE() << "case " << number << " (--seed " << number << " --cases 1) differs; it is\n"
                    << reproducer(dir, args);
      break;
    }
  }
  remove_root(dir);
}

INSTANTIATE_TEST_SUITE_P(Halves, Courses, testing::Values(0, 1));

// The samples, every product text under every setting: the update pair; the
// sample device's release against one that forgot its stamp, with a device
// of it as the installed /odm; and two products whose devices start and end
// alike but for the stale manifest that the new run of one of them removes
// ("kite" loses its alias, so its run removes manifest_kite.xml).
TEST(Courses, SamplesAsStartedByHand) {
  const std::string dir = make_root(), samples = EXAMPLES_DIR;
  compare(nullptr,
          {TARNWICK_CHECK, "--json", "--rollback", "--update-from", samples + "/update/old", samples + "/update/new"},
          roots(dir, samples + "/update/old", samples + "/update/new", "", true));

  const std::string device = samples + "/device/vendor/etc/odm", tree = dir + "/forgot";
  fs::copy(device, tree, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
  put(tree + "/odm_RK7DS/odm/etc/sensors.conf", "accel_rate=400\n");
  fs::remove(tree + "/odm_RK7DS/odm/etc/audio_effects.xml");
  const std::string root = lay_out(dir + "/sample", device);
  give_odm(root);
  settle(root, {{"ro.vendor.product", "rook"}, {"ro.boot.hardware.sku", "dual"}}, "");
  compare(nullptr, {TARNWICK_CHECK, "--json", "--update-from", device, "--installed", root + "/odm", tree},
          roots(dir, device, tree, root + "/odm"));

  const std::string manifest = "/odm/etc/vintf/manifest.xml";
  for (const std::string release : {"/old", "/new"}) {
    put(dir + release + "/odm_default/odm/odmver.txt", release);
    put(dir + release + "/odm_VX41" + manifest, "<manifest/>\n");
  }
  put(dir + "/old/odm_default/odm/etc/odmconfig.xml", "<c><model name='KT1'><alias>kite</alias></model><setup_odm/></c>");
  put(dir + "/new/odm_default/odm/etc/odmconfig.xml", "<c><setup_odm/></c>");
  put(dir + "/old/odm_KT1" + manifest, "<manifest/>\n");
  put(dir + "/old/odm_KT1/odm/etc/manifest_kite.xml", "<manifest/>\n");
  compare(nullptr, {TARNWICK_CHECK, "--json", "--update-from", dir + "/old", dir + "/new"},
          roots(dir, dir + "/old", dir + "/new", ""));

  // The new release's tree of one model holds what the old release's tree of
  // another held: their devices still get each their own.
  const std::string both = "<c><model name='A'><alias>a</alias></model><model name='C'><alias>c</alias></model><setup_odm/></c>";
  for (const std::string release : {"/old2", "/new2"}) {
    put(dir + release + "/odm_default/odm/odmver.txt", release);
    put(dir + release + "/odm_default/odm/etc/odmconfig.xml", both);
    put(dir + release + "/odm_A" + manifest, "<manifest/>\n");
  }
  put(dir + "/old2/odm_A/odm/etc/x.conf", "one\n");
  put(dir + "/new2/odm_A/odm/etc/x.conf", "two\n");
  put(dir + "/new2/odm_C" + manifest, "<manifest/>\n");
  put(dir + "/new2/odm_C/odm/etc/x.conf", "one\n");
  compare(nullptr, {TARNWICK_CHECK, "--json", "--rollback", "--update-from", dir + "/old2", dir + "/new2"},
          roots(dir, dir + "/old2", dir + "/new2", "", true));
  remove_root(dir);
}

// Several releases in the field at once, each a step after the one before
// (and at times the new one itself): each gets what it gets alone, though
// their devices share starts wherever they read alike.
TEST(Courses, SeveralReleasesAsEachAlone) {
  const std::string dir = make_root();
  const auto checked = [&](std::vector<std::string> args) {
    std::vector<std::string> argv = wrapper();
    argv.insert(argv.end(), {TARNWICK_CHECK, "--json"});
    argv.insert(argv.end(), args.begin(), args.end());
    spawn(argv, dir + ".out", dir + ".err");
    return json::parse(get(dir + ".out"), nullptr, false);
  };
  for (int i = 0; i < std::max(2, cases / 10); ++i) {
    const unsigned number = seed + i;
    fs::remove_all(dir);
    Gen g{std::mt19937(number)};
    std::vector<std::string> releases;
    Files files = first_release(g);
    for (int k = 0; k < 3; ++k) {
      releases.push_back(dir + "/r" + std::to_string(k));
      write(releases.back(), files);
      files = next_release(g, files);
    }
    write(dir + "/new", files);
    if (g.chance(30)) releases.push_back(dir + "/new");
    std::vector<std::string> args;
    if (g.chance(50)) args.push_back("--rollback");
    for (int n = g.chance(50) ? 2 + g.pick(3) : 0; n > 0; --n) {
      args.push_back("--product=" + g.one({"p", "q", "r", "q_RU", "A", "B_RU", "C", "VX41", ""}));
    }
    std::vector<json> alone;
    for (const std::string& r : releases) {
      std::vector<std::string> one = args;
      one.insert(one.end(), {"--update-from", r, dir + "/new"});
      alone.push_back(checked(one));
    }
    for (const std::string& r : releases) args.insert(args.end(), {"--update-from", r});
    args.push_back(dir + "/new");
    expect_each_as_alone(checked(args), alone, false);
    if (HasFailure()) {
      ADD_FAILURE() << "case " << number << " (--seed " << number << ") differs";
      break;
    }
  }
  remove_root(dir);
  fs::remove(dir + ".out");
  fs::remove(dir + ".err");
}

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  // TARNWICK_COURSE_CASES: the count for runs that need only a few.
  if (const char* few = getenv("TARNWICK_COURSE_CASES")) cases = std::stoi(few);
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string flag = argv[i];
    if (flag == "--cases") cases = std::stoi(argv[i + 1]);
    if (flag == "--seed") seed = std::stoul(argv[i + 1]);
  }
  return RUN_ALL_TESTS();
}
