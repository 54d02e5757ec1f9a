#include <string>
#include <vector>

#include "tarnwick/config/config.h"
#include "tests/device_fixture.h"

namespace {

using Lines = std::vector<std::string>;

using ModelLookupTest = DeviceTest;

const AliasMap kExampleTable = {{"alpha", "alpha_eu"}, {"alpha", "alpha_us"}, {"beta", "beta_row"}};

TEST_F(ModelLookupTest, ExampleTable) {
  EXPECT_EQ(get_model_name("alpha_us", kExampleTable), "alpha");
  EXPECT_EQ(TakeLog(), (Lines{"iterating alpha  value found alpha_eu",
                              "returning aliasName as value dont match alpha_us",
                              "iterating alpha  value found alpha_us",
                              "returning key alpha as value alpha_us matched "}));
  EXPECT_EQ(get_model_name("gamma", kExampleTable), "gamma");
  Lines log = TakeLog();
  ASSERT_EQ(log.size(), 7u);
  EXPECT_EQ(log[5], "returning aliasName as value dont match gamma");
  EXPECT_EQ(log[6], "nothing matched returning aliasname itself gamma");
}

TEST_F(ModelLookupTest, MatchesWholeValuesInTableOrder) {
  struct Case {
    const char* name;
    AliasMap table;
    std::string alias;
    std::string result;
    size_t lines;  // k-th entry match: 2k lines; no match among n: 2n + 1
  } cases[] = {
      {"second key", kExampleTable, "beta_row", "beta", 6},
      {"a key is not a value", kExampleTable, "alpha", "alpha", 7},
      {"empty table", {}, "x", "x", 1},
      {"empty alias, no empty value", kExampleTable, "", "", 7},
      {"empty alias, empty value", {{"k", ""}}, "", "k", 2},
      {"letter case", kExampleTable, "ALPHA_EU", "ALPHA_EU", 7},
      {"alias is a prefix of a value", kExampleTable, "alpha_e", "alpha_e", 7},
      {"a value is a prefix of the alias", kExampleTable, "alpha_eu2", "alpha_eu2", 7},
      {"first key in order wins, not first in the file", {{"beta", "s"}, {"alpha", "s"}}, "s",
       "alpha", 2},
      {"a pair held twice", {{"a", "x"}, {"a", "x"}, {"b", "y"}}, "y", "b", 6},
      {"keys order as unsigned bytes", {{"\xc3\xa9", "s"}, {"z", "s"}}, "s", "z", 2},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(get_model_name(c.alias, c.table), c.result);
    EXPECT_EQ(TakeLog().size(), c.lines);
  }
}

// The selection's own lines, without the look-up's.
Lines selection_lines(const Lines& log) {
  Lines out;
  for (const auto& line : log) {
    if (line.rfind("iterating ", 0) == 0 || line.rfind("returning ", 0) == 0 ||
        line.rfind("nothing matched ", 0) == 0) {
      continue;
    }
    out.push_back(line);
  }
  return out;
}

// Message codes of the selection, rendered in the texts of either caller.
struct Message {
  int code;
  std::string value;
};

std::string render(const Message& m, SelectionVariant variant) {
  const bool q = variant == kImageNameQuery;
  const std::string a = q ? "[automation]" : "";
  switch (m.code) {
    case 1: return a + "model_str from get_model_name " + m.value;
    case 2: return a + "model_str from get_model_name_roconfig " + m.value;
    case 3: return a + "model_name is diff from  model_str_roconfig ";
    case 4: return (q ? "[automation]  model_str = " : "model_str from get_model_name ") + m.value;
    case 5: return a + "src_manifet not exist /vendor/etc/odm/odm_" + m.value + "/odm/etc/vintf/manifest.xml";
    case 6: return a + "RUSSIA.. truncate last 3 letter";
    case 7: return a + "NO MATCH, Fallback.. ";
  }
  return "?";
}

using ModelSelectionTest = DeviceTest;

TEST_F(ModelSelectionTest, PreliminaryAndFinalModel) {
  struct Case {
    const char* name;
    const char* product;  // nullptr: unset
    AliasMap models, targets;
    std::vector<std::string> manifests;  // models whose tree has a manifest
    std::string preliminary, final_model;
    std::vector<Message> messages;
  } cases[] = {
      {"no product, empty tables: the default", nullptr, {}, {}, {"VX41"}, "VX41", "VX41",
       {{1, ""}, {2, ""}, {4, ""}}},
      {"unknown product is its own model", "RK9", {{"RK7", "rook"}}, {}, {"RK9"}, "RK9", "RK9",
       {{1, "RK9"}, {2, "RK9"}, {4, "RK9"}}},
      {"model alias", "rook", {{"RK7", "rook"}}, {}, {"RK7"}, "RK7", "RK7",
       {{1, "RK7"}, {2, "rook"}, {4, "RK7"}}},
      {"a target overrides the model", "rook", {{"RK7", "rook"}}, {{"RK7DS", "rook"}}, {"RK7DS"},
       "RK7DS", "RK7DS", {{1, "RK7"}, {2, "RK7DS"}, {3, ""}, {4, "RK7DS"}}},
      {"a target named like its alias changes nothing", "rook", {{"RK7", "rook"}},
       {{"rook", "rook"}}, {"RK7"}, "RK7", "RK7", {{1, "RK7"}, {2, "rook"}, {4, "RK7"}}},
      {"_RU with its own manifest stays", "r", {{"RK7_RU", "r"}}, {}, {"RK7_RU", "RK7"}, "RK7_RU",
       "RK7_RU", {{1, "RK7_RU"}, {2, "r"}, {4, "RK7_RU"}}},
      {"_RU falls back to the shorter name", "r", {{"RK7_RU", "r"}}, {}, {"RK7"}, "RK7_RU", "RK7",
       {{1, "RK7_RU"}, {2, "r"}, {4, "RK7_RU"}, {5, "RK7_RU"}, {6, ""}}},
      {"_RU with neither tree", "r", {{"RK7_RU", "r"}}, {}, {"VX41"}, "RK7_RU", "VX41",
       {{1, "RK7_RU"}, {2, "r"}, {4, "RK7_RU"}, {5, "RK7_RU"}, {6, ""}, {7, ""}}},
      {"lower-case suffix is not cut", "RK7_ru", {}, {}, {"RK7"}, "RK7_ru", "VX41",
       {{1, "RK7_ru"}, {2, "RK7_ru"}, {4, "RK7_ru"}, {5, "RK7_ru"}, {7, ""}}},
      {"RU without underscore is not cut", "RK7RU", {}, {}, {"RK7"}, "RK7RU", "VX41",
       {{1, "RK7RU"}, {2, "RK7RU"}, {4, "RK7RU"}, {5, "RK7RU"}, {7, ""}}},
      {"suffix not at the end", "RK7_RUx", {}, {}, {"RK7x"}, "RK7_RUx", "VX41",
       {{1, "RK7_RUx"}, {2, "RK7_RUx"}, {4, "RK7_RUx"}, {5, "RK7_RUx"}, {7, ""}}},
      {"shorter than the suffix", "RU", {}, {}, {}, "RU", "VX41",
       {{1, "RU"}, {2, "RU"}, {4, "RU"}, {5, "RU"}, {7, ""}}},
      {"a doubled suffix is cut once", "X_RU_RU", {}, {}, {"X_RU", "X"}, "X_RU_RU", "X_RU",
       {{1, "X_RU_RU"}, {2, "X_RU_RU"}, {4, "X_RU_RU"}, {5, "X_RU_RU"}, {6, ""}}},
      {"the default without a manifest is still final", nullptr, {}, {}, {}, "VX41", "VX41",
       {{1, ""}, {2, ""}, {4, ""}, {5, "VX41"}, {7, ""}}},
      {"bare _RU becomes the empty name when that tree exists", "_RU", {}, {}, {""}, "_RU", "",
       {{1, "_RU"}, {2, "_RU"}, {4, "_RU"}, {5, "_RU"}, {6, ""}}},
      {"bare _RU otherwise falls back", "_RU", {}, {}, {}, "_RU", "VX41",
       {{1, "_RU"}, {2, "_RU"}, {4, "_RU"}, {5, "_RU"}, {6, ""}, {7, ""}}},
  };
  for (SelectionVariant variant : {kProvisioningRun, kImageNameQuery}) {
    for (const auto& c : cases) {
      SCOPED_TRACE(std::string(c.name) + (variant == kImageNameQuery ? " [query]" : " [run]"));
      SetUp();
      if (c.product) put_prop("ro.vendor.product", c.product);
      ModelAliasMap = c.models;
      TargetAliasMap = c.targets;
      for (const auto& m : c.manifests) {
        write_file("/vendor/etc/odm/odm_" + m + "/odm/etc/vintf/manifest.xml", "<manifest/>");
      }
      std::string preliminary = select_model_name(variant);
      EXPECT_EQ(preliminary, c.preliminary);
      EXPECT_EQ(confirm_model_source(preliminary, variant), c.final_model);
      Lines expected;
      for (const auto& m : c.messages) expected.push_back(render(m, variant));
      EXPECT_EQ(selection_lines(TakeLog()), expected);
    }
  }
}

}  // namespace
