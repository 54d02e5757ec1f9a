// tarnwick-check --update-from and --installed: its findings on releases
// with the faults they exist for, and every row against the same course run
// by hand, start by start, through tools/run-device.
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <set>

#include "tests/harness.h"

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

const std::string kSamples = EXAMPLES_DIR;
const auto kCopyTree = fs::copy_options::recursive | fs::copy_options::copy_symlinks;

json check(std::vector<std::string> args, int* status = nullptr) {
  std::string out;
  args.insert(args.begin(), {TARNWICK_CHECK, "--json"});
  const int s = run(args, &out);
  if (status != nullptr) *status = s;
  return json::parse(out);
}

// The findings of |doc| with |code|, each as "subject: message".
std::vector<std::string> findings(const json& doc, const std::string& code) {
  std::vector<std::string> out;
  for (const auto& f : doc["findings"]) {
    if (f["code"] == code) out.push_back(f["subject"].get<std::string>() + ": " + f["message"].get<std::string>());
  }
  return out;
}

// A copy of the sample device's tree as a release that forgot its stamp:
// sensors.conf changed, audio_effects.xml dropped, odmver.txt as it was.
std::string forgotten_stamp(const std::string& root) {
  fs::copy(kSamples + "/device/vendor/etc/odm", root + "/new", kCopyTree);
  put(root + "/new/odm_RK7DS/odm/etc/sensors.conf", "accel_rate=400\n");
  fs::remove(root + "/new/odm_RK7DS/odm/etc/audio_effects.xml");
  return root + "/new";
}

TEST(Update, ForgottenStampAndDroppedFile) {
  const std::string root = make_root();
  const std::string tree = forgotten_stamp(root);
  int status;
  json doc = check({"--update-from", kSamples + "/device", tree}, &status);
  EXPECT_EQ(status, 1);
  ASSERT_EQ(findings(doc, "stamp-not-bumped").size(), 1u);
  const std::string finding = findings(doc, "stamp-not-bumped")[0];
  for (const char* word : {"sensors.conf", "audio_effects.xml", "odm_RK7DS", "rook, rook_eu"}) {
    EXPECT_NE(finding.find(word), std::string::npos) << word << " in " << finding;
  }

  // A device of the sample, provisioned, then checked as installed.
  fs::create_directories(root + "/device/vendor/etc");
  fs::copy(kSamples + "/device/vendor/etc/odm", root + "/device/vendor/etc/odm", kCopyTree);
  fs::copy(kSamples + "/device/boot.prop", root + "/device/boot.prop");
  for (int i = 0; i < 2; ++i) boot(root + "/device");
  doc = check({"--installed", root + "/device/odm", tree}, &status);
  EXPECT_EQ(status, 1);
  const auto drift = findings(doc, "drift"), left = findings(doc, "left-behind");
  ASSERT_EQ(drift.size(), 1u);
  ASSERT_EQ(left.size(), 1u);
  EXPECT_NE(drift[0].find("in sensors.conf,"), std::string::npos) << drift[0];
  EXPECT_EQ(left[0].rfind("audio_effects.xml: ", 0), 0u) << left[0];
  remove_root(root);
}

TEST(Update, SampleShowsEveryFinding) {
  int status;
  const json doc = check({"--update-from", kSamples + "/update/old", kSamples + "/update/new"}, &status);
  EXPECT_EQ(status, 1);
  std::multiset<std::string> codes;
  for (const auto& f : doc["findings"]) codes.insert(f["code"].get<std::string>());
  EXPECT_EQ(codes, (std::multiset<std::string>{"stamp-not-bumped", "sku-stamp", "left-behind", "left-behind",
                                               "model-changed", "restart-without-change"}));
  ASSERT_EQ(findings(doc, "stamp-not-bumped").size(), 1u);
  EXPECT_NE(findings(doc, "stamp-not-bumped")[0].find("odm_kestrel/odm/odmver.txt: "), std::string::npos);
  ASSERT_EQ(findings(doc, "model-changed").size(), 1u);
  EXPECT_NE(findings(doc, "model-changed")[0].find("odm_KT1 > odm_KT1_RU"), std::string::npos);
  bool boot_read = false;
  for (const auto& f : findings(doc, "left-behind")) {
    boot_read |= f.find("reads by name at boot: manifest_kite.xml") != std::string::npos;
  }
  EXPECT_TRUE(boot_read);
  EXPECT_EQ(doc["version"], 3);
}

// The smallest case of each way a course went wrong before its devices read
// exactly what their own /odm and /vendor hold: the files (under old/, new/
// and installed/; "new" is checked), the options, the members of the JSON
// document it must have, and the findings of the courses.
struct CourseCase {
  const char* what;
  std::vector<std::pair<std::string, std::string>> files;
  std::vector<std::string> args;
  std::vector<std::pair<std::string, json>> members;  // JSON pointer, value
  std::multiset<std::string> codes;
};

TEST(Update, EachDeviceReadsItsOwn) {
  const std::string manifest = "/odm/etc/vintf/manifest.xml", a = "/odm_A" + manifest, vx41 = "/odm_VX41" + manifest;
  const std::string stamp = "/odm_default/odm/odmver.txt";
  const CourseCase cases[] = {
      {"an updated device keeps the configuration the old release installed when the new one has none",
       {{"old/odm_default/odm/etc/odmconfig.xml", "<c><model name='A'><alias>p</alias></model><setup_odm/></c>"},
        {"old" + a, "<a/>"}, {"old" + vx41, "<v/>"}, {"old" + stamp, "1"},
        {"new" + a, "<a/>"}, {"new" + vx41, "<v/>"}, {"new" + stamp, "2"}},
       {"--product=p", "--update-from=old"},
       {{"/rows/0/update/0/model_after", "A"}, {"/rows/0/update/0/against_new_device/keeps", {"odmconfig.xml"}}},
       {"left-behind", "restart-without-change"}},
      {"a factory device of a release without a default configuration has none, whatever is installed",
       {{"installed/etc/odmconfig.xml", "<c><model name='A'><alias>p</alias></model><setup_odm/></c>"},
        {"installed/etc/a.conf", "a"}, {"installed/odmver.txt", "2"},
        {"new" + a, "<a/>"}, {"new/odm_A/odm/etc/a.conf", "a"}, {"new" + vx41, "<v/>"},
        {"new/odm_VX41/odm/etc/v.conf", "v"}, {"new" + stamp, "2"}},
       {"--product=p", "--product=A", "--installed=installed"},
       {{"/rows/1/products", {"p"}}, {"/rows/1/installed/against_new_device/keeps", {"a.conf", "odmconfig.xml"}},
        {"/rows/1/installed/against_new_device/lacks",
         {"permissions", "permissions/unavailable_features.xml", "v.conf", "vintf", "vintf/manifest.xml"}}},
       {"drift", "left-behind"}},
      {"an update that provisions and changes nothing restarts for nothing, though it keeps a dropped file",
       {{"old" + a, "<a/>"}, {"old/odm_A/odm/etc/x.conf", "x"}, {"old" + vx41, "<v/>"}, {"old" + stamp, "1"},
        {"new" + a, "<a/>"}, {"new" + vx41, "<v/>"}, {"new" + stamp, "2"}},
       {"--product=A", "--update-from=old"},
       {{"/rows/0/update/0/provisions", true}, {"/rows/0/update/0/changes", json::array()},
        {"/rows/0/update/0/against_new_device/keeps", {"x.conf"}}},
       {"left-behind", "restart-without-change"}},
      {"the version lines are the stamps' last lines",
       {{"installed/odmver.txt", "OLD\nREL.2\n"}, {"new" + a, "<a/>"}, {"new" + vx41, "<v/>"}, {"new" + stamp, "REL.2\n"}},
       {"--product=A", "--installed=installed"},
       {{"/rows/0/installed/provisions", false}, {"/rows/0/installed/version_line_before", "REL.2"},
        {"/rows/0/installed/version_line_after", "REL.2"}},
       {"drift"}},
      {"the hardware configuration parts rows whose starts it lets skip the restart",
       {{"new/odm_default/odm/etc/odmconfig.xml", "<c><setup_odm><prop_value config_name="
         "'ro.vendor.hwconfig.completed' config_value='1'><target name='B'><alias>zz</alias></target>"
         "</prop_value></setup_odm></c>"},
        {"new" + a, "<a/>"}, {"new" + vx41, "<v/>"}, {"new" + stamp, "2"},
        {"installed/odmver.txt", "1"}, {"installed/fbe.ini", "file\n"}},
       {"--product=A", "--installed=installed"},
       {{"/rows/0/when", "ro.vendor.hwconfig.completed=1"}, {"/rows/0/installed/version_line_after", "2"},
        {"/rows/1/when", "ro.vendor.hwconfig.completed=(unset)"}, {"/rows/1/installed/version_line_after", "1"}},
       {}},
  };
  for (const CourseCase& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string root = make_root();
    for (const auto& [path, content] : c.files) put(root + "/" + path, content);
    std::vector<std::string> args = c.args;
    args.push_back("new");
    const std::string cwd = fs::current_path();
    fs::current_path(root);
    const json doc = check(args);
    fs::current_path(cwd);
    for (const auto& [pointer, value] : c.members) EXPECT_EQ(doc.value(json::json_pointer(pointer), json()), value) << pointer;
    std::multiset<std::string> codes;
    for (const auto& f : doc["findings"]) {
      for (const char* code : {"stamp-not-bumped", "left-behind", "restart-without-change", "model-changed", "drift"}) {
        if (f["code"] == code) codes.insert(code);
      }
    }
    EXPECT_EQ(codes, c.codes);
    remove_root(root);
  }
}

}  // namespace
