// What each final tree installs, and what only a device start can tell: the
// source stamps, by running the program itself over the checker's device.
#include <stdio.h>

#include <algorithm>
#include <set>

#include "check/check.h"
#include "tarnwick/config/config.h"
#include "tarnwick/fileutil/fileutil.h"
#include "tarnwick/paths.h"
#include "tarnwick/platform/host_cutils.h"
#include "tarnwick/provision/provision.h"
#include "tarnwick/state.h"

namespace fs = std::filesystem;

namespace {

const char kTreeConfig[] = "odmconfig.xml";

// The rows whose files come from |model|'s tree.
std::vector<const Row*> rows_installing(const Report& report, const std::string& model) {
  std::vector<const Row*> rows;
  for (const Row& row : report.rows) {
    if (row.final_model == model) rows.push_back(&row);
  }
  return rows;
}

// A configuration among a tree's files replaces the installed one after the
// run: the image name query reads it, and so does the next run when there is
// no default configuration to install first.
void check_tree_config(const Options& options, const Report& report, const Tree& tree,
                       Report* out) {
  copy_file(source_etc_dir(tree.model) + kTreeConfig, kConfigPath);
  std::string changes;
  std::set<std::string> asked;
  for (const Row* row : rows_installing(report, tree.model)) {
    if (!asked.insert(row->products[0]).second) continue;
    write_properties(options, report.settings[row->settings[0]], row->products[0]);
    ModelAliasMap.clear();
    TargetAliasMap.clear();
    create_map_from_config();
    const std::string answer =
        confirm_model_source(select_model_name(kImageNameQuery), kImageNameQuery);
    if (answer != tree.model) changes += ", " + shown(row->products[0]) + " then gets " + answer;
  }
  const bool bootstrap = exists_file(kDefaultConfigPath);
  std::string effect = bootstrap ? "the image name query reads it (the next run installs "
                                   "odm_default's first)"
                                 : "the next run and the image name query read it";
  effect += changes.empty() ? ", and it picks the same models" : changes;
  add_finding(out, "tree-config", false, "odm_" + tree.model + "/odm/etc/" + kTreeConfig,
              "is installed over /odm/etc/odmconfig.xml after the configuration was read: " +
                  effect,
              "keep the configuration in odm_default only",
              {vendor_file(source_etc_dir(tree.model) + kTreeConfig)});
}

}  // namespace

bool examine_trees(const Options& options, Report* report) {
  if (!exists_file(source_manifest_path(kDefaultModel))) {
    const bool tree = is_directory(kModelTreePrefix + std::string(kDefaultModel));
    add_finding(report, "no-fallback", true, std::string("odm_") + kDefaultModel,
                tree ? "the fallback tree has no vintf/manifest.xml"
                     : "the fallback tree is missing",
                "devices whose model has no tree get no manifest: ship the fallback tree whole",
                {vendor_file(source_manifest_path(kDefaultModel))});
  }

  for (const Row& row : report->rows) {
    auto it = std::find_if(report->trees.begin(), report->trees.end(),
                           [&](const Tree& t) { return t.model == row.final_model; });
    if (it == report->trees.end()) {
      it = report->trees.insert(report->trees.end(), Tree{row.final_model, {}, {}, {}});
    }
    auto& removes = it->removes[row.preliminary];
    if (removes.empty()) {
      for (const std::string& path : stale_manifest_paths(row.preliminary)) {
        removes.push_back(path.substr(sizeof(kOdmEtcDir) - 1));
      }
    }
  }
  for (Tree& tree : report->trees) {
    const std::string etc = source_etc_dir(tree.model);
    OdmFileList.clear();
    get_all_files(etc);
    std::vector<std::string> listed = OdmFileList;
    std::sort(listed.begin(), listed.end());
    tree.installs.assign(std::begin(kFixedInstalls), std::end(kFixedInstalls));
    tree.installs.insert(tree.installs.end(), listed.begin(), listed.end());
    // What the listing passes over, and what stands beside the fixed installs
    // in their own directories.
    std::set<std::string> fixed_dirs;
    for (const char* name : kFixedInstalls) fixed_dirs.insert(fs::path(name).parent_path());
    auto entries = list_dir(etc);
    for (const std::string& dir : fixed_dirs) {
      const auto own = std::make_pair(dir, fs::file_type::directory);
      if (std::count(entries.begin(), entries.end(), own) == 0) continue;
      for (const auto& [name, type] : list_dir(etc + dir)) {
        entries.emplace_back(dir + "/" + name, type);
      }
    }
    for (const auto& [name, type] : entries) {
      if (name.find('/') == std::string::npos
              ? std::binary_search(listed.begin(), listed.end(), name) ||
                    (fixed_dirs.count(name) != 0 && type == fs::file_type::directory)
              : std::count(tree.installs.begin(), tree.installs.end(), name) != 0) {
        continue;
      }
      tree.left_out.emplace_back(name, type == fs::file_type::symlink     ? "link"
                                       : type == fs::file_type::directory ? "directory"
                                       : type == fs::file_type::regular   ? "not listed"
                                                                          : "not a regular file");
    }
    std::sort(tree.left_out.begin(), tree.left_out.end());
    if (exists_file(source_manifest_path(tree.model)) && !exists_file(etc + kFixedInstalls[1])) {
      add_finding(report, "no-unavailable-features", false, "odm_" + tree.model,
                  std::string("has no etc/") + kFixedInstalls[1] +
                      ": each provisioning empties the installed copy and logs an error",
                  "add the file, with no feature in it if none is unavailable",
                  {vendor_file(etc + kFixedInstalls[1])});
    }
    if (std::binary_search(listed.begin(), listed.end(), kTreeConfig)) {
      check_tree_config(options, *report, tree, report);
    }
  }

  // The source stamps: two starts over an empty /odm each. When the second
  // provisions again, the stamp gives an empty version line.
  for (const Row& row : report->rows) {
    auto it = std::find_if(report->stamps.begin(), report->stamps.end(),
                           [&](const Stamp& s) { return s.path == row.stamp; });
    if (it == report->stamps.end()) {
      prepare_odm(options, false);
      const Setting& setting = report->settings[row.settings[0]];
      if (!start_program(options, setting, row.products[0])) return false;
      std::string line;
      if (UniqueFile stamp = open_file(kInstalledStampPath, "r")) read_line(stamp.get(), &line);
      if (!start_program(options, setting, row.products[0])) return false;
      it = report->stamps.insert(report->stamps.end(), {row.stamp, {}, line, !stamps_were_equal()});
    }
    it->products.insert(it->products.end(), row.products.begin(), row.products.end());
  }
  for (Stamp& stamp : report->stamps) {
    std::sort(stamp.products.begin(), stamp.products.end());
    stamp.products.erase(std::unique(stamp.products.begin(), stamp.products.end()),
                         stamp.products.end());
    const std::string shown = in_tree(stamp.path);
    if (stamp.path != kDefaultStampPath) {
      const UniqueFile file = open_file(stamp.path, "r");
      const bool empty = file && getc(file.get()) == EOF;
      add_finding(report, "sku-stamp", false, shown,
                  "replaces odm_default/odm/odmver.txt for " + join(stamp.products) +
                      (empty ? ", and is empty" : ""),
                  "keep one stamp, in odm_default", {vendor_file(stamp.path)});
    }
    if (stamp.restarts_every_start) {
      const bool missing = !exists_file(stamp.path);
      add_finding(report, missing ? "no-source-stamp" : "empty-version-line", true, shown,
                  std::string(missing ? "is missing" : "ends in an empty line") +
                      ": every start provisions and restarts the device (" +
                      join(stamp.products) + ")",
                  "ship the stamp with the version as its last line", {vendor_file(stamp.path)});
    }
  }

  return true;
}
