// tarnwick-check against the program it explains, and its findings and exit
// statuses.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>

#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "tests/e2e_harness.h"

namespace fs = std::filesystem;

namespace {

using Codes = std::multiset<std::string>;

// Runs the checker with |args|; its standard output goes to |out|.
int check(const std::vector<std::string>& args, std::string* out = nullptr) {
  const std::string path = fs::temp_directory_path() / "tarnwick-check.out";
  // Under user-mode emulation the build's programs run through its wrapper.
  std::vector<std::string> argv;
  std::istringstream wrap(getenv("TARNWICK_WRAP") != nullptr ? getenv("TARNWICK_WRAP") : "");
  for (std::string word; wrap >> word;) argv.push_back(word);
  argv.push_back(TARNWICK_CHECK);
  argv.insert(argv.end(), args.begin(), args.end());
  std::vector<char*> cargv;
  for (auto& a : argv) cargv.push_back(a.data());
  cargv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  pid_t pid;
  int status = -1;
  if (posix_spawnp(&pid, cargv[0], &actions, nullptr, cargv.data(), environ) == 0) {
    waitpid(pid, &status, 0);
  }
  posix_spawn_file_actions_destroy(&actions);
  if (out) *out = get("/", path);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

nlohmann::json report(const std::vector<std::string>& args) {
  std::string out;
  std::vector<std::string> all = {"--json"};
  all.insert(all.end(), args.begin(), args.end());
  check(all, &out);
  return nlohmann::json::parse(out);
}

Codes codes(const nlohmann::json& doc) {
  Codes out;
  for (const auto& f : doc["findings"]) out.insert(f["code"].get<std::string>());
  return out;
}

const std::string kSamples = EXAMPLES_DIR;

// Every row of the table, each product text under each setting, against the
// image name query of the program on a device with the same configuration.
TEST(Check, EveryRowIsWhatTheProgramSelects) {
  for (const std::string sample : {"device", "faulty"}) {
    const std::string tree = kSamples + "/" + sample + "/vendor/etc/odm";
    nlohmann::json doc = report({tree});
    ASSERT_FALSE(doc["rows"].empty());
    for (const auto& row : doc["rows"]) {
      for (const std::string product : row["products"]) {
        // boot.prop trims values as build.prop does: such a text cannot be given at boot.
        if (product.find_first_of(" \t") == 0) continue;
        for (size_t s : row["settings"]) {
          std::string boot_prop = "ro.vendor.product=" + product + "\n";
          for (const auto& [name, value] : doc["settings"][s].items()) {
            if (!value.is_null()) boot_prop += name + "=" + value.get<std::string>() + "\n";
          }
          SCOPED_TRACE(sample + ": " + boot_prop);
          std::string root = make_root();
          fs::create_directories(root + "/vendor/etc");
          fs::copy(tree, root + "/vendor/etc/odm",
                   fs::copy_options::recursive | fs::copy_options::copy_symlinks);
          put(root, "odm/etc/odmconfig.xml", get(tree, "odm_default/odm/etc/odmconfig.xml"));
          put(root, "boot.prop", boot_prop);
          boot(root, {"automation"});
          EXPECT_EQ(prop(root, "ro.vendor.odm_image"), row["final"].get<std::string>());
          remove_root(root);
        }
      }
    }
  }
}

TEST(Check, Findings) {
  const std::string faulty = kSamples + "/faulty";
  EXPECT_EQ(codes(report({kSamples + "/device"})), Codes{});
  EXPECT_EQ(codes(report({"--installed", faulty + "/odm", faulty})),
            (Codes{"alias-whitespace", "ambiguous-alias", "bad-property-name", "empty-version-line",
                   "leftover-manifest", "long-alias", "long-config-value", "missing-tree",
                   "no-fallback", "no-setup-odm", "no-source-stamp", "no-unavailable-features",
                   "passed-over", "path-product", "property-needs-rule", "read-as", "sku-stamp",
                   "tree-config", "unreadable-property"}));

  // Small trees: the sample device with a few files changed.
  struct Case {
    const char* name;
    std::map<std::string, std::string> files;  // relative to the tree; "" removes
    Codes codes;
  } cases[] = {
      {"no configuration", {{"odm_default/odm/etc/odmconfig.xml", ""}}, {"no-config"}},
      {"a configuration that does not parse",
       {{"odm_default/odm/etc/odmconfig.xml", "<odm_config><model name='RK7'>"}}, {"empty-config"}},
      {"an empty last line in the stamp", {{"odm_default/odm/odmver.txt", "ODM.1\n\n"}},
       {"empty-version-line"}},
      {"a SKU stamp", {{"odm_RK7/odm/odmver.txt", "ODM.1\n"}}, {"sku-stamp"}},
      {"a regional model without a tree is by design, a tree without manifest is not",
       {{"odm_RK7_RU/odm/etc/region.conf", "x\n"}}, {"missing-tree"}},
      {"a fallback tree missing whole", {{"odm_VX41", ""}}, {"no-fallback"}},
      {"nested passed-over elements",
       {{"odm_default/odm/etc/odmconfig.xml",
         "<c><x/><model name='RK7'><y/><alias>rook</alias><alias/></model><setup_odm>"
         "<prop_value config_name='p'/><prop_value config_name='ro.boot.hardware.sku' "
         "config_value='dual'><target><alias>a</alias></target></prop_value></setup_odm>"
         "<setup_odm/><model name='late'/></c>"}},
       {"passed-over", "passed-over", "passed-over", "passed-over", "passed-over", "passed-over",
        "passed-over"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::string root = make_root();
    const std::string tree = root + "/tree";
    fs::copy(kSamples + "/device/vendor/etc/odm", tree,
             fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    for (const auto& [path, content] : c.files) {
      if (content.empty()) {
        fs::remove_all(tree + "/" + path);
      } else {
        put(tree, path, content);
      }
    }
    EXPECT_EQ(codes(report({tree})), c.codes);
    remove_root(root);
  }
}

TEST(Check, ExitStatus) {
  const std::string device = kSamples + "/device";
  struct Case {
    std::vector<std::string> args;
    int status;
  } cases[] = {
      {{device}, 0},
      {{kSamples + "/faulty"}, 1},
      {{"--strict", device}, 0},
      {{"--product", "a/b", device}, 0},
      {{"--strict", "--product", "a/b", device}, 1},
      {{"--prop", "ro.boot.hardware.sku=single", "--product", "rook", device}, 0},
      {{kSamples + "/missing"}, 2},
      {{kSamples}, 2},
      {{"--prop", "bad name=1", device}, 2},
      {{"--config", "/nonexistent", device}, 2},
      {{"--bogus", device}, 2},
      {{}, 2},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    EXPECT_EQ(check(c.args), c.status);
  }
}

}  // namespace
