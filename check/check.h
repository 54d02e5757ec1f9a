// tarnwick-check: what tarnwick does with a vendor ODM tree, worked out by the
// program's own library (and, for device starts, the program) over a scratch
// device root whose /vendor/etc/odm is a copy of the tree.
#pragma once

#include <stdint.h>

#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

// Where the scratch device holds --config (when the tree has no configuration
// of its own to stand in for), a copy of --installed, and the releases that
// are not at /vendor/etc/odm (use_release: the old ones by number, the new
// one as kNewRelease), as device paths.
inline constexpr char kCheckConfig[] = "/tarnwick-check/odmconfig.xml";
inline constexpr char kCheckInstalled[] = "/tarnwick-check/installed";
inline constexpr char kCheckReleases[] = "/tarnwick-check/release-";
inline constexpr int kNewRelease = -1;
// The properties a start reads its product text from, publishes the version
// line in (only when it found the two stamps equal and so provisioned
// nothing), and asks the platform for its restart through.
inline constexpr char kProductProperty[] = "ro.vendor.product";
inline constexpr char kVersionProperty[] = "ro.vendor.odm.version";
inline constexpr char kRestartProperty[] = "sys.powerctl";
struct CopyNotes;  // host_io.h

// The version of the JSON document's layout: raised when a member changes its
// meaning or goes; its minor version, raised when members are added.
inline constexpr int kJsonVersion = 3;
inline constexpr int kJsonMinorVersion = 1;

struct Options {
  std::string tree;                      // as given on the command line
  std::string config;                    // --config FILE, or empty
  std::string installed;                 // --installed DIR, or empty
  std::vector<std::string> update_from;  // --update-from RELEASE, each
  std::optional<std::vector<std::string>> products;  // --product texts
  std::map<std::string, std::string> props;          // --prop NAME=VALUE
  bool json = false;
  bool strict = false;
  bool rollback = false;  // --rollback
  std::string sarif;  // --sarif FILE, or empty
  // Where the tree checked and the old releases' trees stand inside the
  // inputs as given ("vendor/etc/odm" in a device root, "VENDOR/etc/odm" in
  // a target-files package; empty: the input), and what each input is.
  std::string tree_inner, tree_kind;
  std::vector<std::string> update_from_inner, update_from_kind;
};

// What a finding code means, for tools that describe rules apart from
// results (rules.cpp).
struct Rule {
  const char* code;
  bool error;  // its usual severity
  const char* brief;
  const char* full;
  const char* help;
};
const std::vector<Rule>& rules();

// Which input a finding's location lies in: the JSON document's "input"
// names, and (upper case) the SARIF log's base ids.
inline constexpr char kInTree[] = "tree";              // VENDOR_ODM_DIR
inline constexpr char kInUpdateFrom[] = "update_from";  // --update-from
inline constexpr char kInInstalled[] = "installed";    // --installed
inline constexpr char kInConfig[] = "config";          // --config

// Where a finding's cause stands: a file of one of the inputs, relative to
// the tree that input holds (the directory that becomes /vendor/etc/odm, or
// the installed /odm; nothing for --config, which is the file itself), and
// the line in it when known (0: the file as a whole).
struct Location {
  std::string input;
  std::string file;
  int line = 0;
  size_t release = 0;  // which --update-from, for kInUpdateFrom
  bool operator<(const Location& o) const {
    return std::tie(input, release, file, line) < std::tie(o.input, o.release, o.file, o.line);
  }
  bool operator==(const Location& o) const {
    return input == o.input && release == o.release && file == o.file && line == o.line;
  }
};

struct Finding {
  std::string code;
  bool error = false;
  std::string subject;
  std::string message;
  std::string advice;
  std::vector<Location> locations;
  std::vector<size_t> releases;  // the old releases it comes from, if any
};

// A value of each tested property, in name order; nullopt: unset.
using Setting = std::vector<std::pair<std::string, std::optional<std::string>>>;

// What it takes to go from one /odm to another, by paths relative to /odm/etc:
// entries only the second has, entries both have but differ in (type, mode,
// contents, link target), entries only the first has.
struct OdmDiff {
  std::vector<std::string> added, changed, removed;
  bool empty() const { return added.empty() && changed.empty() && removed.empty(); }
};

// A device that starts from some /odm and takes a release, against a device of
// that release fresh from the factory.
struct Course {
  bool provisions = false;    // its first start provisions
  OdmDiff change;             // from its /odm before the starts to its /odm after
  OdmDiff from_factory;       // from its /odm after the starts to the factory device's
  bool properties_differ = false;  // the two devices publish different properties
  std::string line_before, line_after;  // its installed version line before and after
  // The tree its files come from before and after its starts (empty: not
  // known, or none installed), and the factory device's.
  std::string model_before, model_after, new_model;
};

// Product texts and settings that give the same answer.
struct Row {
  std::vector<std::string> products;
  std::vector<size_t> settings;  // indexes into Report::settings
  std::string when;              // the settings in words
  std::string preliminary, final_model, why;
  std::string stamp;             // the source stamp its products use
  std::optional<bool> provisions;  // with --installed: whether the next start provisions
  // With --update-from: the answers of the releases the devices run now,
  // one for each, and the courses of their devices.
  std::vector<std::string> old_preliminary, old_final, old_stamp;
  std::vector<Course> update;
  // With --rollback: each old release's devices after the update and back.
  std::vector<Course> rollback;
  std::optional<Course> installed;  // with --installed
  // The installed /odm is judged as a device of the rows whose new devices it
  // is closest to: its findings are theirs.
  bool installed_judged = false;
};

struct Tree {
  std::string model;
  std::vector<std::string> installs;                           // relative to /odm/etc/
  std::vector<std::pair<std::string, std::string>> left_out;  // name, what it is
  std::map<std::string, std::vector<std::string>> removes;    // preliminary model -> paths
};

struct Stamp {
  std::string path;           // the source stamp, or the default one when missing
  std::vector<std::string> products;
  std::string version_line;   // what a provisioning run records
  bool restarts_every_start = false;
};

struct Report {
  std::string config;                                        // which configuration, in words
  Location config_file;                                      // and where it lies
  // The lines of the configuration's elements: "model alias", "target
  // alias", "model" or "target", a zero byte, and the alias text or the
  // name -> the lines that hold it.
  std::map<std::string, std::vector<int>> config_lines;
  // The tested properties and the values each takes (nullopt: unset).
  std::vector<std::pair<std::string, std::vector<std::optional<std::string>>>> tested;
  std::vector<Setting> settings;
  size_t product_count = 0;
  std::vector<Row> rows;
  std::vector<Tree> trees;
  std::vector<Stamp> stamps;
  std::vector<Finding> findings;
  std::vector<std::string> old_lines;  // each old release's default version line
};

// Words every part of the report uses (words.cpp).
// Adds a finding to |report|.
void add_finding(Report* report, std::string code, bool error, std::string subject,
                 std::string message, std::string advice, std::vector<Location> locations = {},
                 std::vector<size_t> releases = {});
// The location of file |path| of the tree checked (relative to it), and of
// |path| under /vendor/etc/odm.
Location in_tree_file(const std::string& path, int line = 0);
Location vendor_file(const std::string& device_path);
// |path| under /vendor/etc/odm, relative to it.
std::string in_tree(const std::string& path);
// |text| as it is when it is a plain name, else in quotes with bytes other
// than printable ASCII escaped.
std::string shown(const std::string& text);
// |text| with every byte that could act on a terminal escaped as \xNN:
// control bytes, line breaks among them, C1 controls, bidirectional marks,
// and bytes that are not valid UTF-8.
std::string printable(const std::string& text);
// The length of the UTF-8 sequence at |at| in |text|, its code point in
// |code_point|; 0 when the bytes there are no valid UTF-8.
size_t utf8_sequence(const std::string& text, size_t at, uint32_t* code_point);
// What the checker's inputs hold that a report must name: unreadable entries
// and special files, as findings.
void add_copy_findings(const Options& options, const CopyNotes& notes, Report* report);
// |texts| as they are, one after another, set off by ", ".
std::string comma_list(const std::vector<std::string>& texts);
// |texts| shown, at most |limit| of them, and how many more.
std::string join(const std::vector<std::string>& texts, size_t limit = 6);

// The scratch device (device.cpp).
// The directory that becomes /vendor/etc/odm: the one inside |given| when it
// is a device root (vendor/etc/odm) or a vendor directory (etc/odm), looked
// up inside |given| as a device would, else |given| itself.
std::string find_tree(const std::string& given);
// Makes the scratch device root and points TARNWICK_ROOT at it; nothing of
// the program's library may run before, or it would look up paths on the
// host. Copies |tree| (which becomes /vendor/etc/odm), |old_tree| (the old
// release, when not empty) and what |options| name into it; what the copies
// meet goes into |notes|. Ends the checker when it cannot.
void make_device(const Options& options, const std::string& tree,
                 const std::vector<std::string>& old_trees, CopyNotes* notes);
// The scratch root, made at the first call: packages and images are read
// into it before the device is laid out there.
std::string scratch_root();
// Writes |bytes| to host file |path|, never through a link; ends the checker
// when it cannot.
void write_file(const std::string& path, const std::string& bytes);
// Findings about the starts that had to be stopped or ended abnormally.
std::vector<Finding> starts_that_did_not_end();
// Device path |path| on the host, for what the checker itself lays out there.
std::string host(const std::string& path);
// True when device path |path| is a directory, links followed inside the root.
bool is_directory(const std::string& path);
// The entries of device directory |path| and their types (links not followed).
std::vector<std::pair<std::string, std::filesystem::file_type>> list_dir(const std::string& path);
// Makes /odm what a provisioning run would start from: empty, or a copy of
// --installed; with the configuration the run reads at /odm/etc/odmconfig.xml.
void prepare_odm(const Options& options, bool with_installed);
// Puts a release at /vendor/etc/odm: old release |release| (the number of
// its --update-from), or kNewRelease, the one checked; the others wait at
// kCheckReleases.
void use_release(int release);
// True when the entry at |path| (relative to /vendor/etc/odm; a name without
// a link in it) is the new release's own in release |release|, all the way
// down: then it holds no link either, and reads alike in both.
bool same_as_new(int release, const std::string& path);
// True when the entries of release |release| whose names begin |name| (a
// name without a '/': "odm_A" for "odm_A_RU" too) are the new release's own,
// all the way down.
bool prefixes_as_new(int release, const std::string& name);
// Replaces /odm with a copy of host directory |from|, modes and links kept.
void restore_odm(const std::string& from);
// Copies /odm to host directory |to|, modes and links kept.
void save_odm(const std::string& to);
// Sets property |name| in the store as boot.prop would; an empty value unsets it.
void put_property(const std::string& name, const std::string& value);
// The properties a start with |setting| and |product| begins with: the
// --prop values, the setting's and the product text; an empty value is unset.
std::map<std::string, std::string> boot_properties(const Options& options, const Setting& setting,
                                                   const std::string& product);
// Writes the property store of one start: its boot_properties, nothing else.
void write_properties(const Options& options, const Setting& setting, const std::string& product);
// One device start of the program over the device as it stands, with the
// properties of |setting| and |product|. A start that stops getting on is
// stopped, and one that ends abnormally noted: both become findings
// (starts_that_did_not_end). False, after saying why, when it could not run.
bool start_program(const Options& options, const Setting& setting, const std::string& product);
// True when the last start found the two stamps equal, and so provisioned nothing.
bool stamps_were_equal();
// True when the last start left a restart request.
bool restart_requested();
// True when the last start ended by itself (neither stopped nor killed by a signal).
bool start_ended();

// Each step fills its part of the report, in this order, with the program's
// log silenced.
// The document at /odm/etc/odmconfig.xml: findings, and the property tests of
// its blocks (property name -> values named).
std::map<std::string, std::set<std::string>> scan_config(const std::string& label, Report* report);
// The locations in the configuration of the elements that hold |kind|
// (as in Report::config_lines) |text|.
std::vector<Location> config_locations(const Report& report, const std::string& kind,
                                       const std::string& text);
// The policy type of a property that a vendor service reads as empty on a
// device, or null; |never| tells whether no rule can change that.
const char* unreadable_type(const std::string& name, bool* never);
// |subset| of the report's settings in words, as the resolution table shows them.
std::string settings_in_words(const Report& report, const std::vector<size_t>& subset);
// The resolution table, and the findings about aliases and model names; with
// --update-from each row also has one answer of the old release. False when
// the tested properties have too many settings to show.
bool resolve(const Options& options, const std::map<std::string, std::set<std::string>>& tests,
             Report* report);
// Per final tree: installs, leave-outs, removals; source stamps. Runs the
// program itself for what only a start can tell; false when it could not.
bool examine_trees(const Options& options, Report* report);

// Devices that take the tree after the old release (--update-from) or with
// the installed /odm (--installed), against factory-fresh devices of the tree,
// by running the program: per row, and the findings; false when a start could
// not run.
bool examine_courses(const Options& options, Report* report);

// |document| as text, every text member kept byte for byte (json_text.cpp).
std::string json_text(const nlohmann::json& document);

// The locations of |finding|, as the JSON document gives them.
nlohmann::json locations_json(const Options& options, const Finding& finding);
// Writes the SARIF log of |report| to --sarif's file; ends the checker when it cannot.
void write_sarif(const Options& options, const Report& report);

void print_text(const Options& options, const Report& report);
void print_json(const Options& options, const Report& report);
