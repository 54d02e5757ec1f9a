// Devices over several starts: one that takes the tree after running the old
// release (--update-from), one that takes it with the installed /odm
// (--installed), and one fresh from the factory. The program runs every
// start; what is compared is what it leaves in /odm and what it publishes.
#include <dirent.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "check/check.h"
#include "check/host_io.h"
#include "tarnwick/fileutil/fileutil.h"
#include "tarnwick/paths.h"
#include "tarnwick/platform/host_cutils.h"
#include "tarnwick/provision/provision.h"

namespace fs = std::filesystem;

namespace {

// Host directory of the saved /odm trees, each under its number.
const char kSaved[] = "/tarnwick-check/saved/";
// A device that still asks for a restart after this many starts never settles.
const int kMaxStarts = 4;
// How deep links to directories are followed in a tree.
const int kMaxDepth = 8;

// A device's /odm: each entry, relative to /odm, and what it is (type, mode,
// contents or link target). A directory's mode is left out: an installed
// /odm's come from wherever it was copied, and the program only makes
// directories that are missing.
using OdmState = std::map<std::string, std::string>;

struct Device {
  OdmState odm;
  std::string properties;  // what its last start published, name=value lines
  std::string saved;       // host directory holding a copy of its /odm
  std::string stamp;       // the bytes of its /odm/odmver.txt
  bool provisions = false;
};

// The bytes of host file |path| in the device root as a start reads them:
// links resolved inside the root, a FIFO found empty; at most 1 MiB.
std::string bytes_of(const std::string& path) {
  const std::string root = host("");
  const std::string device = path.rfind(root + "/", 0) == 0 ? path.substr(root.size()) : path;
  std::string bytes;
  if (UniqueFile file = open_file(device, "r")) {
    char buf[65536];
    for (size_t n; bytes.size() < (1 << 20) && (n = fread(buf, 1, sizeof(buf), file.get())) > 0;) {
      bytes.append(buf, n);
    }
  }
  return bytes;
}

// Adds to |out| what a start can read of the device directory |dir|: every
// entry below it with its type as a listing gives it, its mode, its link
// target and the bytes a read gives; directories behind links too.
void fingerprint(const std::string& dir, int depth, std::string* out) {
  std::unique_ptr<DIR, int (*)(DIR*)> listing(device_opendir(dir.c_str()), closedir);
  if (!listing) return;
  std::vector<std::string> names;
  while (const dirent* entry = readdir(listing.get())) {
    if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) names.push_back(entry->d_name);
  }
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    const std::string path = dir + "/" + name;
    struct stat st {};
    fstatat(dirfd(listing.get()), name.c_str(), &st, AT_SYMLINK_NOFOLLOW);
    char target[PATH_MAX] = {};
    if (S_ISLNK(st.st_mode)) readlinkat(dirfd(listing.get()), name.c_str(), target, sizeof(target) - 1);
    *out += name + '\0' + std::to_string(st.st_mode) + '\0' + target + '\0';
    if (is_directory(path)) {
      if (depth > 0) fingerprint(path, depth - 1, out);
    } else if (UniqueFile file = open_file(path, "r")) {
      *out += digest_of(fileno(file.get()));
    }
    *out += '\n';
  }
}

// Numbers equal texts alike, so that keys stay short.
size_t intern(std::map<std::string, size_t>* numbers, const std::string& text) {
  return numbers->emplace(text, numbers->size()).first->second;
}

// The host tree |dir|, entry by entry.
OdmState read_state(const std::string& dir) {
  OdmState state;
  std::error_code ec;
  for (auto it = fs::recursive_directory_iterator(dir, ec); it != fs::recursive_directory_iterator();
       it.increment(ec)) {
    const fs::path& path = it->path();
    const fs::file_status status = it->symlink_status();
    const bool directory = status.type() == fs::file_type::directory;
    std::string what = std::to_string(static_cast<int>(status.type())) + " " +
                       (directory ? "" : std::to_string(static_cast<int>(status.permissions()))) + " ";
    if (status.type() == fs::file_type::symlink) {
      what += fs::read_symlink(path, ec).string();
    } else if (status.type() == fs::file_type::regular) {
      const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
      what += fd < 0 ? std::string("unreadable") : digest_of(fd);
      if (fd >= 0) close(fd);
    }
    state[path.lexically_relative(dir).string()] = what;
  }
  return state;
}

// What the last start published: the property store, one name=value line per
// property, but for the properties it began with (|boot|).
std::string published(const std::map<std::string, std::string>& boot) {
  std::map<std::string, std::string> store;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(host(tarnwick_host::kPropertyDir), ec)) {
    store[entry.path().filename()] = bytes_of(entry.path());
  }
  std::string text;
  for (const auto& [name, value] : store) {
    const auto it = boot.find(name);
    if (it == boot.end() || it->second != value) text += name + "=" + value + "\n";
  }
  return text;
}

// Starts with |setting| and |product| until one asks for no restart; the
// device's /odm then, saved under |number|. False when a start could not run.
bool settle(const Options& options, const Setting& setting, const std::string& product,
            size_t number, Device* device) {
  for (int start = 0; start < kMaxStarts; ++start) {
    if (!start_program(options, setting, product)) return false;
    if (start == 0) device->provisions = !stamps_were_equal();
    if (!restart_requested()) break;
  }
  device->odm = read_state(host("/odm"));
  device->stamp = bytes_of(host(kInstalledStampPath));
  device->properties = published(boot_properties(options, setting, product));
  device->saved = host(kSaved + std::to_string(number));
  save_odm(device->saved);
  return true;
}

// What it takes to go from |from| to |to|, within /odm/etc.
OdmDiff diff(const OdmState& from, const OdmState& to) {
  const std::string etc = "etc/";
  OdmDiff d;
  for (const auto& [path, what] : to) {
    if (path.rfind(etc, 0) != 0) continue;
    const auto it = from.find(path);
    if (it == from.end()) {
      d.added.push_back(path.substr(etc.size()));
    } else if (it->second != what) {
      d.changed.push_back(path.substr(etc.size()));
    }
  }
  for (const auto& [path, what] : from) {
    if (path.rfind(etc, 0) == 0 && to.count(path) == 0) d.removed.push_back(path.substr(etc.size()));
  }
  return d;
}

// The course of a device that held |before| and settled as |after|, against
// the factory device |fresh|.
Course course(const Device& before, const Device& after, const Device& fresh) {
  Course c;
  c.provisions = after.provisions;
  c.change = diff(before.odm, after.odm);
  c.from_factory = diff(after.odm, fresh.odm);
  c.properties_differ = after.properties != fresh.properties;
  c.line_before = before.stamp;
  c.line_after = after.stamp;
  return c;
}

// The stale manifests a provisioning run with |preliminary| would find in |state|.
std::string stale_hits(const std::string& preliminary, const OdmState& state) {
  std::string hits;
  for (const std::string& path : stale_manifest_paths(preliminary)) {
    const std::string name = fs::path(path).relative_path().lexically_relative("odm");
    if (state.count(name) != 0) hits += name + '\0';
  }
  return hits;
}

// The fingerprints of one release's trees, numbered.
struct Sides {
  std::map<std::string, size_t> numbers;   // interned texts
  std::map<std::string, size_t> tree_keys;  // final model -> number of its fingerprint
};

// What sets a device of the release at /vendor/etc/odm apart: what the final
// tree |model| reads as, and the bytes of the source stamp |stamp|. Model
// names themselves make no difference to what a start leaves in /odm/etc but
// through the stale manifests it removes, which the caller adds.
std::string side_key(Sides* sides, const std::string& model, const std::string& stamp) {
  auto it = sides->tree_keys.find(model);
  if (it == sides->tree_keys.end()) {
    std::string print;
    fingerprint(kModelTreePrefix + model + "/odm/etc", kMaxDepth, &print);
    it = sides->tree_keys.emplace(model, intern(&sides->numbers, print)).first;
  }
  std::string bytes = "<none>";
  if (UniqueFile file = open_file(stamp, "r")) {
    std::ostringstream text;
    for (int c; (c = getc(file.get())) != EOF;) text.put(static_cast<char>(c));
    bytes = "=" + text.str();
  }
  return std::to_string(it->second) + ":" + std::to_string(intern(&sides->numbers, bytes));
}

std::vector<std::string> all(const OdmDiff& d) {
  std::vector<std::string> files = d.added;
  files.insert(files.end(), d.changed.begin(), d.changed.end());
  files.insert(files.end(), d.removed.begin(), d.removed.end());
  std::sort(files.begin(), files.end());
  return files;
}

// |files| with a word on each that the platform reads by name at boot.
std::string read_at_boot(const std::vector<std::string>& files) {
  std::vector<std::string> named;
  for (const std::string& file : files) {
    const std::string name = fs::path(file).filename();
    const std::string dir = fs::path(file).parent_path();
    if (name.rfind("manifest_", 0) == 0 && fs::path(name).extension() == ".xml" &&
        (dir.empty() || dir == "vintf")) {
      named.push_back(file + " (the manifest loader prefers it to manifest.xml when "
                      "ro.boot.product.hardware.sku=" + fs::path(name).stem().string().substr(9) + ")");
    } else if (dir == "permissions" && fs::path(name).extension() == ".xml") {
      named.push_back(file);
    }
  }
  return named.empty() ? "" : "; the platform reads by name at boot: " + comma_list(named);
}

// One finding per distinct subject and message, the product texts and the
// trees (which stand for "{trees}" in the message) of its rows gathered.
struct Gathered {
  struct Rows { std::vector<std::string> products, trees; };
  std::map<std::tuple<std::string, bool, std::string, std::string>, Rows> findings;
  void add(const std::string& code, bool error, const std::string& subject,
           const std::string& message, const Row& row) {
    Rows& rows = findings[{code, error, subject, message}];
    rows.products.insert(rows.products.end(), row.products.begin(), row.products.end());
    rows.trees.push_back("odm_" + row.final_model);
  }
};

std::vector<std::string> unique(std::vector<std::string> texts) {
  std::sort(texts.begin(), texts.end());
  texts.erase(std::unique(texts.begin(), texts.end()), texts.end());
  return texts;
}

// The findings of the update courses.
void judge_update(const Row& row, Gathered* out) {
  const Course& c = *row.update;
  if (!c.provisions && !c.from_factory.empty()) {
    out->add("stamp-not-bumped", true, in_tree(row.stamp),
             "keeps the version line " + shown(c.line_after) + " while the files of {trees} change (" +
                 comma_list(all(c.from_factory)) + "): their devices keep the old ones",
             row);
  }
  if (!c.from_factory.removed.empty()) {
    out->add("left-behind", false, comma_list(c.from_factory.removed),
             "devices of {trees} updated from the old release keep it, and new devices lack it" +
                 read_at_boot(c.from_factory.removed),
             row);
  }
  if (c.provisions && c.change.empty() && c.from_factory.empty()) {
    out->add("restart-without-change", false, in_tree(row.stamp),
             "changes the version line from " + shown(c.line_before) + " to " + shown(c.line_after) +
                 ", but nothing in /odm/etc changes for {trees}: each of their devices restarts "
                 "once for nothing",
             row);
  }
  if (row.old_final != row.final_model) {
    out->add("model-changed", false, "odm_" + row.old_final + " > odm_" + row.final_model,
             "the update moves these devices to another tree", row);
  }
}

// The findings of the installed /odm's courses.
void judge_installed(const Options& options, const Row& row, Gathered* out) {
  const Course& c = *row.installed;
  std::vector<std::string> drifted = c.from_factory.added;
  drifted.insert(drifted.end(), c.from_factory.changed.begin(), c.from_factory.changed.end());
  std::sort(drifted.begin(), drifted.end());
  if (!drifted.empty()) {
    out->add("drift", true, options.installed,
             "differs from what {trees} installs in " + comma_list(drifted) +
                 ", under the installed stamp " + shown(c.line_after) + ": no start mends it",
             row);
  }
  if (!c.from_factory.removed.empty()) {
    out->add("left-behind", false, comma_list(c.from_factory.removed),
             "stays in " + options.installed + " after its starts, and new devices of {trees} lack it" +
                 read_at_boot(c.from_factory.removed),
             row);
  }
}

const char* advice(const std::string& code, const std::string& subject) {
  if (code == "stamp-not-bumped") {
    return subject.rfind("odm_default/", 0) == 0
               ? "raise the last line of odm_default/odm/odmver.txt"
               : "raise the last line of this stamp: these products read it, and a new line in "
                 "odm_default/odm/odmver.txt does not reach them";
  }
  if (code == "left-behind") {
    return "no start removes it: keep it in the tree (empty, if it must say nothing), or reflash /odm";
  }
  if (code == "restart-without-change") return "keep the version line while nothing changes";
  if (code == "drift") return "reflash /odm, or raise the version line so that the devices provision again";
  return "make sure these devices are to get the other tree";
}

// Devices of the release at /vendor/etc/odm fresh from the factory, one for
// each distinct key of the rows' final trees (|old|: of their old ones, the
// old release being in place); |keys| gets each row's. False when a start
// could not run.
bool fresh_devices(const Options& options, const Report& report, bool old,
                   std::vector<std::string>* keys, std::map<std::string, Device>* devices,
                   size_t* saved) {
  Sides sides;
  for (const Row& row : report.rows) {
    keys->push_back(old ? side_key(&sides, row.old_final, row.old_stamp)
                        : side_key(&sides, row.final_model, row.stamp));
    if (devices->count(keys->back()) != 0) continue;
    prepare_odm(options, false);
    if (!settle(options, report.settings[row.settings[0]], row.products[0], (*saved)++,
                &(*devices)[keys->back()])) {
      return false;
    }
  }
  return true;
}

}  // namespace

bool examine_courses(const Options& options, Report* report) {
  const bool update = !options.update_from.empty(), installed = !options.installed.empty();
  if (!update && !installed) return true;
  std::map<std::string, Device> old_factory, new_factory, updated, from_installed;
  std::vector<std::string> old_keys, new_keys;  // per row
  size_t saved = 0;

  if (update) {
    use_release(true);
    const bool made = fresh_devices(options, *report, true, &old_keys, &old_factory, &saved);
    use_release(false);
    if (!made) return false;
  }
  if (!fresh_devices(options, *report, false, &new_keys, &new_factory, &saved)) return false;
  Device installed_device;
  if (installed) {
    installed_device.odm = read_state(host(kCheckInstalled));
    installed_device.saved = host(kCheckInstalled);
    installed_device.stamp = bytes_of(host(kCheckInstalled) / fs::path(kInstalledStampPath).filename());
  }
  Gathered gathered;
  for (size_t r = 0; r < report->rows.size(); ++r) {
    Row& row = report->rows[r];
    const Device& fresh = new_factory[new_keys[r]];
    // A device that takes this release from |before|, shared by the rows that
    // start alike: the same devices, the same stale manifests in reach.
    const auto take = [&](const Device& before, std::map<std::string, Device>* devices,
                          const std::string& key) -> const Device* {
      const std::string full = key + '\0' + stale_hits(row.preliminary, before.odm);
      const auto it = devices->find(full);
      if (it != devices->end()) return &it->second;
      Device& after = (*devices)[full];
      restore_odm(before.saved);
      return settle(options, report->settings[row.settings[0]], row.products[0], saved++, &after)
                 ? &after
                 : nullptr;
    };
    if (update) {
      const Device& before = old_factory[old_keys[r]];
      const Device* after = take(before, &updated, old_keys[r] + '\0' + new_keys[r]);
      if (after == nullptr) return false;
      row.update = course(before, *after, fresh);
      judge_update(row, &gathered);
    }
    if (installed) {
      const Device* after = take(installed_device, &from_installed, new_keys[r]);
      if (after == nullptr) return false;
      row.installed = course(installed_device, *after, fresh);
      row.provisions = row.installed->provisions;
    }
  }
  // An installed /odm is one device's: it is judged as a device of the rows
  // whose new devices differ from it in the fewest entries after its starts.
  size_t closest = SIZE_MAX;
  for (const Row& row : report->rows) {
    if (row.installed) closest = std::min(closest, all(row.installed->from_factory).size());
  }
  for (Row& row : report->rows) {
    if (!row.installed || all(row.installed->from_factory).size() != closest) continue;
    row.installed_judged = true;
    judge_installed(options, row, &gathered);
  }
  for (auto& [finding, rows] : gathered.findings) {
    const auto& [code, error, subject, message] = finding;
    const std::vector<std::string> products = unique(rows.products), trees = unique(rows.trees);
    std::string text = message;
    const size_t at = text.find("{trees}");
    if (at != std::string::npos) text.replace(at, 7, join(trees));
    add_finding(report, code, error, subject,
                text + " (" + (products.size() == report->product_count ? "every product text"
                                                                        : join(products)) + ")",
                advice(code, subject));
  }
  return true;
}
