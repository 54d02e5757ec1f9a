#include "tarnwick/config/config.h"
#include "tests/unit.h"

namespace {

using Lines = std::vector<std::string>;
using Pairs = std::vector<std::pair<std::string, std::string>>;
using Config = DeviceTest;

// Documents at the edges of the list rules, with the tables and the log lines
// loading them gives. Properties: a.p=1, b.p=2, r.o=91 bytes.
TEST_F(Config, Loader) {
  const std::string v91(91, 'v');
  const std::tuple<std::string, Pairs, Pairs, Lines> cases[] = {
      {"<c><x name='skip'><alias>s</alias></x><model name='m'><extra>X</extra><alias>a</alias>"
       "<extra>Y</extra></model><note name='n'><alias>b</alias></note><setup_odm/></c>",
       {{"m", "a"}, {"m", "Y"}, {"n", "b"}}, {},
       {"attribute m", "a", "Y", "element name note", "attribute n", "b", "element name setup_odm",
        "Breaking Bad", "--END OF FISRT LOOP--- "}},
      {"<c><model name='zed'><alias>s</alias></model><model name='abc'><alias>s</alias><alias>s</alias>"
       "<alias> b&amp;c\n</alias></model><setup_odm/><model name='late'/></c>",
       {{"abc", "s"}, {"abc", "s"}, {"abc", " b&c\n"}, {"zed", "s"}}, {},
       {"attribute zed", "s", "element name model", "attribute abc", "s", "s", " b&c", "",
        "element name setup_odm", "Breaking Bad", "--END OF FISRT LOOP--- "}},
      {"<c><model/><model name='m'><alias/><alias> </alias><alias><!--c-->x</alias><alias>ok</alias>"
       "</model><model><alias>lost</alias></model><model name='m2'/></c>",
       {{"m", "ok"}}, {},
       {"element name model", "attribute m", "ok", "element name model", "attribute m2",
        "--END OF FISRT LOOP--- "}},
      {"<c><setup_odm><x config_name='a.p' config_value='1'/><prop_value config_name='a.p' "
       "config_value='1'><y name='no'><alias>q</alias></y><target name='t2'><alias>x</alias></target>"
       "<target><alias>z</alias></target><other name='t1'><alias>y</alias></other></prop_value>"
       "<prop_value config_name='a.p' config_value='2'><target name='no'><alias>x</alias></target>"
       "</prop_value><p config_name='b.p' config_value='2'><target name='t1'><alias>z</alias></target>"
       "</p><prop_value config_name='b.p'/><prop_value config_name='u.p' config_value=''><target "
       "name='u'><alias>e</alias></target></prop_value><prop_value config_name='A.P' config_value='1'/>"
       "<prop_value config_name='r.o' config_value='" + v91 + "v'/></setup_odm></c>",
       {}, {{"t1", "y"}, {"t1", "z"}, {"t2", "x"}, {"u", "e"}},
       {"--END OF FISRT LOOP--- ", "config_name a.p", "config_value 1", "device_prop_value_str 1",
        "matched ro.config.device", "aliasName x", "target_name t2", "aliasName y", "target_name t1",
        "config_name a.p", "config_value 2", "device_prop_value_str 1", "config_name b.p",
        "config_value 2", "device_prop_value_str 2", "matched ro.config.device", "aliasName z",
        "target_name t1", "config_name u.p", "config_value ", "device_prop_value_str ",
        "matched ro.config.device", "aliasName e", "target_name u", "config_name A.P", "config_value 1",
        "device_prop_value_str ", "config_name r.o", "config_value " + v91 + "v",
        "device_prop_value_str " + v91}},
      {"<c/><d><model name='m'/><setup_odm/></d>", {}, {}, {"--END OF FISRT LOOP--- "}},
      {"", {}, {}, {}},
      {"<?xml version='1.0'?><!-- x -->", {}, {}, {}},
      {"<c><model name='m'><alias>a</al", {}, {}, {}}};
  for (const auto& [xml, models, targets, log] : cases) {
    SCOPED_TRACE(xml.substr(0, 60));
    SetUp();
    put_prop("a.p", "1");
    put_prop("b.p", "2");
    put_prop("r.o", v91);
    if (!xml.empty()) put("/odm/etc/odmconfig.xml", xml);
    ModelAliasMap.emplace("kept", "");
    create_map_from_config();
    EXPECT_EQ(ModelAliasMap.erase("kept"), 1u) << "loading clears nothing";
    EXPECT_EQ(Pairs(ModelAliasMap.begin(), ModelAliasMap.end()), models);
    EXPECT_EQ(Pairs(TargetAliasMap.begin(), TargetAliasMap.end()), targets);
    EXPECT_EQ(TakeLog(), log);
  }
}

// Values are compared whole, keys are not looked at; a match at entry k logs
// 2k lines, none among n entries 2n + 1.
TEST_F(Config, Lookup) {
  const AliasMap table = {{"alpha", "alpha_eu"}, {"beta", "beta_row"}, {"k", ""}};
  const std::tuple<std::string, std::string, size_t> cases[] = {
      {"beta_row", "beta", 4}, {"alpha", "alpha", 7}, {"alpha_e", "alpha_e", 7},
      {"ALPHA_EU", "ALPHA_EU", 7}, {"alpha_eu2", "alpha_eu2", 7}, {"", "k", 6}};
  for (const auto& [alias, result, lines] : cases) {
    EXPECT_EQ(get_model_name(alias, table), result) << alias;
    EXPECT_EQ(TakeLog().size(), lines) << alias;
  }
  // A host tool's index gives every alias the look-up's answer, an alias
  // under several keys (in either order in the file) and twice under one too.
  const AliasMap shared = {{"beta", "x"}, {"alpha", "y"}, {"beta", "y"}, {"alpha", "x"}, {"gamma", "x"}, {"gamma", "z"}, {"gamma", "z"}};
  const auto index = index_aliases(shared);
  EXPECT_EQ(index.size(), 3u);
  for (const auto& [alias, key] : index) EXPECT_EQ(key, get_model_name(alias, shared)) << alias;
  TakeLog();
}

// Preliminary and final model, and the messages that depend on the case:
// 3 target override, 5 no manifest, 6 "_RU" cut, 7 fallback.
TEST_F(Config, Selection) {
  const std::tuple<const char*, AliasMap, AliasMap, Lines, std::string, std::string, std::string> cases[] = {
      {"", {}, {}, {"VX41"}, "VX41", "VX41", ""},
      {"", {}, {}, {}, "VX41", "VX41", "57"},
      {"RK9", {{"RK7", "rook"}}, {}, {"RK9"}, "RK9", "RK9", ""},
      {"rook", {{"RK7", "rook"}}, {{"rook", "rook"}}, {"RK7"}, "RK7", "RK7", ""},
      {"rook", {{"RK7", "rook"}}, {{"RK7DS", "rook"}}, {"RK7DS"}, "RK7DS", "RK7DS", "3"},
      {"r", {{"RK7", "r"}}, {{"", "r"}}, {"VX41"}, "VX41", "VX41", "3"},
      {"RK7_RU", {}, {}, {"RK7_RU", "RK7"}, "RK7_RU", "RK7_RU", ""},
      {"RK7_RU", {}, {}, {"RK7"}, "RK7_RU", "RK7", "56"},
      {"X_RU_RU", {}, {}, {"X_RU", "X"}, "X_RU_RU", "X_RU", "56"},
      {"RK7_ru", {}, {}, {"RK7"}, "RK7_ru", "VX41", "57"},
      {"RK7RU", {}, {}, {"RK7"}, "RK7RU", "VX41", "57"},
      {"RK7_RUx", {}, {}, {"RK7x"}, "RK7_RUx", "VX41", "57"},
      {"RU", {}, {}, {""}, "RU", "VX41", "57"},
      {"_RU", {}, {}, {""}, "_RU", "", "56"}};
  for (const auto& [product, models, targets, manifests, preliminary, final_model, messages] : cases) {
    SCOPED_TRACE(std::string("product ") + product);
    SetUp();
    put_prop("ro.vendor.product", product);
    ModelAliasMap = models;
    TargetAliasMap = targets;
    for (const auto& m : manifests) put(source_manifest_path(m), "");
    const std::string first = select_model_name(kProvisioningRun);
    EXPECT_EQ(first, preliminary);
    EXPECT_EQ(confirm_model_source(first, kProvisioningRun), final_model);
    std::string seen;
    for (const auto& line : TakeLog()) {
      const char* kinds[] = {"model_name is diff", "src_manifet", "RUSSIA", "NO MATCH"};
      for (int k = 0; k < 4; ++k) seen += line.rfind(kinds[k], 0) == 0 ? "3567"[k] : '\0';
    }
    seen.erase(std::remove(seen.begin(), seen.end(), '\0'), seen.end());
    EXPECT_EQ(seen, messages);
  }
}

}  // namespace
