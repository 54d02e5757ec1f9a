// tarnwick-check against the program it explains; its findings and exit
// statuses.
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <unistd.h>

#include "tests/harness.h"

namespace fs = std::filesystem;

namespace {

using Codes = std::multiset<std::string>;

const std::string kSamples = EXAMPLES_DIR;
const auto kCopyTree = fs::copy_options::recursive | fs::copy_options::copy_symlinks;

nlohmann::json report(std::vector<std::string> args) {
  std::string out;
  args.insert(args.begin(), {TARNWICK_CHECK, "--json"});
  run(args, &out);
  return nlohmann::json::parse(out);
}

Codes codes(const std::vector<std::string>& args) {
  Codes out;
  const nlohmann::json doc = report(args);
  for (const auto& f : doc["findings"]) out.insert(f["code"].get<std::string>());
  return out;
}

// Every row of the table, each product text under each setting, against the
// image name query of the program on a device with the same configuration.
TEST(Check, EveryRowIsWhatTheProgramSelects) {
  for (const std::string sample : {"device", "faulty"}) {
    const std::string tree = kSamples + "/" + sample + "/vendor/etc/odm", root = make_root();
    fs::create_directories(root + "/vendor/etc");
    fs::copy(tree, root + "/vendor/etc/odm", kCopyTree);
    put(root + "/odm/etc/odmconfig.xml", get(tree + "/odm_default/odm/etc/odmconfig.xml"));
    const nlohmann::json doc = report({tree});
    ASSERT_FALSE(doc["rows"].empty());
    for (const auto& row : doc["rows"]) {
      for (const std::string product : row["products"]) {
        // boot.prop trims values as build.prop does: such a text cannot be given at boot.
        for (size_t s : row["settings"]) {
          std::string boot_prop = "ro.vendor.product=" + product + "\n";
          for (const auto& [name, value] : doc["settings"][s].items()) {
            if (!value.is_null()) boot_prop += name + "=" + value.get<std::string>() + "\n";
          }
          if (product.find_first_of(" \t") == 0) continue;
          put(root + "/boot.prop", boot_prop);
          boot(root, {"automation"});
          EXPECT_EQ(prop(root, "ro.vendor.odm_image"), row["final"]) << sample << ": " << boot_prop;
        }
      }
    }
    remove_root(root);
  }
}

TEST(Check, Findings) {
  const std::string faulty = kSamples + "/faulty";
  EXPECT_EQ(codes({kSamples + "/device"}), Codes{});
  EXPECT_EQ(codes({"--installed", faulty + "/odm", faulty}),
            (Codes{"alias-whitespace", "ambiguous-alias", "bad-property-name", "empty-version-line",
                   "left-behind", "long-alias", "long-config-value", "missing-tree",
                   "no-fallback", "no-setup-odm", "no-source-stamp", "no-unavailable-features",
                   "passed-over", "path-product", "property-needs-rule", "read-as", "sku-stamp",
                   "tree-config", "unreadable-property"}));

  // The sample device with its configuration replaced ("" removes it).
  const std::pair<std::string, Codes> cases[] = {
      {"", {"no-config"}},
      {"<odm_config><model name='RK7'>", {"empty-config"}},
      {"<c><x/><model><alias>a</alias></model><setup_odm><prop_value config_name='p'/></setup_odm><setup_odm/></c>",
       Codes{"passed-over", "passed-over", "passed-over", "passed-over"}}};
  for (const auto& [config, expected] : cases) {
    SCOPED_TRACE(config);
    const std::string root = make_root();
    fs::copy(kSamples + "/device/vendor/etc/odm", root + "/tree", kCopyTree);
    const std::string path = root + "/tree/odm_default/odm/etc/odmconfig.xml";
    fs::remove(path);
    if (!config.empty()) put(path, config);
    EXPECT_EQ(codes({root + "/tree"}), expected);
    remove_root(root);
  }
}

TEST(Check, ExitStatus) {
  const std::string device = kSamples + "/device";
  const std::pair<std::vector<std::string>, int> cases[] = {
      {{device}, 0}, {{kSamples + "/faulty"}, 1}, {{"--strict", device}, 0},
      {{"--product", "a/b", device}, 0}, {{"--strict", "--product", "a/b", device}, 1},
      {{kSamples + "/missing"}, 2}, {{kSamples}, 2}, {{"--prop", "bad name=1", device}, 2},
      {{"--config", "/nonexistent", device}, 2}, {{"--bogus", device}, 2}, {{}, 2}};
  for (auto [args, status] : cases) {
    args.insert(args.begin(), TARNWICK_CHECK);
    EXPECT_EQ(run(args), status) << testing::PrintToString(args);
  }
}

}  // namespace

namespace {

// Each finding about the configuration points at the line of the element
// that causes it, in the JSON document and in the SARIF log alike.
TEST(Check, ConfigFindingsPointAtTheirLines) {
  const std::string faulty = kSamples + "/faulty", config = "vendor/etc/odm/odm_default/odm/etc/odmconfig.xml";
  std::vector<std::string> lines = {""};
  std::istringstream text(get(faulty + "/" + config));
  for (std::string line; std::getline(text, line);) lines.push_back(line);
  // code -> what each of its lines holds
  const std::map<std::string, std::string> expected = {
      {"no-setup-odm", "<model name=\"KT1\">"}, {"bad-property-name", "config_name=\"ro boot sku\""},
      {"unreadable-property", "ro.boot.serialno"}, {"property-needs-rule", "ro.vendor.build.security_patch"},
      {"long-config-value", "config_value=\"vvvv"}, {"passed-over", "<model>"},
      {"read-as", "<note name=\"KT2\">"}, {"alias-whitespace", "<alias> kite_eu</alias>"},
      {"ambiguous-alias", "<alias>kite</alias>"}, {"long-alias", "<alias>kkkk"},
      {"missing-tree", "<model name=\"RK9\">"}, {"path-product", "<alias>../odm_KT1</alias>"}};
  const std::string sarif = fs::temp_directory_path() / ("tarnwick-sarif." + std::to_string(getpid()));
  const nlohmann::json doc = report({"--sarif", sarif, faulty});
  const nlohmann::json log = nlohmann::json::parse(get(sarif));
  fs::remove(sarif);
  const auto& results = log["runs"][0]["results"];
  ASSERT_EQ(results.size(), doc["findings"].size());
  std::set<std::string> seen;
  for (size_t i = 0; i < results.size(); ++i) {
    const auto& finding = doc["findings"][i];
    const std::string code = finding["code"];
    SCOPED_TRACE(code);
    ASSERT_EQ(results[i]["ruleId"], code);
    ASSERT_FALSE(finding["locations"].empty());
    ASSERT_EQ(results[i]["locations"].size(), finding["locations"].size());
    for (size_t l = 0; l < finding["locations"].size(); ++l) {
      const auto& at = finding["locations"][l];
      const auto& physical = results[i]["locations"][l]["physicalLocation"];
      EXPECT_EQ(at["input"], "tree");
      EXPECT_EQ(physical["artifactLocation"]["uriBaseId"], "TREE");
      EXPECT_EQ(physical["artifactLocation"]["uri"], at["file"]);
      // A finding about a missing file points where the file belongs.
      const std::set<std::string> missing = {"no-fallback", "no-unavailable-features", "no-source-stamp"};
      EXPECT_TRUE(fs::exists(faulty + "/" + at["file"].get<std::string>()) || missing.count(code) != 0) << at;
      if (expected.count(code) == 0) continue;
      seen.insert(code);
      EXPECT_EQ(at["file"], config);
      const int line = at.value("line", 0);
      ASSERT_GT(line, 0);
      EXPECT_EQ(physical["region"]["startLine"], line);
      EXPECT_NE(lines.at(line).find(expected.at(code)), std::string::npos) << line << ": " << lines.at(line);
    }
  }
  EXPECT_EQ(seen.size(), expected.size());
}

}  // namespace
