// Provisioning starts and the image name query, through the device sandbox.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/e2e_harness.h"

namespace {

using Lines = std::vector<std::string>;

const char kKernelLine[] = "<3>ODM File copied successfully..!!: ";
const char kConfig[] =
    "<odm><model name='RK7'><alias>rook</alias></model>"
    "<model name='RK7_RU'><alias>rook_ru</alias></model><setup_odm>"
    "<prop_value config_name='ro.boot.sku' config_value='dual'><target name='RK7DS'>"
    "<alias>rook</alias></target></prop_value></setup_odm></odm>";

// A model's source tree with its manifest, its unavailable-features file and |files| in etc/.
void add_model(const std::string& root, const std::string& model, const Lines& files,
               bool manifest = true) {
  const std::string etc = "vendor/etc/odm/odm_" + model + "/odm/etc/";
  if (manifest) put(root, etc + "vintf/manifest.xml", "<manifest model='" + model + "'/>\n");
  put(root, etc + "permissions/unavailable_features.xml", "<permissions/>\n");
  for (const auto& f : files) put(root, etc + f, model + " " + f + "\n");
}

// A device with the configuration above, a source stamp and three model trees.
std::string make_device(const std::string& boot_prop) {
  std::string root = make_root();
  put(root, "boot.prop", boot_prop);
  put(root, "vendor/etc/odm/odm_default/odm/odmver.txt", "build 7\nODM.2");
  put(root, "vendor/etc/odm/odm_default/odm/etc/odmconfig.xml", kConfig);
  add_model(root, "VX41", {"a.conf"});
  add_model(root, "RK7", {"audio.xml"});
  add_model(root, "RK7DS", {"dual.conf"});
  return root;
}

bool has(const Lines& lines, const std::string& line) {
  return std::find(lines.begin(), lines.end(), line) != lines.end();
}

TEST(Provisioning, TwoStartCourse) {
  std::string root = make_device("ro.vendor.product=rook\nro.boot.sku=dual\n");
  Start first = boot(root);
  EXPECT_EQ(first.status, 0);
  // The first start, line by line, without the look-ups' and the listing's own lines.
  Lines run;
  for (const auto& line : first.log) {
    if (line.file == "main.cpp" || line.file == "provision.cpp" || line.file == "copy_file.cpp") {
      run.push_back(line.message);
    }
  }
  const std::string src = "/vendor/etc/odm/odm_RK7DS/odm/etc/";
  EXPECT_EQ(run, (Lines{"Entry tarnwick main ", "tarnwick model_str ro.vendor.product value = rook",
                        "before opening odmver.txt file ",
                        "tarnwick default vendorver Line is build 7",
                        "tarnwick default vendorver Line is ODM.2",
                        "tarnwick odm version textfile not found",
                        "NOT FOUND odmver.txt  deleting old and coping new",
                        " ODM src path is /vendor/etc/odm/odm_default/odm/etc/odmconfig.xml",
                        "ODM dest path is /odm/etc/odmconfig.xml", "now deleteing O files",
                        "model name is " + src + "vintf/manifest.xml",
                        " ODM src path is " + src + "vintf/manifest.xml",
                        "ODM dest path is /odm/etc/vintf/manifest.xml",
                        " ODM src path is " + src + "permissions/unavailable_features.xml",
                        "ODM dest path is /odm/etc/permissions/unavailable_features.xml",
                        "ODM ETC FILES ARE dual.conf", " ODM src path is " + src + "dual.conf",
                        "ODM dest path is /odm/etc/dual.conf", "Entering device reboot",
                        "ODM  REBOOTING DEVICE as FILE NOT PRESENT",
                        "tarnwick returning from tarnwick main function "}));
  EXPECT_EQ(get(root, "odm/odmver.txt"), "ODM.2");
  EXPECT_EQ(get(root, "odm/etc/vintf/manifest.xml"), "<manifest model='RK7DS'/>\n");
  EXPECT_EQ(get(root, "odm/etc/dual.conf"), "RK7DS dual.conf\n");
  EXPECT_EQ(get(root, "odm/etc/odmconfig.xml"), std::string(kConfig) + "\n");
  EXPECT_EQ(prop(root, "ro.vendor.odm_restart"), "1");
  EXPECT_EQ(prop(root, "sys.powerctl"), "reboot,tarnwick");
  std::string records;
  for (int i = 0; i < 4; ++i) records += kKernelLine;
  EXPECT_EQ(first.kmsg, records) << "config, manifest, features and the listed file";
  struct stat st;
  ASSERT_EQ(stat((root + "/odm/etc/dual.conf").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0644u);

  auto installed = snapshot(root, "odm");
  Start second = boot(root);
  EXPECT_EQ(second.status, 0);
  EXPECT_EQ(messages(second, "main.cpp").back(), "tarnwick FOUND odm and vendor same version line ");
  EXPECT_TRUE(messages(second, "provision.cpp").empty());
  EXPECT_EQ(prop(root, "ro.vendor.odm.version"), "ODM.2");
  EXPECT_EQ(prop(root, "ro.vendor.odm_restart"), "1");
  EXPECT_EQ(prop(root, "sys.powerctl"), "<unset>");
  EXPECT_EQ(second.kmsg, "");
  EXPECT_EQ(snapshot(root, "odm"), installed);
  remove_root(root);
}

TEST(Provisioning, RestartDecision) {
  struct Case {
    const char* fbe;  // nullptr: no /odm/fbe.ini
    const char* hwconfig;  // nullptr: unset
    bool restart;
  } cases[] = {
      {"file\n", nullptr, false}, {"mode=file", "", false}, {"file\n", "1", true},
      {"block\n", nullptr, true}, {"", nullptr, true},      {nullptr, nullptr, true},
      {"file\n\n", nullptr, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string("fbe.ini=") + (c.fbe ? c.fbe : "<none>") +
                 " hwconfig=" + (c.hwconfig ? c.hwconfig : "<unset>"));
    std::string boot_prop = "ro.vendor.product=rook\n";
    if (c.hwconfig) boot_prop += std::string("ro.vendor.hwconfig.completed=") + c.hwconfig + "\n";
    std::string root = make_device(boot_prop);
    if (c.fbe) put(root, "odm/fbe.ini", c.fbe);
    put(root, "odm/odmver.txt", "old");
    Start start = boot(root);
    EXPECT_EQ(start.status, 0);
    Lines run = messages(start, "provision.cpp");
    ASSERT_FALSE(run.empty());
    EXPECT_EQ(get(root, "odm/etc/audio.xml"), "RK7 audio.xml\n") << "installed either way";
    if (c.restart) {
      EXPECT_EQ(run.back(), "ODM  REBOOTING DEVICE as FILE NOT PRESENT");
      EXPECT_EQ(get(root, "odm/odmver.txt"), "ODM.2");
      EXPECT_EQ(prop(root, "ro.vendor.odm_restart"), "1");
      EXPECT_EQ(prop(root, "sys.powerctl"), "reboot,tarnwick");
    } else {
      EXPECT_EQ(run.back(), "Skip rebooting the device");
      EXPECT_EQ(get(root, "odm/odmver.txt"), "old");
      EXPECT_EQ(prop(root, "ro.vendor.odm_restart"), "<unset>");
      EXPECT_EQ(prop(root, "sys.powerctl"), "<unset>");
    }
    remove_root(root);
  }
}

TEST(Provisioning, StaleFilesNameThePreliminaryModelInstallsComeFromTheFinal) {
  struct Case {
    const char* name;
    const char* product;
    const char* preliminary;
    const char* installed_from;
  } cases[] = {
      {"regional variant without a manifest", "rook_ru", "RK7_RU", "RK7"},
      {"model without any tree", "XT9", "XT9", "VX41"},
      {"model with its manifest", "rook", "RK7", "RK7"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::string root = make_device(std::string("ro.vendor.product=") + c.product + "\n");
    add_model(root, "RK7_RU", {"ru_only.conf"}, /*manifest=*/false);
    const std::string p = c.preliminary;
    const Lines stale = {"odm/etc/vintf/manifest_" + p + ".xml", "odm/etc/manifest_" + p + ".xml",
                         "odm/etc/vintf/manifest_" + p + "DS.xml",
                         "odm/etc/vintf/manifest_" + p + "SS.xml",
                         "odm/etc/manifest_" + p + "DS.xml", "odm/etc/manifest_" + p + "SS.xml"};
    for (const auto& f : stale) put(root, f, "stale");
    put(root, "odm/etc/vintf/manifest_OTHER.xml", "kept");
    put(root, "odm/etc/vintf/manifest.xml", "old manifest");
    Start start = boot(root);
    EXPECT_EQ(start.status, 0);
    for (const auto& f : stale) EXPECT_EQ(get(root, f), "<missing>") << f;
    EXPECT_EQ(get(root, "odm/etc/vintf/manifest_OTHER.xml"), "kept");
    EXPECT_EQ(get(root, "odm/etc/vintf/manifest.xml"),
              std::string("<manifest model='") + c.installed_from + "'/>\n");
    EXPECT_TRUE(has(messages(start, "provision.cpp"),
                    std::string("model name is /vendor/etc/odm/odm_") + c.installed_from +
                        "/odm/etc/vintf/manifest.xml"));
    EXPECT_EQ(get(root, "odm/etc/ru_only.conf"), "<missing>");
    remove_root(root);
  }
}

TEST(Provisioning, OnlyRegularFilesDirectlyInEtcAreInstalled) {
  std::string root = make_device("ro.vendor.product=rook\n");
  add_model(root, "RK7", {"audio.xml", "init/rook.rc"});
  const std::string etc = root + "/vendor/etc/odm/odm_RK7/odm/etc/";
  ASSERT_EQ(symlink("audio.xml", (etc + "link.xml").c_str()), 0);
  ASSERT_EQ(symlink("/vendor/etc/odm/odm_RK7/odm/etc/init", (etc + "dirlink").c_str()), 0);
  Start start = boot(root);
  EXPECT_EQ(start.status, 0);
  auto tree = snapshot(root, "odm/etc");
  Lines names;
  for (const auto& [path, what] : tree) names.push_back(path);
  EXPECT_EQ(names, (Lines{"audio.xml", "odmconfig.xml", "permissions",
                          "permissions/unavailable_features.xml", "vintf", "vintf/manifest.xml"}));
  Lines listed;
  for (const auto& line : messages(start, "file_queries.cpp")) {
    if (!line.empty()) listed.push_back(line);
  }
  std::sort(listed.begin(), listed.end());
  EXPECT_EQ(listed, (Lines{"file_name.", "file_name..", "file_nameaudio.xml", "file_namedirlink",
                           "file_nameinit", "file_namelink.xml", "file_namepermissions",
                           "file_namevintf"}));
  remove_root(root);
}

TEST(Provisioning, ConfigurationAmongTheModelFilesCountsFromTheNextRun) {
  std::string root = make_device("ro.vendor.product=rook\n");
  const std::string own = "<odm><model name='VX41'><alias>rook</alias></model><setup_odm/></odm>";
  put(root, "vendor/etc/odm/odm_RK7/odm/etc/odmconfig.xml", own);
  boot(root);
  EXPECT_EQ(get(root, "odm/etc/odmconfig.xml"), own + "\n") << "the model's copy comes last";
  EXPECT_EQ(get(root, "odm/etc/vintf/manifest.xml"), "<manifest model='RK7'/>\n")
      << "selected with the default configuration";
  remove_root(root);
}

TEST(ImageNameQuery, PublishesTheFinalModelAndChangesNoFile) {
  struct Case {
    const char* name;
    const char* product;
    bool installed_config;
    std::string image;
    Lines tail;  // the query's last lines
  } cases[] = {
      {"alias in the installed configuration", "rook", true, "RK7",
       {"[automation]  model_str = RK7"}},
      {"no installed configuration: the default one is not used", "rook", false, "VX41",
       {"[automation]  model_str = rook",
        "[automation]src_manifet not exist /vendor/etc/odm/odm_rook/odm/etc/vintf/manifest.xml",
        "[automation]NO MATCH, Fallback.. "}},
      {"a product with its own tree", "RK7DS", false, "RK7DS", {"[automation]  model_str = RK7DS"}},
      {"regional variant", "rook_ru", true, "RK7",
       {"[automation]  model_str = RK7_RU",
        "[automation]src_manifet not exist /vendor/etc/odm/odm_RK7_RU/odm/etc/vintf/manifest.xml",
        "[automation]RUSSIA.. truncate last 3 letter"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::string root = make_device(std::string("ro.vendor.product=") + c.product + "\n");
    if (c.installed_config) put(root, "odm/etc/odmconfig.xml", kConfig);
    auto before = snapshot(root, "odm");
    Start start = boot(root, {"automation"});
    EXPECT_EQ(start.status, 0);
    EXPECT_EQ(prop(root, "ro.vendor.odm_image"), c.image);
    Lines query = messages(start, "model_selection.cpp");
    ASSERT_GE(query.size(), c.tail.size());
    EXPECT_EQ(Lines(query.end() - c.tail.size(), query.end()), c.tail);
    EXPECT_EQ(snapshot(root, "odm"), before);
    EXPECT_EQ(prop(root, "ro.vendor.odm_restart"), "<unset>");
    EXPECT_EQ(prop(root, "sys.powerctl"), "<unset>");
    EXPECT_EQ(start.kmsg, "");
    remove_root(root);
  }
}

}  // namespace
