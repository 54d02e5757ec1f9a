#include <string>
#include <vector>

#include "tarnwick/config/config.h"
#include "tests/device_fixture.h"

namespace {

const char kConfig[] = "/odm/etc/odmconfig.xml";

using Lines = std::vector<std::string>;
using Pairs = std::vector<std::pair<std::string, std::string>>;

Pairs pairs_of(const AliasMap& table) { return Pairs(table.begin(), table.end()); }

// A document, and the tables and log lines loading it gives.
struct LoadCase {
  const char* name;
  std::string xml;
  Pairs models, targets;
  Lines lines;
};

class ConfigLoaderTest : public DeviceTest {
 protected:
  void Load(const std::string& xml) {
    write_file(kConfig, xml);
    create_map_from_config();
  }
  void ExpectLoads(const std::vector<LoadCase>& cases) {
    for (const auto& c : cases) {
      SCOPED_TRACE(c.name);
      SetUp();
      Load(c.xml);
      EXPECT_EQ(pairs_of(ModelAliasMap), c.models);
      EXPECT_EQ(pairs_of(TargetAliasMap), c.targets);
      EXPECT_EQ(TakeLog(), c.lines);
    }
  }
};

const char kExample[] = R"(<?xml version="1.0"?>
<config>
  <model name="alpha">
    <alias>alpha_eu</alias>
    <alias>alpha_us</alias>
  </model>
  <model name="beta">
    <alias>beta_row</alias>
  </model>
  <setup_odm>
    <prop_value config_name="ro.config.device" config_value="dual">
      <target name="alpha_dual">
        <alias>alpha_eu</alias>
      </target>
    </prop_value>
    <prop_value config_name="ro.config.device" config_value="single">
      <target name="alpha_single">
        <alias>alpha_eu</alias>
      </target>
    </prop_value>
  </setup_odm>
</config>
)";

TEST_F(ConfigLoaderTest, ExampleDocument) {
  put_prop("ro.config.device", "dual");
  Load(kExample);
  EXPECT_EQ(pairs_of(ModelAliasMap),
            (Pairs{{"alpha", "alpha_eu"}, {"alpha", "alpha_us"}, {"beta", "beta_row"}}));
  EXPECT_EQ(pairs_of(TargetAliasMap), (Pairs{{"alpha_dual", "alpha_eu"}}));
  EXPECT_EQ(TakeLog(), (Lines{"attribute alpha", "alpha_eu", "alpha_us", "element name model",
                              "attribute beta", "beta_row", "element name setup_odm",
                              "Breaking Bad", "--END OF FISRT LOOP--- ",
                              "config_name ro.config.device", "config_value dual",
                              "device_prop_value_str dual", "matched ro.config.device",
                              "aliasName alpha_eu", "target_name alpha_dual",
                              "config_name ro.config.device", "config_value single",
                              "device_prop_value_str dual"}));
}

TEST_F(ConfigLoaderTest, ListRules) {
  ExpectLoads({
      {"elements before the first model are passed over",
       "<c><x name='skip'><alias>s</alias></x><model name='m'><alias>a</alias></model>"
       "<setup_odm/></c>",
       {{"m", "a"}}, {},
       {"attribute m", "a", "element name setup_odm", "Breaking Bad", "--END OF FISRT LOOP--- "}},
      {"another element between models is read as a model",
       "<c><model name='m1'><alias>a1</alias></model><note name='n'><alias>a2</alias></note>"
       "<model name='m2'/><setup_odm/></c>",
       {{"m1", "a1"}, {"n", "a2"}}, {},
       {"attribute m1", "a1", "element name note", "attribute n", "a2", "element name model",
        "attribute m2", "element name setup_odm", "Breaking Bad", "--END OF FISRT LOOP--- "}},
      {"an element after the first alias is an alias, one before it is not",
       "<c><model name='m'><extra>X</extra><alias>a</alias><extra>Y</extra></model><setup_odm/></c>",
       {{"m", "a"}, {"m", "Y"}}, {},
       {"attribute m", "a", "Y", "element name setup_odm", "Breaking Bad",
        "--END OF FISRT LOOP--- "}},
      {"setup_odm first, no model anywhere",
       "<c><setup_odm><prop_value config_name='p' config_value=''><target name='t'>"
       "<alias>x</alias></target></prop_value></setup_odm></c>",
       {}, {{"t", "x"}},
       {"--END OF FISRT LOOP--- ", "config_name p", "config_value ", "device_prop_value_str ",
        "matched ro.config.device", "aliasName x", "target_name t"}},
      {"a further top-level element is ignored", "<c/><d><model name='m'/><setup_odm/></d>", {}, {},
       {"--END OF FISRT LOOP--- "}},
      {"same alias under two models: both kept, ordered by key",
       "<c><model name='zed'><alias>s</alias></model><model name='abc'><alias>s</alias></model>"
       "<setup_odm/></c>",
       {{"abc", "s"}, {"zed", "s"}}, {},
       {"attribute zed", "s", "element name model", "attribute abc", "s", "element name setup_odm",
        "Breaking Bad", "--END OF FISRT LOOP--- "}},
      {"identical pairs are kept twice; text is decoded, white space kept",
       "<c><model name='m'><alias>a</alias><alias>a</alias><alias> b&amp;c\n</alias></model>"
       "<setup_odm/></c>",
       {{"m", "a"}, {"m", "a"}, {"m", " b&c\n"}}, {},
       // A logged newline splits the line in two.
       {"attribute m", "a", "a", " b&c", "", "element name setup_odm", "Breaking Bad",
        "--END OF FISRT LOOP--- "}},
      {"the walk stops at the first setup_odm; later models are not read",
       "<c><model name='m'/><setup_odm/><model name='late'><alias>z</alias></model></c>", {}, {},
       {"attribute m", "element name setup_odm", "Breaking Bad", "--END OF FISRT LOOP--- "}},
  });
}

TEST_F(ConfigLoaderTest, PropertyGuardedBlocks) {
  const std::string v91(91, 'v');
  const std::string v92(92, 'v');
  struct Case {
    const char* name;
    const char* device_value;  // nullptr: property unset
    std::string expected_value;
    bool matches;
  } cases[] = {
      {"equal value", "dual", "dual", true},
      {"other value", "single", "dual", false},
      {"letter case differs", "Dual", "dual", false},
      {"prefix only", "dua", "dual", false},
      {"unset property, empty expected value", nullptr, "", true},
      {"empty property, empty expected value", "", "", true},
      {"unset property, non-empty expected value", nullptr, "dual", false},
      {"92-byte expected value never matches", v91.c_str(), v92, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    SetUp();
    if (c.device_value) put_prop("vendor.sku", c.device_value);
    Load("<c><setup_odm><prop_value config_name='vendor.sku' config_value='" + c.expected_value +
         "'><target name='t'><alias>a</alias></target></prop_value></setup_odm></c>");
    EXPECT_EQ(pairs_of(TargetAliasMap), c.matches ? (Pairs{{"t", "a"}}) : Pairs{});
    Lines log = TakeLog();
    ASSERT_GE(log.size(), 4u);
    EXPECT_EQ(log[3], "device_prop_value_str " +
                          std::string(c.device_value ? c.device_value : "").substr(0, 91));
    EXPECT_EQ(log.size(), c.matches ? 7u : 4u);
  }
}

TEST_F(ConfigLoaderTest, EveryMatchingBlockContributesInOrder) {
  put_prop("a.p", "1");
  put_prop("b.p", "2");
  Load("<c><setup_odm>"
       "<prop_value config_name='a.p' config_value='1'><target name='t2'><alias>x</alias></target>"
       "<other name='t1'><alias>y</alias></other></prop_value>"
       "<prop_value config_name='a.p' config_value='2'><target name='no'><alias>x</alias></target>"
       "</prop_value>"
       "<x config_name='b.p' config_value='2'><target name='t1'><alias>z</alias></target></x>"
       "</setup_odm></c>");
  EXPECT_EQ(pairs_of(TargetAliasMap), (Pairs{{"t1", "y"}, {"t1", "z"}, {"t2", "x"}}));
}

TEST_F(ConfigLoaderTest, DocumentsOutsideTheListRules) {
  ExpectLoads({
      {"no setup_odm after the models: the list ends after the last sibling",
       "<c><model name='m1'><alias>a</alias></model><model name='m2'/></c>", {{"m1", "a"}}, {},
       {"attribute m1", "a", "element name model", "attribute m2", "--END OF FISRT LOOP--- "}},
      {"a model without name is passed over silently",
       "<c><model name='m1'/><model><alias>lost</alias></model><model name='m2'><alias>b</alias>"
       "</model><setup_odm/></c>",
       {{"m2", "b"}}, {},
       {"attribute m1", "element name model", "attribute m2", "b", "element name setup_odm",
        "Breaking Bad", "--END OF FISRT LOOP--- "}},
      {"a first model without name", "<c><model/><setup_odm/></c>", {}, {},
       {"element name setup_odm", "Breaking Bad", "--END OF FISRT LOOP--- "}},
      {"aliases without text are passed over",
       "<c><model name='m'><alias/><alias>  </alias><alias><!--c-->x</alias><alias><b/>y</alias>"
       "<alias>ok</alias></model><setup_odm/></c>",
       {{"m", "ok"}}, {},
       {"attribute m", "ok", "element name setup_odm", "Breaking Bad", "--END OF FISRT LOOP--- "}},
      {"blocks lacking an attribute, and nameless targets, are passed over",
       "<c><setup_odm><prop_value config_name='p'/><prop_value config_value=''/>"
       "<prop_value config_name='p' config_value=''><target><alias>x</alias></target>"
       "<target name='t'><alias/><alias>y</alias></target></prop_value></setup_odm></c>",
       {}, {{"t", "y"}},
       {"--END OF FISRT LOOP--- ", "config_name p", "config_value ", "device_prop_value_str ",
        "matched ro.config.device", "aliasName y", "target_name t"}},
      {"no setup_odm child at all: empty setup section",
       "<c><model name='m'><alias>a</alias></model></c>", {{"m", "a"}}, {},
       {"attribute m", "a", "--END OF FISRT LOOP--- "}},
  });
}

TEST_F(ConfigLoaderTest, NothingToReadLeavesTablesAsTheyWere) {
  std::string deep;
  for (int i = 0; i < 20000; ++i) deep += "<model name='d'>";
  struct Case {
    const char* name;
    const char* content;  // nullptr: no file
    bool as_directory;
  } cases[] = {
      {"no file", nullptr, false},
      {"empty file", "", false},
      {"no element", "<?xml version='1.0'?><!-- nothing -->", false},
      {"truncated", "<c><model name='m'><alias>a</al", false},
      {"binary", "\x01\xff\xfe<\x00\x80>", false},
      {"deeply nested", deep.c_str(), false},
      {"a directory in its place", nullptr, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    SetUp();
    ModelAliasMap.emplace("kept", "k");
    if (c.content) write_file(kConfig, c.content);
    if (c.as_directory) write_file(std::string(kConfig) + "/inner", "<c/>");
    create_map_from_config();
    EXPECT_EQ(pairs_of(ModelAliasMap), (Pairs{{"kept", "k"}}));
    EXPECT_TRUE(TargetAliasMap.empty());
    EXPECT_EQ(TakeLog(), Lines{});
  }
}

TEST_F(ConfigLoaderTest, LargeDocument) {
  std::string xml = "<c>";
  for (int i = 0; i < 20000; ++i) {
    xml += "<model name='m" + std::to_string(i) + "'><alias>a" + std::to_string(i) + "</alias></model>";
  }
  Load(xml + "<setup_odm/></c>");
  EXPECT_EQ(ModelAliasMap.size(), 20000u);
  EXPECT_EQ(TakeLog().size(), 3 * 20000u + 2);
}

}  // namespace
