// tarnwick-check: explains and checks a vendor ODM tree before it ships. It
// checks the command line, copies the tree into a scratch device root, asks
// the program's library there (and, for device starts, the program) and
// reports.
#include <android-base/logging.h>
#include <dirent.h>
#include <errno.h>
#include <getopt.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "check/check.h"
#include "check/host_io.h"
#include "check/release_input.h"
#include "tarnwick/fileutil/fileutil.h"
#include "tarnwick/paths.h"
#include "tarnwick/platform/host_cutils.h"

namespace fs = std::filesystem;

namespace {

const char kUsage[] = R"(Usage: tarnwick-check [options] VENDOR_ODM_DIR

Explains what tarnwick will do with a vendor ODM tree, before the image is
built: the model and tree each product text gets, what a provisioning run
installs from each tree, and what will go wrong on a device.

VENDOR_ODM_DIR is the directory that becomes /vendor/etc/odm (it holds
odm_default/ and the odm_<model>/ trees); a device root is accepted too, and
so are a target-files package (zipped or extracted) and a vendor image (ext4
or EROFS, raw or sparse), read without mounting.

Options:
  --config FILE      resolve with this configuration, as if it were
                     odm_default's (default: odm_default's, which a
                     provisioning run installs first)
  --product TEXT     a product text to resolve (repeatable; default: every
                     alias, model and target name, tree name, and "")
  --prop NAME=VALUE  fix a property (repeatable; by default each property a
                     block tests takes each value the blocks name, and unset)
  --installed DIR    an existing /odm: tell what its next start does, and
                     what it keeps that a new device of the tree lacks
  --update-from OLD  a release the devices run now (any kind the tree may
                     be): tell what taking this one does to them, against
                     new devices of this one (repeatable: every release
                     still in the field)
  --rollback         with --update-from: also tell what a device keeps
                     that takes this release and rolls back to an old one
  --json             print one JSON document instead of the report
  --sarif FILE       also write the findings to FILE as a SARIF 2.1.0 log,
                     each located in the inputs' files (and lines)
  --strict           warnings fail too
  --version          print the version and exit
  -h, --help         show this text

Exit status: 0 without errors, 1 with errors (or warnings under --strict),
2 on a usage error, an unreadable input or a start that could not run.
)";

bool readable_dir(const std::string& path) {
  std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(path.c_str()), closedir);
  return dir != nullptr;
}

int usage_error(const std::string& message) {
  fprintf(stderr, "tarnwick-check: %s (see --help)\n", printable(message).c_str());
  return 2;
}

// Parses the command line into |options|; returns -1 to go on, else the exit status.
int parse(int argc, char** argv, Options* options) {
  static const option kLong[] = {
      {"config", required_argument, nullptr, 'c'}, {"product", required_argument, nullptr, 'p'},
      {"prop", required_argument, nullptr, 'P'},   {"installed", required_argument, nullptr, 'i'},
      {"update-from", required_argument, nullptr, 'u'}, {"sarif", required_argument, nullptr, 'S'},
      {"rollback", no_argument, nullptr, 'r'},
      {"json", no_argument, nullptr, 'j'},         {"strict", no_argument, nullptr, 's'},
      {"help", no_argument, nullptr, 'h'},         {"version", no_argument, nullptr, 'V'},
      {nullptr, 0, nullptr, 0}};
  opterr = 0;
  int c;
  while ((c = getopt_long(argc, argv, ":h", kLong, nullptr)) != -1) {
    const std::string arg = optarg != nullptr ? optarg : "";
    switch (c) {
      case 'c': options->config = arg; break;
      case 'i': options->installed = arg; break;
      case 'u': options->update_from.push_back(arg); break;
      case 'r': options->rollback = true; break;
      case 'S': options->sarif = arg; break;
      case 'j': options->json = true; break;
      case 's': options->strict = true; break;
      case 'h': fputs(kUsage, stdout); return 0;
      case 'V': printf("tarnwick-check %s\n", TARNWICK_VERSION); return 0;
      case 'p':
        if (!options->products) options->products.emplace();
        options->products->push_back(arg);
        break;
      case 'P': {
        const size_t eq = arg.find('=');
        const std::string name = arg.substr(0, eq);
        if (eq == std::string::npos) return usage_error("--prop needs NAME=VALUE");
        if (!tarnwick_host::is_legal_property_name(name.c_str())) {
          return usage_error("--prop: " + shown(name) + " is not a legal property name");
        }
        if (name == kProductProperty) return usage_error("give product texts with --product");
        options->props[name] = arg.substr(eq + 1);
        break;
      }
      case ':': return usage_error(std::string(argv[optind - 1]) + " needs a value");
      default: return usage_error(std::string("unknown option ") + argv[optind - 1]);
    }
  }
  if (optind + 1 != argc) return usage_error(optind == argc ? "give VENDOR_ODM_DIR" : "give one VENDOR_ODM_DIR");
  if (options->rollback && options->update_from.empty()) {
    return usage_error("--rollback needs the releases to roll back to: give --update-from");
  }
  options->tree = argv[optind];
  return -1;
}

// -1 when |tree|, given as |given|, is a vendor ODM tree; else the exit status
// after saying what is wrong.
int check_tree(const std::string& given, const std::string& tree) {
  std::unique_ptr<DIR, int (*)(DIR*)> listing(opendir(tree.c_str()), closedir);
  if (!listing) {
    return usage_error("cannot read " + given + ": " + strerror(errno));
  }
  bool any_tree = false;
  while (const dirent* entry = readdir(listing.get())) {
    any_tree = any_tree || strncmp(entry->d_name, "odm_", 4) == 0;
  }
  if (!any_tree) {
    return usage_error(given + " holds no odm_<model> tree: give the directory that "
                       "becomes /vendor/etc/odm, or a device root");
  }
  return -1;
}

// What the command line names must be there before anything is copied. Plain
// C library calls: the library's own resolve inside the device root, which
// does not exist yet.
int check_arguments(const Options& options, const std::string& tree,
                    const std::vector<std::string>& old_trees) {
  if (const int status = check_tree(options.tree, tree); status >= 0) return status;
  for (size_t k = 0; k < old_trees.size(); ++k) {
    if (const int status = check_tree("--update-from " + options.update_from[k], old_trees[k]);
        status >= 0) {
      return status;
    }
  }
  if (!options.config.empty() && access(options.config.c_str(), R_OK) != 0) {
    return usage_error("cannot read --config " + options.config + ": " + strerror(errno));
  }
  if (!options.installed.empty() && !readable_dir(options.installed)) {
    return usage_error("cannot read --installed " + options.installed + ": " + strerror(errno));
  }
  return -1;
}

// The report and its exit status, over the checker's device.
int check(const Options& options, const CopyNotes& notes) {
  // The library's own log lines would bury the report.
  android::base::SetMinimumLogSeverity(android::base::FATAL);
  Report report;
  const bool installed_config = !options.installed.empty() &&
                                exists_file(std::string(kCheckInstalled) + "/etc/odmconfig.xml");
  const std::string label = !options.config.empty() ? options.config
                            : exists_file(kDefaultConfigPath) ? "odm_default/odm/etc/odmconfig.xml"
                            : installed_config ? options.installed + "/etc/odmconfig.xml"
                                               : "";
  report.config = label.empty() ? "none" : label;
  report.config_file = !options.config.empty()       ? Location{kInConfig, "", 0}
                       : exists_file(kDefaultConfigPath) ? vendor_file(kDefaultConfigPath)
                       : installed_config                ? Location{kInInstalled, "etc/odmconfig.xml", 0}
                                                         : vendor_file(kDefaultConfigPath);
  if (label.empty()) {
    add_finding(&report, "no-config", false, "odm_default/odm/etc/odmconfig.xml",
                "is missing: a provisioning run reads whatever /odm/etc/odmconfig.xml holds, "
                "here nothing, so every product text is its own model",
                "ship the configuration in odm_default", {report.config_file});
  }
  prepare_odm(options, !options.installed.empty());
  auto tests = label.empty() ? std::map<std::string, std::set<std::string>>()
                             : scan_config(label, &report);
  for (size_t k = 0; k < options.update_from.size(); ++k) {
    // The old releases' configurations test properties too: the settings are
    // those of all. What is wrong with them is not this check's matter.
    use_release(k);
    prepare_odm(options, false);
    Report old;
    for (const auto& [name, values] : scan_config("old", &old)) tests[name].insert(values.begin(), values.end());
    std::string line;
    if (UniqueFile stamp = open_file(kDefaultStampPath, "r")) {
      for (std::string read; read_line(stamp.get(), &read);) line = read;
    }
    report.old_lines.push_back(line);
    use_release(kNewRelease);
    prepare_odm(options, !options.installed.empty());
  }
  if (!resolve(options, tests, &report)) {
    fprintf(stderr, "tarnwick-check: the tested properties have more than 4096 settings; "
                    "fix some with --prop\n");
    return 2;
  }
  if (!examine_trees(options, &report) || !examine_courses(options, &report)) return 2;
  add_copy_findings(options, notes, &report);
  // A start that did not end is about the special and unreadable entries,
  // when the inputs hold some, else about the tree's configuration.
  std::vector<Location> suspects;
  for (const Finding& f : report.findings) {
    if (f.code == "special-file" || f.code == "unreadable") suspects.push_back(f.locations[0]);
  }
  if (suspects.empty()) suspects.push_back(report.config_file);
  for (Finding f : starts_that_did_not_end()) {
    add_finding(&report, f.code, f.error, f.subject, f.message, f.advice, suspects);
  }
  if (options.json) {
    print_json(options, report);
  } else {
    print_text(options, report);
  }
  if (!options.sarif.empty()) write_sarif(options, report);
  const bool errors = std::any_of(report.findings.begin(), report.findings.end(),
                                  [](const Finding& f) { return f.error; });
  return errors || (options.strict && !report.findings.empty()) ? 1 : 0;
}

// The vendor ODM tree of the release given as |given| (|option| says where,
// |label| names it in |notes|): a directory inside it, or read into
// directory |dir| of the scratch root from a package or an image; where it
// stands in the input in |inner|. Entries the reading could not make go
// into |unmade|, as the copy of a directory notes them.
std::string read_input(const std::string& option, const std::string& given, const std::string& label,
                       const std::string& dir, std::string* inner, std::string* kind,
                       std::vector<CopyNote>* unmade) {
  const std::string scratch = scratch_root() + dir;
  ReleaseInput release;
  std::string error;
  if (mkdir(scratch.c_str(), 0700) != 0) fail("cannot make " + scratch + ": " + strerror(errno));
  if (!read_release(given, scratch, &release, &error)) fail(option + error);
  for (const auto& [name, what] : release.unmade) unmade->push_back({label, name, what});
  *inner = release.inner;
  *kind = release.kind;
  return release.tree;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  int status = parse(argc, argv, &options);
  if (status >= 0) return status;
  std::vector<CopyNote> unmade;
  const std::string tree =
      read_input("", options.tree, "", "/input", &options.tree_inner, &options.tree_kind, &unmade);
  std::vector<std::string> old_trees;
  for (size_t k = 0; k < options.update_from.size(); ++k) {
    options.update_from_inner.emplace_back();
    options.update_from_kind.emplace_back();
    old_trees.push_back(read_input("--update-from ", options.update_from[k], options.update_from[k],
                                   "/input-old-" + std::to_string(k), &options.update_from_inner.back(),
                                   &options.update_from_kind.back(), &unmade));
  }
  status = check_arguments(options, tree, old_trees);
  if (status >= 0) return status;
  CopyNotes notes;
  make_device(options, tree, old_trees, &notes);
  notes.special.insert(notes.special.end(), unmade.begin(), unmade.end());
  return check(options, notes);
}
