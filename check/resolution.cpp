// The resolution table: every product text under every setting of the tested
// properties, answered by the program's own loader, look-up and selection.
#include <stdio.h>

#include <algorithm>
#include <filesystem>
#include <tuple>
#include <unordered_map>

#include "check/check.h"
#include "check/host_io.h"
#include "tarnwick/config/config.h"
#include "tarnwick/fileutil/fileutil.h"
#include "tarnwick/paths.h"
#include "tarnwick/platform/host_cutils.h"
#include "tarnwick/state.h"

namespace fs = std::filesystem;

namespace {

// More settings than this ask for --prop rather than a table nobody reads.
const size_t kMaxSettings = 4096;

using Values = std::vector<std::optional<std::string>>;  // the values one property takes

std::string trimmed(const std::string& text) {
  const char* blanks = " \t\r\n";
  const size_t begin = text.find_first_not_of(blanks);
  return begin == std::string::npos ? "" : text.substr(begin, text.find_last_not_of(blanks) + 1 - begin);
}

std::string value_text(const std::optional<std::string>& value) {
  return value ? shown(*value) : "(unset)";
}

// The settings |subset| in words: "any" when it holds them all, values per
// property when it is a product of values, else one setting after another.
std::string describe(const std::vector<Values>& options, const std::vector<Setting>& settings,
                     const std::vector<size_t>& subset) {
  if (subset.size() == settings.size()) return "any";
  std::vector<std::set<std::optional<std::string>>> seen(options.size());
  for (size_t s : subset) {
    for (size_t i = 0; i < options.size(); ++i) seen[i].insert(settings[s][i].second);
  }
  size_t product = 1;
  for (const auto& values : seen) product *= values.size();
  std::string text;
  if (product == subset.size()) {
    for (size_t i = 0; i < options.size(); ++i) {
      if (seen[i].size() == options[i].size()) continue;
      std::string values;
      for (const auto& v : seen[i]) values += (values.empty() ? "" : "|") + value_text(v);
      text += (text.empty() ? "" : ", ") + settings[subset[0]][i].first + "=" + values;
    }
    return text;
  }
  for (size_t s : subset) {
    std::string one;
    for (const auto& [name, value] : settings[s]) {
      one += (one.empty() ? "" : ", ") + name + "=" + value_text(value);
    }
    text += (text.empty() ? "(" : " or (") + one + ")";
  }
  return text;
}

// Why |product| came out as it did, in words. The answers themselves come
// from the selection; this only names the step that decided them.
std::string reason(const std::string& product, const std::string& target_hit,
                   const std::string& model_hit, const std::string& preliminary,
                   const std::string& final_model, bool has_manifest) {
  std::string why = target_hit != product ? "target " + shown(target_hit) + " overrides"
                    : model_hit != product ? "alias of model " + shown(model_hit)
                    : product.empty()      ? "empty"
                                           : "no match, so the text itself";
  if ((target_hit != product ? target_hit : model_hit).empty()) {
    why += std::string(", so ") + kDefaultModel;
  }
  if (final_model != preliminary) {
    const bool cut = preliminary == final_model + kRegionalSuffix;
    why += cut ? "; no manifest, so \"_RU\" dropped" : "; no manifest, so the fallback";
  } else if (!has_manifest) {
    why += "; its tree has no manifest";
  }
  return why;
}

using Tables = std::vector<std::pair<AliasMap, AliasMap>>;  // per setting

// What the selection gives one product text under one setting: its models,
// the source stamp its start reads, why (in words), and the same of each old
// release (with --update-from).
struct Answer {
  std::string preliminary, final_model, stamp, why;
  // Per old release: its preliminary model, final model and source stamp,
  // each by its number among the Texts.
  std::vector<uint32_t> old;
  std::string key() const {
    std::string key = preliminary + '\0' + final_model + '\0' + stamp + '\0' + why + '\0';
    key.append(reinterpret_cast<const char*>(old.data()), old.size() * sizeof(old[0]));
    return key;
  }
};

// Texts by number: the old releases' answers for every product text and
// setting are mostly the same few.
struct Texts {
  std::unordered_map<std::string, uint32_t> ids;
  std::vector<const std::string*> by_id;
  uint32_t id(const std::string& text) {
    const auto [it, added] = ids.emplace(text, static_cast<uint32_t>(by_id.size()));
    if (added) by_id.push_back(&it->first);
    return it->second;
  }
  const std::string& operator[](uint32_t id) const { return *by_id[id]; }
};

// The tables of each setting, as a provisioning run loads them from the
// configuration at /odm/etc/odmconfig.xml; the same for every release that
// ships the same configuration.
const Tables& load_tables(const Options& options, const std::vector<Setting>& settings) {
  // Releases that ship the same configuration load the same tables.
  static std::map<std::string, Tables> loaded;
  const UniqueFile config = open_file(kConfigPath, "r");
  const std::string bytes = config ? digest_of(fileno(config.get())) : "<none>";
  Tables& tables = loaded[bytes];
  if (!tables.empty()) return tables;
  for (const Setting& setting : settings) {
    write_properties(options, setting, "");
    ModelAliasMap.clear();
    TargetAliasMap.clear();
    create_map_from_config();
    tables.emplace_back(ModelAliasMap, TargetAliasMap);
  }
  return tables;
}

// Every alias, model and target name of |tables| (unless null), and the name
// of every tree of the release at /vendor/etc/odm.
void add_products(const Tables* tables, std::set<std::string>* products) {
  for (size_t s = 0; tables != nullptr && s < tables->size(); ++s) {
    for (const AliasMap* table : {&(*tables)[s].first, &(*tables)[s].second}) {
      for (const auto& [key, alias] : *table) products->insert({key, alias});
    }
  }
  const std::string dir = fs::path(kModelTreePrefix).parent_path();
  for (const auto& entry : list_dir(dir)) {
    const std::string& name = entry.first;
    if (name.rfind("odm_", 0) == 0 && is_directory(dir + "/" + name)) products->insert(name.substr(4));
  }
}

// Drops what a property read cannot give; says (into |report|, when given)
// which product texts lead out of their trees.
void erase_unreadable(std::set<std::string>* products, Report* report) {
  for (auto it = products->begin(); it != products->end();) {
    if (it->size() >= PROP_VALUE_MAX) {
      it = products->erase(it);  // a property read cannot give it; its alias is reported
      continue;
    }
    if (report != nullptr && (it->find('/') != std::string::npos || it->find("..") != std::string::npos)) {
      std::vector<Location> where;
      for (const char* kind : {"model alias", "target alias", "model", "target"}) {
        for (const Location& l : config_locations(*report, kind, *it)) where.push_back(l);
      }
      if (where.empty()) where.push_back(in_tree_file("odm_" + it->substr(0, it->find('/'))));
      add_finding(report, "path-product", false, "product text " + shown(*it),
                  "holds \"/\" or \"..\": the paths built from it leave odm_" + *it,
                  "use product texts that are plain names", where);
    }
    ++it;
  }
}

// The answers of the selection over one setting's tables: both look-ups
// indexed, so that each product text costs a find, not a pass over the table.
struct Lookups {
  std::map<std::string, std::string> models, targets;
  explicit Lookups(const std::pair<AliasMap, AliasMap>& tables)
      : models(index_aliases(tables.first)), targets(index_aliases(tables.second)) {}
};

std::string looked_up(const std::map<std::string, std::string>& index, const std::string& text) {
  const auto it = index.find(text);
  return it == index.end() ? text : it->second;
}

// The final models of the names asked so far in the release at
// /vendor/etc/odm, each asked once; and whether the fallback has a manifest.
struct Finals {
  std::map<std::string, std::string> of;
  std::optional<bool> fallback_has_manifest;
};

const std::string& final_of(const std::string& preliminary, Finals* finals) {
  auto [it, added] = finals->of.emplace(preliminary, std::string());
  if (added) it->second = confirm_model_source(preliminary, kProvisioningRun);
  return it->second;
}

// Whether the tree of final model |model| has a manifest: every final model
// but the fallback has one.
bool has_manifest(const std::string& model, Finals* finals) {
  if (model != kDefaultModel) return true;
  if (!finals->fallback_has_manifest) {
    finals->fallback_has_manifest = exists_file(source_manifest_path(kDefaultModel));
  }
  return *finals->fallback_has_manifest;
}

// The answer for |product| under |lookups|, over the release at
// /vendor/etc/odm, as select_model_name and confirm_model_source give it.
Answer answer(const std::string& product, const Lookups& lookups, Finals* finals) {
  const std::string model_hit = looked_up(lookups.models, product);
  const std::string target_hit = looked_up(lookups.targets, product);
  Answer a;
  a.preliminary = or_default_model(target_overrides(product, target_hit) ? target_hit : model_hit);
  a.final_model = final_of(a.preliminary, finals);
  a.why = reason(product, target_hit, model_hit, a.preliminary, a.final_model,
                 has_manifest(a.final_model, finals));
  return a;
}

// The entries of /vendor/etc/odm. A device path under it whose first
// component is none of them cannot be opened: asking is then not needed.
std::set<std::string> release_entries() {
  std::set<std::string> names;
  for (const auto& entry : list_dir(fs::path(kModelTreePrefix).parent_path())) names.insert(entry.first);
  return names;
}

// True when the device path made of kModelTreePrefix, |name| and more can
// lead anywhere, by |entries|.
bool may_exist(const std::set<std::string>& entries, const std::string& name) {
  return entries.count("odm_" + name.substr(0, name.find('/'))) != 0;
}

// The source stamp each of |products| reads, in release |release| at
// /vendor/etc/odm; where a product's tree is the new release's, the new
// one's (|new_stamps|, the new release's own, unless |release| is it).
std::vector<std::string> stamps_of(const std::set<std::string>& products, int release,
                                   const std::vector<std::string>& new_stamps) {
  const std::set<std::string> entries = release_entries();
  std::vector<std::string> stamps;
  for (const std::string& product : products) {
    const size_t p = stamps.size();
    if (release != kNewRelease && product.find('/') == std::string::npos && same_as_new(release, "odm_" + product)) {
      stamps.push_back(new_stamps[p]);
      continue;
    }
    const std::string sku = sku_stamp_path(product);
    stamps.push_back(may_exist(entries, product) && exists_file(sku) ? sku : kDefaultStampPath);
  }
  return stamps;
}

void check_aliases(const Tables& tables, Report* report) {
  std::set<std::string> reported;
  for (const auto& pair : tables) {
    for (const AliasMap* table : {&pair.first, &pair.second}) {
      const std::string kind = table == &pair.first ? "model" : "target";
      std::map<std::string, std::vector<std::string>> owners;
      for (const auto& [key, alias] : *table) {
        auto& keys = owners[alias];
        if (keys.empty() || keys.back() != key) keys.push_back(key);
      }
      for (const auto& [alias, keys] : owners) {
        if (!reported.insert(kind + '\0' + alias).second) continue;
        if (alias.size() >= PROP_VALUE_MAX) {
          add_finding(report, "long-alias", false, "alias " + shown(alias.substr(0, 40) + "..."),
                      "is " + std::to_string(alias.size()) +
                          " bytes long: no product text can match it (at most 91 bytes)",
                      "shorten the alias", config_locations(*report, kind + " alias", alias));
        }
        if (!alias.empty() && trimmed(alias) != alias) {
          add_finding(report, "alias-whitespace", false, "alias " + shown(alias),
                      "has blanks or line breaks around its text, which a product text must "
                      "then carry too",
                      "write it as <alias>" + trimmed(alias) + "</alias>",
                      config_locations(*report, kind + " alias", alias));
        }
        if (keys.size() < 2) continue;
        std::string names;
        for (size_t i = 0; i < keys.size(); ++i) {
          names += (i == 0 ? "" : i + 1 == keys.size() ? " and " : ", ") + shown(keys[i]);
        }
        add_finding(report, "ambiguous-alias", false, "alias " + shown(alias),
                    "stands under the " + kind + "s " + names + "; " +
                        shown(first_entry_with(*table, alias)->first) +
                        " wins, by name order, not by order in the file",
                    "keep each alias under one " + kind, config_locations(*report, kind + " alias", alias));
      }
    }
  }
}

// Models and targets the configuration names whose tree cannot be installed.
// |finals| knows the final model of each name (a name is its own final model
// exactly when its tree has a manifest).
void check_names(const Tables& tables, Finals* finals, Report* report) {
  std::set<std::pair<std::string, std::string>> names;
  for (const auto& [models, targets] : tables) {
    for (const auto& entry : models) names.insert({"model", entry.first});
    for (const auto& entry : targets) names.insert({"target", entry.first});
  }
  const std::set<std::string> entries = release_entries();
  for (const auto& [kind, name] : names) {
    const std::string instead = final_of(name, finals);
    // The fallback's own tree is the fallback finding's matter.
    if (name == kDefaultModel || instead == name) continue;
    const bool tree = may_exist(entries, name) && is_directory(kModelTreePrefix + name);
    // A name with no tree of its own that the selection maps to another real
    // tree (the regional rule) is by design; a tree it skips is not.
    if (!tree && instead != kDefaultModel) continue;
    add_finding(report, "missing-tree", false, kind + " " + shown(name),
                (tree ? "its tree odm_" + name + " has no vintf/manifest.xml"
                      : "has no tree odm_" + name) +
                    ": its devices get odm_" + instead,
                tree ? "add the manifest to the tree" : "add the tree, or fix the name",
                config_locations(*report, kind, name));
  }
}

}  // namespace

std::string settings_in_words(const Report& report, const std::vector<size_t>& subset) {
  std::vector<Values> values;
  for (const auto& tested : report.tested) values.push_back(tested.second);
  return describe(values, report.settings, subset);
}

bool resolve(const Options& options, const std::map<std::string, std::set<std::string>>& tests,
             Report* report) {
  // Each tested property takes the values the blocks name, and unset; one
  // value when fixed by --prop; only unset when a vendor service reads it as
  // empty. An empty value reads as unset. The product text is the row's own.
  std::vector<std::string> names;
  std::vector<Values> values;
  for (const auto& [name, named] : tests) {
    bool never;
    if (name == kProductProperty || options.props.count(name) != 0 ||
        !tarnwick_host::is_legal_property_name(name.c_str()) || unreadable_type(name, &never)) {
      continue;
    }
    Values taken;
    for (const auto& v : named) {
      if (!v.empty() && v.size() < PROP_VALUE_MAX) taken.push_back(v);
    }
    taken.push_back(std::nullopt);
    names.push_back(name);
    values.push_back(taken);
  }
  report->settings.assign(1, Setting());
  for (size_t i = 0; i < names.size(); ++i) {
    std::vector<Setting> grown;
    for (const Setting& setting : report->settings) {
      for (const auto& v : values[i]) {
        grown.push_back(setting);
        grown.back().emplace_back(names[i], v);
      }
    }
    report->settings = std::move(grown);
    if (report->settings.size() > kMaxSettings) return false;
    report->tested.emplace_back(names[i], values[i]);
  }

  const Tables& tables = load_tables(options, report->settings);
  check_aliases(tables, report);
  Finals finals;
  check_names(tables, &finals, report);

  std::set<std::string> products;
  if (options.products) {
    products.insert(options.products->begin(), options.products->end());
  } else {
    products.insert("");
    add_products(&tables, &products);
  }
  // The old releases' tables, and product texts of their own, which their
  // devices may well carry.
  std::vector<const Tables*> old_tables;
  for (size_t k = 0; k < options.update_from.size(); ++k) {
    use_release(k);
    prepare_odm(options, false);
    old_tables.push_back(&load_tables(options, report->settings));
    // Tables loaded before gave their product texts already; the trees are the release's own.
    const bool known = old_tables.back() == &tables ||
                       std::find(old_tables.begin(), old_tables.end() - 1, old_tables.back()) != old_tables.end() - 1;
    if (!options.products) add_products(known ? nullptr : old_tables.back(), &products);
    use_release(kNewRelease);
    prepare_odm(options, !options.installed.empty());
  }
  erase_unreadable(&products, report);
  report->product_count = products.size();

  // answers[p][s]: the answer for product p under setting s.
  std::vector<std::vector<Answer>> answers(products.size());
  const std::vector<std::string> stamps = stamps_of(products, kNewRelease, {});
  for (size_t s = 0; s < report->settings.size(); ++s) {
    const Lookups lookups(tables[s]);
    size_t p = 0;
    for (const std::string& product : products) {
      Answer a = answer(product, lookups, &finals);
      a.stamp = stamps[p];
      answers[p++].push_back(a);
    }
  }
  // The old releases' answers. The preliminary model depends on the tables
  // and the product text alone, so where two releases load the same tables
  // the old one's is the new one's, and only the trees are asked again.
  Texts texts;
  std::vector<std::vector<uint32_t>> new_preliminary(products.size());
  if (!old_tables.empty()) {
    for (size_t p = 0; p < products.size(); ++p) {
      for (const Answer& a : answers[p]) new_preliminary[p].push_back(texts.id(a.preliminary));
    }
  }
  for (size_t k = 0; k < old_tables.size(); ++k) {
    use_release(k);
    std::vector<uint32_t> old_stamps;
    for (const std::string& stamp : stamps_of(products, k, stamps)) old_stamps.push_back(texts.id(stamp));
    Finals old_finals;
    std::vector<uint32_t> final_of_id;  // by preliminary's number
    for (size_t s = 0; s < report->settings.size(); ++s) {
      const Tables& old = *old_tables[k];
      const bool same_tables = &old == &tables || old[s] == tables[s];
      const std::optional<Lookups> lookups = same_tables ? std::nullopt : std::make_optional<Lookups>(old[s]);
      size_t p = 0;
      for (const std::string& product : products) {
        const uint32_t preliminary =
            same_tables ? new_preliminary[p][s] : texts.id(answer(product, *lookups, &old_finals).preliminary);
        if (final_of_id.size() <= preliminary) final_of_id.resize(texts.by_id.size(), UINT32_MAX);
        uint32_t& final_model = final_of_id[preliminary];
        if (final_model == UINT32_MAX) {
          // Trees that are the new release's answer as the new one's.
          const std::string& name = texts[preliminary];
          const bool as_new = name.find('/') == std::string::npos && prefixes_as_new(k, "odm_" + name);
          final_model = texts.id(final_of(name, as_new ? &finals : &old_finals));
        }
        answers[p][s].old.insert(answers[p][s].old.end(), {preliminary, final_model, old_stamps[p]});
        ++p;
      }
    }
    use_release(kNewRelease);
  }

  // One row per answer, its product texts and settings merged.
  std::map<std::string, size_t> row_of;
  size_t p = 0;
  for (const std::string& product : products) {
    std::vector<std::pair<std::string, std::vector<size_t>>> groups;
    for (size_t s = 0; s < answers[p].size(); ++s) {
      const std::string key = answers[p][s].key();
      auto it = std::find_if(groups.begin(), groups.end(), [&](const auto& g) { return g.first == key; });
      if (it == groups.end()) it = groups.insert(groups.end(), {key, {}});
      it->second.push_back(s);
    }
    for (const auto& [key, settings] : groups) {
      const Answer& a = answers[p][settings[0]];
      const std::string when = describe(values, report->settings, settings);
      auto [it, added] = row_of.emplace(when + '\0' + key, report->rows.size());
      if (added) {
        Row row;
        for (size_t k = 0; k < a.old.size(); k += 3) {
          row.old_preliminary.push_back(texts[a.old[k]]);
          row.old_final.push_back(texts[a.old[k + 1]]);
          row.old_stamp.push_back(texts[a.old[k + 2]]);
        }
        row.settings = settings;
        row.when = when;
        row.preliminary = a.preliminary;
        row.final_model = a.final_model;
        row.why = a.why;
        row.stamp = a.stamp;
        report->rows.push_back(row);
      }
      report->rows[it->second].products.push_back(product);
    }
    ++p;
  }
  return true;
}
