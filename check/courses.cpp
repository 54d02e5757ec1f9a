// Devices over several starts: one that takes the tree after running the old
// release (--update-from), one that takes it with the installed /odm
// (--installed), and one fresh from the factory. The program runs every
// start; what is compared is what it leaves in /odm and what it publishes.
#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <set>
#include <fstream>
#include <sstream>

#include "check/check.h"
#include "check/host_io.h"
#include "tarnwick/config/config.h"
#include "tarnwick/fileutil/fileutil.h"
#include "tarnwick/paths.h"
#include "tarnwick/platform/host_cutils.h"
#include "tarnwick/provision/provision.h"
#include "tarnwick/state.h"

namespace fs = std::filesystem;

namespace {

// Host directory of the saved /odm trees, each under its number.
const char kSaved[] = "/tarnwick-check/saved/";
// A device that still asks for a restart after this many starts never settles.
const int kMaxStarts = 4;
// The property the restart decision reads, and those a start writes: a value
// a setting gives one of them changes what the start does.
const char kHwconfigProperty[] = "ro.vendor.hwconfig.completed";
const char* const kWrittenProperties[] = {"ro.vendor.odm_restart", kVersionProperty, kRestartProperty};
// How deep links to directories are followed in a tree.
const int kMaxDepth = 8;

// A device's /odm: each entry, relative to /odm, and what it is (type, mode,
// contents or link target). A directory's mode is left out: an installed
// /odm's come from wherever it was copied, and the program only makes
// directories that are missing.
using OdmState = std::map<std::string, std::string>;

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

// Where the releases lie on the host: the one in place, the others parked.
std::vector<std::string> releases_dir() { return {host("/vendor/"), host(kCheckReleases)}; }

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
    // A directory or a regular file is what a start finds at its path; the
    // rest is looked up as a start looks it up.
    if (S_ISREG(st.st_mode)) {
      const int fd = openat(dirfd(listing.get()), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
      if (fd >= 0) {
        *out += release_digest(fd, releases_dir());
        close(fd);
      }
    } else if (S_ISDIR(st.st_mode) || is_directory(path)) {
      if (depth > 0) fingerprint(path, depth - 1, out);
    } else if (UniqueFile file = open_file(path, "r")) {
      *out += release_digest(fileno(file.get()), releases_dir());
    }
    *out += '\n';
  }
}

// Numbers equal texts alike, so that keys stay short.
size_t intern(std::map<std::string, size_t>* numbers, const std::string& text) {
  return numbers->emplace(text, numbers->size()).first->second;
}

// The host tree |dir|, entry by entry, and the modes of its directories,
// which decide what an unprivileged start may write.
OdmState read_state(const std::string& dir, std::map<std::string, int>* dir_modes) {
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
    const std::string name = path.lexically_relative(dir).string();
    if (directory) (*dir_modes)[name] = static_cast<int>(status.permissions());
    state[name] = what;
  }
  return state;
}

// A tree as read_state gives it, whole.
std::string identity_of(const OdmState& state, const std::map<std::string, int>& dir_modes) {
  std::string identity;
  for (const auto& [name, what] : state) {
    const auto mode = dir_modes.find(name);
    identity += name + '\0' + std::to_string(what.size()) + '\0' + what +
                std::to_string(mode != dir_modes.end() ? mode->second : -1) + '\n';
  }
  return identity;
}

// What the last start published: the property store, but for the
// properties it began with (|boot|).
std::map<std::string, std::string> published(const std::map<std::string, std::string>& boot) {
  std::map<std::string, std::string> store;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(host(tarnwick_host::kPropertyDir), ec)) {
    const std::string value = bytes_of(entry.path());
    const auto it = boot.find(entry.path().filename());
    if (it == boot.end() || it->second != value) store[entry.path().filename()] = value;
  }
  return store;
}

// |props|, one name=value line each.
std::string as_text(const std::map<std::string, std::string>& props) {
  std::string text;
  for (const auto& [name, value] : props) text += name + "=" + value + "\n";
  return text;
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

// The stale manifests a provisioning run with |preliminary| would find in
// |state|; behind a link to a directory the model itself stands for them.
std::string stale_hits(const std::string& preliminary, const OdmState& state) {
  const std::string link = std::to_string(static_cast<int>(fs::file_type::symlink)) + " ";
  for (const char* dir : {"etc", "etc/vintf"}) {
    const auto it = state.find(dir);
    if (it != state.end() && it->second.rfind(link, 0) == 0) return "model " + preliminary;
  }
  // Their names as a state gives them, relative to /odm, for each model.
  static std::map<std::string, std::vector<std::string>> names_of;
  auto [names, added] = names_of.emplace(preliminary, std::vector<std::string>());
  for (const std::string& path : added ? stale_manifest_paths(preliminary) : std::vector<std::string>()) {
    names->second.push_back(fs::path(path).relative_path().lexically_relative("odm"));
  }
  std::string hits;
  for (const std::string& name : names->second) {
    if (state.count(name) != 0) hits += name + '\0';
  }
  return hits;
}

// One device start, known by what it reads: the /odm it starts from (its
// installed stamp, configuration and fbe.ini among it), the source stamp,
// the configuration's answer (the preliminary model) through the stale
// manifests it finds and the tree of the final model, and the properties it
// reads and writes. Starts that read alike end alike.
struct Step {
  size_t next = 0;         // the state it leaves /odm in
  std::string published;   // what it published
  bool restarts = false, provisioned = false;
};

// A state's installed stamp, as the checker read it: whether /odm has one,
// and its bytes. Not |known| where a start could meet it otherwise than these
// say: not a regular file, unreadable, or with a link in /odm through which
// a start's writes could reach it.
struct Installed {
  bool known = false;
  bool present = false;
  std::string bytes;
};

// A start that stands for those that read alike but for the two version
// lines: the stamps it found, what it published and how it ended.
struct Shared {
  Step step;
  Installed before;
  std::string source;  // the source version line
  std::map<std::string, std::string> props;
};

// A device after its starts: until one asks for no restart, or kMaxStarts.
struct Settled {
  size_t state = 0;
  std::string published;
  bool provisions = false;  // its first start provisioned
  std::string model;        // the final model of its last provisioning, or empty
};

// Every /odm the devices of the courses held (their states, saved by number
// under kSaved), every start run, and what they were asked in-process.
struct Devices {
  const Options& options;
  const Report& report;
  int release = kNewRelease;  // the release at /vendor/etc/odm
  bool has_default = false;  // whether it ships a default configuration
  size_t held = SIZE_MAX;    // the state /odm holds, if any
  std::vector<OdmState> states{};
  std::vector<std::map<std::string, int>> dir_modes{};  // each state's, as read_state gives them
  std::vector<std::string> lines{};  // each state's installed version line
  std::vector<Installed> installed{};  // each state's installed stamp
  std::vector<std::string> shapes{};  // each state without its stamp's bytes, once asked
  // States no start has left /odm in, each as a saved state with other stamp bytes.
  std::map<size_t, std::pair<size_t, std::string>> unsaved{};
  std::map<std::string, Shared> shared{};
  std::map<std::string, size_t> ids{}, numbers{};
  std::map<std::string, Step> steps{};
  std::map<std::string, Settled> settled{};
  std::map<std::string, std::string> answers{};  // configuration, setting, product -> preliminary
  std::map<std::string, std::pair<AliasMap, AliasMap>> tables{};  // configuration, setting
  std::map<std::string, std::string> texts{};  // other answers, each by a key of its own
  std::map<int, std::set<std::string>> entries{};  // of each release's /vendor/etc/odm
  // Each release's final model and tree for a preliminary model, as final_tree gives them.
  std::map<std::pair<int, std::string>, std::pair<std::string, std::string>> final_trees{};
};

std::string key_of(std::initializer_list<std::string> parts) {
  std::string key;
  for (const std::string& part : parts) key += part + '\0';
  return key;
}

void use_release_of(Devices* d, int release) {
  use_release(release);
  d->release = release;
  d->has_default = exists_file(kDefaultConfigPath);
}

// Where /odm keeps its stamp, relative to /odm.
const std::string& stamp_name() {
  static const std::string name = fs::path(kInstalledStampPath).lexically_relative("/odm");
  return name;
}

// The last line of |file| (none: empty), as the program reads a version line.
std::string last_line_of(FILE* file) {
  std::string line;
  for (std::string read; file && read_line(file, &read);) line = read;
  return line;
}

// The same of |bytes|.
std::string last_line(const std::string& bytes) {
  if (bytes.empty()) return "";
  std::unique_ptr<FILE, int (*)(FILE*)> file(fmemopen(const_cast<char*>(bytes.data()), bytes.size(), "r"), fclose);
  return last_line_of(file.get());
}

// The installed stamp of |state|, which /odm holds.
Installed installed_stamp(const OdmState& state) {
  const std::string link = std::to_string(static_cast<int>(fs::file_type::symlink)) + " ";
  const std::string regular = std::to_string(static_cast<int>(fs::file_type::regular)) + " ";
  Installed out;
  for (const auto& [name, what] : state) {
    if (what.rfind(link, 0) == 0) return out;
  }
  const auto it = state.find(stamp_name());
  if (it == state.end()) {
    out.known = true;
    return out;
  }
  struct stat st;
  const std::string path = host(kInstalledStampPath);
  if (it->second.rfind(regular, 0) != 0 || lstat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode) ||
      st.st_size >= (1 << 20)) {
    return out;
  }
  out.bytes = read_regular(path);
  out.present = true;
  out.known = out.bytes.size() == static_cast<size_t>(st.st_size);
  return out;
}

// The number of |state|, a new one when no state was like it; |added| says which.
size_t add_state(Devices* d, OdmState state, std::map<std::string, int> modes, const std::string& line,
                 Installed stamp, bool* added) {
  const auto [it, fresh] = d->ids.emplace(identity_of(state, modes), d->states.size());
  *added = fresh;
  if (fresh) {
    d->states.push_back(std::move(state));
    d->dir_modes.push_back(std::move(modes));
    d->lines.push_back(line);
    d->installed.push_back(std::move(stamp));
    d->shapes.emplace_back();
  }
  return it->second;
}

// The state /odm holds now, numbered, saved when new.
size_t note_state(Devices* d) {
  std::map<std::string, int> modes;
  OdmState state = read_state(host("/odm"), &modes);
  const std::string line = last_line_of(open_file(kInstalledStampPath, "r").get());
  Installed stamp = installed_stamp(state);
  bool added;
  const size_t n = add_state(d, std::move(state), std::move(modes), line, std::move(stamp), &added);
  // A state worked out before and now met is saved as it is met.
  if (d->unsaved.erase(n) != 0 || added) save_odm(host(kSaved + std::to_string(n)));
  d->held = n;
  return n;
}

void hold(Devices* d, size_t state) {
  if (d->held == state) return;
  const auto pending = d->unsaved.find(state);
  if (pending == d->unsaved.end()) {
    restore_odm(host(kSaved + std::to_string(state)));
    d->held = state;
    return;
  }
  // The saved state it differs from, with its own stamp bytes.
  const auto [saved, bytes] = pending->second;
  hold(d, saved);
  d->held = SIZE_MAX;
  const std::string path = host(kInstalledStampPath);
  struct stat st;
  if (lstat(path.c_str(), &st) != 0 || chmod(path.c_str(), 0600) != 0) fail("cannot write " + path + ": " + strerror(errno));
  write_file(path, bytes);
  if (chmod(path.c_str(), st.st_mode & 07777) != 0) fail("cannot write " + path + ": " + strerror(errno));
  if (note_state(d) != state) fail("a device state in " + host("") + " did not come out as worked out");
}

// The configuration /odm holds, by the digest of its bytes as a start reads them.
std::string own_config(Devices* d) {
  const UniqueFile file = open_file(kConfigPath, "r");
  return "own " + std::to_string(intern(&d->numbers, file ? "=" + digest_of(fileno(file.get())) : "<none>"));
}

// The configuration a provisioning run over |state| reads: the release's
// default, which it installs first when there is one, else what the device holds.
std::string config_of(Devices* d, size_t state) {
  if (d->has_default) return "default of " + std::to_string(d->release);
  std::string& config = d->texts[key_of({"config", std::to_string(d->release), std::to_string(state)})];
  if (config.empty()) {
    hold(d, state);
    config = own_config(d);
  }
  return config;
}

// The preliminary model of |product| under setting |s| and configuration
// |config| (of |state|), by the program's loader and selection.
const std::string& preliminary(Devices* d, const std::string& config, size_t state, size_t s,
                               const std::string& product) {
  const std::string setting = std::to_string(s);
  const auto [answer, added] = d->answers.emplace(key_of({config, setting, product}), "");
  if (!added) return answer->second;
  const auto [loaded, load] = d->tables.emplace(key_of({config, setting}), std::pair<AliasMap, AliasMap>());
  auto& tables = loaded->second;
  write_properties(d->options, d->report.settings[s], product);
  if (load) {
    if (d->has_default) {
      fs::create_directories(host("/odm/etc"));
      copy_file(kDefaultConfigPath, kConfigPath);
      d->held = SIZE_MAX;
    } else {
      hold(d, state);
    }
    ModelAliasMap.clear();
    TargetAliasMap.clear();
    create_map_from_config();
    tables = {ModelAliasMap, TargetAliasMap};
  }
  ModelAliasMap = tables.first;
  TargetAliasMap = tables.second;
  return answer->second = select_model_name(kProvisioningRun);
}

// The final model for |model| in the release in place, and the number of what
// its tree reads as.
std::pair<std::string, std::string> final_tree(Devices* d, const std::string& model) {
  auto [known, added] = d->final_trees.emplace(std::make_pair(d->release, model), std::pair<std::string, std::string>());
  if (!added) return known->second;
  // The answer reads the trees whose names begin the model's tree's name
  // (the model's own, and the model's without a suffix): where each is the
  // new release's, it is the new one's.
  const bool reads_new = model.find('/') == std::string::npos && prefixes_as_new(d->release, "odm_" + model);
  std::string& confirmed = d->texts[key_of({"final", reads_new ? "new" : std::to_string(d->release), model})];
  if (confirmed.empty()) confirmed = "=" + confirm_model_source(model, kProvisioningRun);
  const std::string final_model = confirmed.substr(1);
  // A tree an old release has as the new one has it reads as the new one's.
  const bool plain_name = final_model.find('/') == std::string::npos;
  const bool as_new = plain_name && same_as_new(d->release, "odm_" + final_model);
  std::string& tree =
      d->texts[key_of({"tree", as_new ? "new" : std::to_string(d->release), final_model})];
  if (tree.empty()) {
    std::string print;
    fingerprint(kModelTreePrefix + final_model + "/odm/etc", kMaxDepth, &print);
    tree = std::to_string(intern(&d->numbers, print));
  }
  return known->second = {final_model, tree};
}

// The source stamp a start of |product| reads, when it reads one: a path
// whose first component is no entry of the release leads nowhere, so most
// product texts read the default stamp.
const std::string& source_path(Devices* d, const std::string& product) {
  // A tree that is the new release's reads as the new one's.
  const std::string tree = "odm_" + product.substr(0, product.find('/'));
  const bool as_new = product.find('/') == std::string::npos && same_as_new(d->release, tree);
  std::string& path = d->texts[key_of({"source", as_new ? "new" : std::to_string(d->release), product})];
  if (!path.empty()) return path;
  auto [entries, listed] = d->entries.emplace(d->release, std::set<std::string>());
  if (listed) {
    for (const auto& entry : list_dir(fs::path(kModelTreePrefix).parent_path())) entries->second.insert(entry.first);
  }
  const std::string sku = sku_stamp_path(product);
  const bool own = entries->second.count(tree) != 0 && exists_file(sku);
  return path = own ? sku : kDefaultStampPath;
}

// The source stamp a start of |product| reads, by the digest of its bytes.
const std::string& source_stamp(Devices* d, const std::string& product) {
  const std::string release = std::to_string(d->release);
  std::string& number = d->texts[key_of({"stamp", release, product})];
  if (!number.empty()) return number;
  const std::string path = source_path(d, product);
  std::string& digest = d->texts[key_of({"stamp of", release, path})];
  if (digest.empty()) {
    const UniqueFile file = open_file(path, "r");
    digest = std::to_string(intern(&d->numbers, file ? "=" + release_digest(fileno(file.get()), releases_dir()) : "<none>"));
  }
  return number = digest;
}

// True when the file open at |fd| is a regular file that device path |path|
// names without a link on the way: one of the release's own, which no start
// writes.
bool at_own_path(int fd, const std::string& path) {
  static const std::string root = fs::weakly_canonical(host("")).string();
  char at[PATH_MAX];
  struct stat st;
  const ssize_t n = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), at, sizeof(at));
  return fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && n > 0 && std::string(at, n) == root + path;
}

// The version line a start of |product| takes from the source stamp, a "+"
// before it; empty when the stamp may read otherwise in another start.
const std::string& source_line(Devices* d, const std::string& product) {
  const std::string path = source_path(d, product);
  std::string& line = d->texts[key_of({"line of", std::to_string(d->release), path})];
  if (!line.empty()) return line;
  line = "-";
  const UniqueFile file = open_file(path, "r");
  if (!file || at_own_path(fileno(file.get()), path)) line = "+" + last_line_of(file.get());
  return line;
}

// What a start reads of the release in place besides the stamps and the
// model's tree: its default configuration, by its bytes where it is the
// release's own file, else the release itself.
const std::string& release_reads(Devices* d) {
  std::string& reads = d->texts[key_of({"reads", std::to_string(d->release)})];
  if (!reads.empty()) return reads;
  reads = "own";
  if (!d->has_default) return reads;
  const UniqueFile file = open_file(kDefaultConfigPath, "r");
  reads = file && at_own_path(fileno(file.get()), kDefaultConfigPath)
              ? "default " + std::to_string(intern(&d->numbers, digest_of(fileno(file.get()))))
              : "release " + std::to_string(d->release);
  return reads;
}

// State |state| but for its stamp's bytes.
const std::string& shape(Devices* d, size_t state) {
  std::string& out = d->shapes[state];
  if (!out.empty()) return out;
  OdmState bare = d->states[state];
  const auto it = bare.find(stamp_name());
  if (it != bare.end()) it->second = it->second.substr(0, it->second.rfind(' ') + 1);
  return out = identity_of(bare, d->dir_modes[state]);
}

// How a start with installed stamp |in| and source version line |source|
// goes: on to provision, or not, and with which line published; empty when
// what it publishes could not be worked out from another start's.
std::string stamp_class(const Installed& in, const std::string& source) {
  if (!in.present) return "missing";
  if (in.bytes.empty()) return "empty";
  const std::string line = last_line(in.bytes);
  if (line != source) return "unequal";
  const bool plain = line.find('\0') == std::string::npos && tarnwick_host::is_valid_utf8(line.c_str());
  return plain ? "equal" : "";
}

// The step of a start that reads as |shared|'s did but for installed stamp
// |in| and source version line |source|: each line that start left or
// published, in its place. Nullopt when what it left cannot be told apart.
std::optional<Step> step_like(Devices* d, const Shared& shared, const Installed& in, const std::string& source) {
  const size_t left = shared.step.next;
  const Installed after = d->installed[left];
  if (!after.known || (!after.present && shared.before.present)) return std::nullopt;
  Installed out = after;
  if (after.present) {
    // The start wrote its source line, or kept its stamp: where its bytes
    // could be either, both must give the same.
    const bool written = after.bytes == shared.source;
    const bool kept = shared.before.present && after.bytes == shared.before.bytes;
    if ((!written && !kept) || (written && kept && source != in.bytes)) return std::nullopt;
    out.bytes = written ? source : in.bytes;
  }
  std::map<std::string, std::string> props = shared.props;
  const auto version = props.find(kVersionProperty);
  if (version != props.end()) {
    if (version->second != last_line(shared.before.bytes)) return std::nullopt;
    version->second = last_line(in.bytes);
  }
  Step step = shared.step;
  step.published = as_text(props);
  if (out.bytes == after.bytes) return step;
  OdmState state = d->states[left];
  std::string& what = state[stamp_name()];
  what = what.substr(0, what.rfind(' ') + 1) + digest_of_bytes(out.bytes);
  bool added;
  step.next = add_state(d, std::move(state), d->dir_modes[left], last_line(out.bytes), out, &added);
  if (added) d->unsaved[step.next] = {left, out.bytes};
  return step;
}

// The inputs of setting |s| that no configuration decides: whether the
// hardware configuration is empty, which with /odm/fbe.ini of the state a
// start begins from decides whether it skips its restart, and the values of
// what a start writes. The product text is none of them.
std::string setting_inputs(const Devices& d, size_t s) {
  const auto props = boot_properties(d.options, d.report.settings[s], "");
  const auto value = [&](const char* name) {
    const auto it = props.find(name);
    return it == props.end() || it->second.empty() ? std::string("-") : "=" + it->second;
  };
  std::string inputs = value(kHwconfigProperty) == "-" ? "-" : "hw";
  for (const char* name : kWrittenProperties) inputs += '\0' + value(name);
  return inputs;
}

// One start of |product| under setting |s| over |state|, run unless a start
// that reads the same has run; null when it could not run. |model| gets the
// final model it selects when it provisions (trees alike in all else may
// differ in name).
const Step* step(Devices* d, size_t state, size_t s, const std::string& product,
                 const std::string& inputs, std::string* model) {
  const std::string& preliminary_model = preliminary(d, config_of(d, state), state, s, product);
  const auto [final_model, tree] = final_tree(d, preliminary_model);
  *model = final_model;
  const std::string& reads = release_reads(d);
  const std::string hits = stale_hits(preliminary_model, d->states[state]);
  const std::string key = key_of({reads, std::to_string(state), source_stamp(d, product), hits, tree, inputs});
  const auto it = d->steps.find(key);
  if (it != d->steps.end()) return &it->second;
  // Starts that read alike but for the installed and source version lines
  // end alike but for them: most devices of different releases differ there.
  const Installed before = d->installed[state];
  const std::string& source = source_line(d, product);
  const std::string how = before.known && source[0] == '+' ? stamp_class(before, source.substr(1)) : "";
  const std::string like = how.empty() ? "" : key_of({reads, shape(d, state), how, hits, tree, inputs});
  const auto shared = d->shared.find(like);
  if (shared != d->shared.end()) {
    if (std::optional<Step> same = step_like(d, shared->second, before, source.substr(1))) {
      return &(d->steps[key] = *same);
    }
  }
  hold(d, state);
  const Setting& setting = d->report.settings[s];
  if (!start_program(d->options, setting, product)) return nullptr;
  Step done;
  done.provisioned = !stamps_were_equal();
  done.restarts = restart_requested();
  const auto props = published(boot_properties(d->options, setting, product));
  done.published = as_text(props);
  done.next = note_state(d);
  if (!like.empty() && start_ended()) d->shared.emplace(like, Shared{done, before, source.substr(1), props});
  return &(d->steps[key] = done);
}

// A device of |product| under setting |s| (with |inputs|, its setting_inputs)
// that holds |state|, after its starts. Its course is the same for every
// product text and setting that the release's default configuration answers
// alike, and otherwise its own.
const Settled* settle(Devices* d, size_t state, size_t s, const std::string& product,
                      const std::string& inputs) {
  const std::string who = d->has_default
                              ? key_of({source_stamp(d, product),
                                        preliminary(d, config_of(d, state), state, s, product)})
                              : key_of({std::to_string(s), product});
  const auto [it, added] =
      d->settled.emplace(key_of({std::to_string(d->release), std::to_string(state), who, inputs}), Settled());
  Settled& out = it->second;
  if (!added) return &out;
  for (int start = 0; start < kMaxStarts; ++start) {
    std::string model;
    const Step* next = step(d, state, s, product, inputs, &model);
    if (next == nullptr) {
      d->settled.erase(it);
      return nullptr;
    }
    if (start == 0) out.provisions = next->provisioned;
    if (next->provisioned) out.model = model;
    out.published = next->published;
    state = next->next;
    if (!next->restarts) break;
  }
  out.state = state;
  return &out;
}

// The course of a device that held |before| and settled as |after|, against
// the factory device |fresh|.
Course course(const Devices& d, size_t before, const Settled& after, const Settled& fresh) {
  Course c;
  c.provisions = after.provisions;
  c.change = diff(d.states[before], d.states[after.state]);
  c.from_factory = diff(d.states[after.state], d.states[fresh.state]);
  c.properties_differ = after.published != fresh.published;
  c.line_before = d.lines[before];
  c.line_after = d.lines[after.state];
  c.model_after = after.model;
  c.new_model = fresh.model;
  return c;
}

// Everything a row shows of |c|, so that rows part where their courses do.
std::string course_key(const Course& c) {
  std::string key = key_of({c.provisions ? "1" : "0", c.properties_differ ? "1" : "0", c.line_before,
                            c.line_after, c.model_before, c.model_after, c.new_model});
  for (const auto* files : {&c.change.added, &c.change.changed, &c.change.removed, &c.from_factory.added,
                            &c.from_factory.changed, &c.from_factory.removed}) {
    for (const std::string& file : *files) key += file + '\0';
    key += '\n';
  }
  return key;
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

// One finding per distinct subject and message, the product texts, the trees
// (which stand for "{trees}" in the message), the old releases and the
// locations of its rows gathered.
struct Gathered {
  struct Rows {
    std::vector<std::string> products, trees;
    std::set<size_t> releases;
    std::vector<Location> locations;
  };
  std::map<std::tuple<std::string, bool, std::string, std::string>, Rows> findings;
  void add(const std::string& code, bool error, const std::string& subject, const std::string& message,
           const Row& row, const std::string& tree, std::optional<size_t> release,
           const std::vector<Location>& locations) {
    Rows& rows = findings[{code, error, subject, message}];
    rows.products.insert(rows.products.end(), row.products.begin(), row.products.end());
    rows.trees.push_back("odm_" + tree);
    if (release) rows.releases.insert(*release);
    rows.locations.insert(rows.locations.end(), locations.begin(), locations.end());
  }
};

std::vector<std::string> unique(std::vector<std::string> texts) {
  std::sort(texts.begin(), texts.end());
  texts.erase(std::unique(texts.begin(), texts.end()), texts.end());
  return texts;
}

// Where file |file| of /odm/etc comes from in a release's tree, when its
// devices get it from the tree of |model|: the configuration from odm_default.
std::string source_of(const std::string& file, const std::string& model) {
  return file == fs::path(kConfigPath).filename() ? in_tree(kDefaultConfigPath)
                                                  : in_tree(source_etc_dir(model)) + file;
}

// Locations of |files| of /odm/etc in the new tree, as the tree of |model|
// holds them (or would), and in old release |release|, as |old_model|'s does.
std::vector<Location> file_locations(const std::vector<std::string>& files, const std::string& model,
                                     std::optional<size_t> release, const std::string& old_model) {
  std::vector<Location> out;
  for (const std::string& file : files) {
    if (!model.empty()) out.push_back(in_tree_file(source_of(file, model)));
    if (release && !old_model.empty()) out.push_back({kInUpdateFrom, source_of(file, old_model), 0, *release});
  }
  return out;
}

// The findings of the update courses from old release |k|: each from what the
// update changes in the updated device's /odm/etc, or from how that then
// differs from the factory device's.
void judge_update(const Row& row, size_t k, Gathered* out) {
  const Course& c = row.update[k];
  const std::vector<Location> stamps = {in_tree_file(in_tree(row.stamp)),
                                        {kInUpdateFrom, in_tree(row.old_stamp[k]), 0, k}};
  if (!c.provisions && !c.from_factory.empty()) {
    out->add("stamp-not-bumped", true, in_tree(row.stamp),
             "keeps the version line " + shown(c.line_after) + " while the files of {trees} change (" +
                 comma_list(all(c.from_factory)) + "): their devices keep the old ones",
             row, c.new_model, k, stamps);
  }
  if (!c.from_factory.removed.empty()) {
    out->add("left-behind", false, comma_list(c.from_factory.removed),
             "devices of {trees} updated from the old release keep it, and new devices lack it" +
                 read_at_boot(c.from_factory.removed),
             row, c.new_model, k, file_locations(c.from_factory.removed, c.new_model, k, c.model_before));
  }
  if (c.provisions && c.change.empty()) {
    out->add("restart-without-change", false, in_tree(row.stamp),
             "changes the version line from " + shown(c.line_before) + " to " + shown(c.line_after) +
                 ", but nothing in /odm/etc changes for {trees}: each of their devices restarts "
                 "once for nothing",
             row, c.model_after, k, stamps);
  }
  if (c.model_before != c.model_after) {
    out->add("model-changed", false, "odm_" + c.model_before + " > odm_" + c.model_after,
             "the update moves these devices to another tree", row, c.model_after, k,
             {vendor_file(kDefaultConfigPath), {kInUpdateFrom, in_tree(kDefaultConfigPath), 0, k}});
  }
}

// The findings of the rollback courses to old release |k|: what a device
// that took this release and went back keeps that the old release's devices
// never had.
void judge_rollback(const Row& row, size_t k, Gathered* out) {
  const Course& c = row.rollback[k];
  std::vector<std::string> kept = c.from_factory.removed;
  kept.insert(kept.end(), c.from_factory.changed.begin(), c.from_factory.changed.end());
  std::sort(kept.begin(), kept.end());
  const bool model_stays = c.model_after != c.new_model;
  if (kept.empty() && c.from_factory.added.empty() && !model_stays) return;
  std::string message = kept.empty() ? "devices of {trees} that take this release and roll back"
                                      : "devices of {trees} that take this release and roll back keep "
                                        "it, which devices that never left the old release lack";
  if (!c.from_factory.added.empty()) {
    message += (kept.empty() ? " lack " : ", and lack ") + comma_list(c.from_factory.added);
  }
  if (!c.provisions) {
    message += "; the old release finds the version line " + shown(c.line_before) +
               " it had and provisions nothing at all";
  }
  if (model_stays) {
    message += "; the configuration the update left moves them to odm_" + c.model_after +
               " instead of odm_" + c.new_model;
  }
  const std::string boot = read_at_boot(kept);
  out->add("rollback-keeps", !boot.empty(), kept.empty() ? "odm_" + c.new_model : comma_list(kept),
           message + boot, row, c.new_model, k, file_locations(kept, row.final_model, k, c.new_model));
}

// The findings of the installed /odm's courses.
void judge_installed(const Options& options, const Row& row, Gathered* out) {
  const Course& c = *row.installed;
  std::vector<std::string> drifted = c.from_factory.added;
  drifted.insert(drifted.end(), c.from_factory.changed.begin(), c.from_factory.changed.end());
  std::sort(drifted.begin(), drifted.end());
  const auto installed = [](const std::vector<std::string>& files) {
    std::vector<Location> out;
    for (const std::string& file : files) out.push_back({kInInstalled, "etc/" + file, 0, 0});
    return out;
  };
  if (!drifted.empty()) {
    out->add("drift", true, options.installed,
             "differs from what {trees} installs in " + comma_list(drifted) +
                 ", under the installed stamp " + shown(c.line_after) + ": no start mends it",
             row, c.new_model, std::nullopt, installed(drifted));
  }
  if (!c.from_factory.removed.empty()) {
    out->add("left-behind", false, comma_list(c.from_factory.removed),
             "stays in " + options.installed + " after its starts, and new devices of {trees} lack it" +
                 read_at_boot(c.from_factory.removed),
             row, c.new_model, std::nullopt, installed(c.from_factory.removed));
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
  if (code == "rollback-keeps") {
    return "ship the old release's files under the names the new one adds (empty, if they must say "
           "nothing), or keep the new files out of the boot path until the new release is proven";
  }
  if (code == "restart-without-change") return "keep the version line while nothing changes";
  if (code == "drift") return "reflash /odm, or raise the version line so that the devices provision again";
  return "make sure these devices are to get the other tree";
}

// A course and its course_key.
using Made = std::pair<Course, std::string>;

// The course of the device |after|, which started from |before| (or from the
// installed /odm when |before| is null), against the device |fresh|; each
// made once.
Made& made_course(const Devices& d, size_t from_installed, const Settled* before, const Settled& after,
                  const Settled& fresh,
                  std::map<std::tuple<const Settled*, const Settled*, const Settled*>, Made>* made) {
  const auto [it, added] = made->emplace(std::make_tuple(before, &after, &fresh), Made());
  if (!added) return it->second;
  Course& c = it->second.first;
  if (before != nullptr) {
    c = course(d, before->state, after, fresh);
    c.model_before = before->model;
    if (c.model_after.empty()) c.model_after = before->model;
  } else {
    c = course(d, from_installed, after, fresh);
    // Which tree an installed /odm came from nobody knows, nor is it shown.
    c.model_after.clear();
  }
  // Courses alike get one number: what sets rows apart is short to compare.
  static std::map<std::string, size_t> numbers;
  it->second.second = std::to_string(intern(&numbers, course_key(c))) + ',';
  return it->second;
}

// A product text under a setting of a row, and its devices: of each old
// release, fresh from the factory, updated from each old release and rolled
// back to it, and from the installed /odm.
struct Pair {
  const Row* row;
  const std::string* product;
  size_t setting;
  const std::string* inputs;  // its setting_inputs
  // The first pair of its row with its inputs: where the release in place
  // ships a default configuration, every start of the two reads alike.
  const Pair* first;
  std::vector<const Settled*> old, updated, rolled;
  const Settled *fresh, *later;
};

// The devices of every pair's courses, and the state of the installed /odm;
// false when a start could not run.
bool run_devices(const Options& options, Devices* d, std::vector<Pair>* pairs, size_t* from_installed) {
  const size_t releases = options.update_from.size();
  const bool installed = !options.installed.empty();
  // The rows' answers are those of the configuration the resolution read:
  // the default, or what prepare_odm put in its place.
  // Only the pairs that start need them: with a default, the first of each kind.
  const auto seed = [&](int release) {
    const std::string config = d->has_default ? "default of " + std::to_string(release) : own_config(d);
    for (const Pair& pair : *pairs) {
      if (d->has_default && pair.first != &pair) continue;
      d->answers[key_of({config, std::to_string(pair.setting), *pair.product})] =
          release == kNewRelease ? pair.row->preliminary : pair.row->old_preliminary[release];
    }
  };
  // Where the release in place ships a default configuration, the pairs of
  // one row with the same inputs read alike in every start: the row's first
  // such pair starts for all of them, from the state its own devices held.
  // (Without one, each device reads a configuration of its own, which may
  // answer its products otherwise.)
  const auto take = [&](size_t state, const Pair& pair, const auto& of_first) -> const Settled* {
    if (d->has_default && pair.first != &pair) return of_first(*pair.first);
    return settle(d, state, pair.setting, *pair.product, *pair.inputs);
  };
  for (size_t k = 0; k < releases; ++k) {
    use_release_of(d, k);
    prepare_odm(options, false);
    seed(k);
    const size_t factory = note_state(d);
    for (Pair& pair : *pairs) {
      pair.old.push_back(take(factory, pair, [k](const Pair& p) { return p.old[k]; }));
      if (pair.old.back() == nullptr) return false;
    }
  }
  use_release_of(d, kNewRelease);
  prepare_odm(options, installed);
  d->held = SIZE_MAX;
  seed(kNewRelease);
  prepare_odm(options, false);
  const size_t factory = note_state(d);
  if (installed) {
    restore_odm(host(kCheckInstalled));
    *from_installed = note_state(d);
  }
  for (Pair& pair : *pairs) {
    if (!(pair.fresh = take(factory, pair, [](const Pair& p) { return p.fresh; }))) return false;
    for (size_t k = 0; k < releases; ++k) {
      pair.updated.push_back(take(pair.old[k]->state, pair, [k](const Pair& p) { return p.updated[k]; }));
      if (pair.updated.back() == nullptr) return false;
    }
    if (installed && !(pair.later = take(*from_installed, pair, [](const Pair& p) { return p.later; }))) return false;
  }
  // Back to each old release, as A/B devices go when the new slot fails.
  for (size_t k = 0; options.rollback && k < releases; ++k) {
    use_release_of(d, k);
    for (Pair& pair : *pairs) {
      pair.rolled.push_back(take(pair.updated[k]->state, pair, [k](const Pair& p) { return p.rolled[k]; }));
      if (pair.rolled.back() == nullptr) return false;
    }
  }
  use_release_of(d, kNewRelease);
  return true;
}

}  // namespace

bool examine_courses(const Options& options, Report* report) {
  const size_t releases = options.update_from.size();
  const bool installed = !options.installed.empty();
  if (releases == 0 && !installed) return true;
  Devices d{options, *report};
  std::vector<std::string> inputs;
  for (size_t s = 0; s < report->settings.size(); ++s) inputs.push_back(setting_inputs(d, s));
  std::vector<Pair> pairs;
  std::vector<size_t> firsts;
  for (const Row& row : report->rows) {
    std::map<std::string, size_t> first;  // inputs -> the first pair with them
    for (const std::string& product : row.products) {
      for (size_t s : row.settings) {
        firsts.push_back(first.emplace(inputs[s], pairs.size()).first->second);
        pairs.push_back({&row, &product, s, &inputs[s], nullptr, {}, {}, {}, nullptr, nullptr});
      }
    }
  }
  for (size_t i = 0; i < pairs.size(); ++i) pairs[i].first = &pairs[firsts[i]];
  size_t from_installed = 0;
  if (!run_devices(options, &d, &pairs, &from_installed)) return false;

  // The courses of a pair, made once for every pair whose devices settled alike.
  struct Courses {
    std::string key;
    std::vector<const Made*> updated, rolled;
    const Made* later = nullptr;
  };
  std::map<std::tuple<const Settled*, const Settled*, const Settled*>, Made> made;
  std::map<std::vector<const Settled*>, Courses> courses_of;
  const auto courses = [&](const Pair& pair) -> const Courses& {
    std::vector<const Settled*> devices = {pair.fresh, pair.later};
    for (const auto* list : {&pair.old, &pair.updated, &pair.rolled}) devices.insert(devices.end(), list->begin(), list->end());
    const auto [it, added] = courses_of.emplace(devices, Courses());
    Courses& out = it->second;
    if (!added) return out;
    for (size_t k = 0; k < releases; ++k) {
      out.updated.push_back(&made_course(d, from_installed, pair.old[k], *pair.updated[k], *pair.fresh, &made));
      out.key += out.updated.back()->second + '\n';
      if (!options.rollback) continue;
      // Against a device that never left the old release.
      Made& back = made_course(d, from_installed, pair.updated[k], *pair.rolled[k], *pair.old[k], &made);
      back.first.model_before = pair.updated[k]->model.empty() ? pair.old[k]->model : pair.updated[k]->model;
      back.first.model_after = pair.rolled[k]->model.empty() ? back.first.model_before : pair.rolled[k]->model;
      back.first.new_model = pair.old[k]->model;
      back.second = course_key(back.first);
      out.rolled.push_back(&back);
      out.key += back.second + '\n';
    }
    if (installed) {
      out.later = &made_course(d, from_installed, nullptr, *pair.later, *pair.fresh, &made);
      out.key += out.later->second;
    }
    return out;
  };

  // Each row parts into rows whose product texts and settings have the same
  // courses, merged as the resolution merges them.
  std::vector<Row> rows;
  auto next = pairs.begin();
  for (const Row& row : report->rows) {
    std::vector<std::pair<std::string, Row>> parts;  // by courses and settings
    for (const std::string& product : row.products) {
      // The settings of |product| by courses, in their order.
      struct Group {
        const Courses* courses;
        std::vector<size_t> settings;
      };
      std::vector<Group> groups;
      for (size_t s : row.settings) {
        const Courses* c = &courses(*next++);
        auto it = std::find_if(groups.begin(), groups.end(), [&](const Group& g) { return g.courses->key == c->key; });
        if (it == groups.end()) it = groups.insert(groups.end(), {c, {}});
        it->settings.push_back(s);
      }
      for (const Group& group : groups) {
        std::string id = group.courses->key;
        for (size_t s : group.settings) id += '\0' + std::to_string(s);
        auto it = std::find_if(parts.begin(), parts.end(), [&](const auto& p) { return p.first == id; });
        if (it == parts.end()) {
          Row part = row;
          part.products.clear();
          part.settings = group.settings;
          if (group.settings != row.settings) part.when = settings_in_words(*report, group.settings);
          const Courses& c = *group.courses;
          for (const Made* m : c.updated) part.update.push_back(m->first);
          for (const Made* m : c.rolled) part.rollback.push_back(m->first);
          if (c.later) part.installed = c.later->first;
          if (c.later) part.provisions = c.later->first.provisions;
          it = parts.insert(parts.end(), {id, part});
        }
        it->second.products.push_back(product);
      }
    }
    for (auto& part : parts) rows.push_back(std::move(part.second));
  }
  report->rows = std::move(rows);

  Gathered gathered;
  for (const Row& row : report->rows) {
    for (size_t k = 0; k < row.update.size(); ++k) judge_update(row, k, &gathered);
    for (size_t k = 0; k < row.rollback.size(); ++k) judge_rollback(row, k, &gathered);
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
    text += " (" + (products.size() == report->product_count ? "every product text" : join(products));
    // With several old releases, which of them it comes from.
    if (releases > 1 && !rows.releases.empty()) {
      std::vector<std::string> from;
      for (size_t k : rows.releases) from.push_back(options.update_from[k]);
      text += "; from " + join(from, from.size());
    }
    add_finding(report, code, error, subject, text + ")", advice(code, subject), rows.locations,
                std::vector<size_t>(rows.releases.begin(), rows.releases.end()));
  }
  return true;
}
