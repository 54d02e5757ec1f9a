#include "tarnwick/provision/provision.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tarnwick/config/config.h"
#include "tarnwick/fileutil/fileutil.h"
#include "tarnwick/platform/platform.h"
#include "tarnwick/state.h"

namespace {

const char kDefaultConfigPath[] = "/vendor/etc/odm/odm_default/odm/etc/odmconfig.xml";
const char kConfigPath[] = "/odm/etc/odmconfig.xml";
const char kEncryptionModePath[] = "/odm/fbe.ini";
const char kInstalledStampPath[] = "/odm/odmver.txt";
const char kRestartReason[] = "tarnwick";

// Removes the manifests a former install may have left under other names;
// |model| is the preliminary model.
void remove_stale_manifests(const std::string& model) {
  const std::string stale[] = {
      "/odm/etc/vintf/manifest_" + model + ".xml",
      "/odm/etc/manifest_" + model + ".xml",
      "/odm/etc/vintf/manifest_" + model + "DS.xml",
      "/odm/etc/vintf/manifest_" + model + "SS.xml",
      "/odm/etc/manifest_" + model + "DS.xml",
      "/odm/etc/manifest_" + model + "SS.xml",
      "/odm/etc/vintf/manifest.xml",
  };
  for (const std::string& path : stale) remove(path.c_str());
}

// Flushes the file system that holds /odm, so that the installed files are on
// the disk before the stamp that vouches for them. Failures are ignored.
void flush_odm() {
  int fd = open("/odm", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  syncfs(fd);
  close(fd);
}

// True when the device is to restart: always, unless /odm/fbe.ini says "file"
// and the hardware configuration is not yet complete.
bool restart_wanted() {
  char hwconfig[PROP_VALUE_MAX] = {};
  property_get("ro.vendor.hwconfig.completed", hwconfig, "");
  if (!open_file(kEncryptionModePath, "r")) return true;
  return !(readData(kEncryptionModePath) == "file" && hwconfig[0] == '\0');
}

}  // namespace

void reboot_device(std::string version_line) {
  LOG(ERROR) << "NOT FOUND odmver.txt  deleting old and coping new";
  mkdir("/odm/etc", 0775);
  mkdir("/odm/etc/vintf", 0775);
  mkdir("/odm/etc/permissions", 0775);
  if (exists_file(kDefaultConfigPath)) copy_file(kDefaultConfigPath, kConfigPath);
  create_map_from_config();

  const std::string preliminary = select_model_name(kProvisioningRun);
  LOG(ERROR) << "now deleteing O files";
  remove_stale_manifests(preliminary);
  const std::string model = confirm_model_source(preliminary, kProvisioningRun);

  const std::string etc_dir = kModelTreePrefix + model + "/odm/etc/";
  const std::string manifest = etc_dir + "vintf/manifest.xml";
  LOG(ERROR) << "model name is " << manifest;
  get_all_files(etc_dir);
  copy_file(manifest, "/odm/etc/vintf/manifest.xml");
  copy_file(etc_dir + "permissions/unavailable_features.xml",
            "/odm/etc/permissions/unavailable_features.xml");
  for (const std::string& name : OdmFileList) {
    LOG(ERROR) << "ODM ETC FILES ARE " << name;
    copy_file(etc_dir + name, "/odm/etc/" + name);
  }

  if (!restart_wanted()) {
    LOG(ERROR) << "Skip rebooting the device";
    return;
  }
  LOG(ERROR) << "Entering device reboot";
  // An interrupted run is repeated at the next start only if the stamp reaches
  // the disk after everything it stands for, and before the restart.
  flush_odm();
  if (UniqueFile stamp = open_file(kInstalledStampPath, "w")) {
    fwrite(version_line.data(), 1, version_line.size(), stamp.get());
    fflush(stamp.get());
    fsync(fileno(stamp.get()));
  }
  property_set("ro.vendor.odm_restart", "1");
  LOG(ERROR) << "ODM  REBOOTING DEVICE as FILE NOT PRESENT";
  android_reboot(ANDROID_RB_RESTART2, 0, kRestartReason);
}
