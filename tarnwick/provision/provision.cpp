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

const char kEncryptionModePath[] = "/odm/fbe.ini";
const char kRestartReason[] = "tarnwick";

// Flushes the file system that holds /odm, so that the installed files are on
// the disk before the stamp that vouches for them. Failures are ignored.
void flush_odm() {
  int fd = device_open("/odm", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
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

std::string source_etc_dir(const std::string& model) {
  return kModelTreePrefix + model + "/odm/etc/";
}

std::vector<std::string> stale_manifest_paths(const std::string& model) {
  return {
      "/odm/etc/vintf/manifest_" + model + ".xml",
      "/odm/etc/manifest_" + model + ".xml",
      "/odm/etc/vintf/manifest_" + model + "DS.xml",
      "/odm/etc/vintf/manifest_" + model + "SS.xml",
      "/odm/etc/manifest_" + model + "DS.xml",
      "/odm/etc/manifest_" + model + "SS.xml",
      "/odm/etc/vintf/manifest.xml",
  };
}

void reboot_device(std::string version_line) {
  LOG(ERROR) << "NOT FOUND odmver.txt  deleting old and coping new";
  device_mkdir("/odm/etc", 0775);
  device_mkdir("/odm/etc/vintf", 0775);
  device_mkdir("/odm/etc/permissions", 0775);
  if (exists_file(kDefaultConfigPath)) copy_file(kDefaultConfigPath, kConfigPath);
  create_map_from_config();

  const std::string preliminary = select_model_name(kProvisioningRun);
  LOG(ERROR) << "now deleteing O files";
  for (const std::string& path : stale_manifest_paths(preliminary)) device_remove(path.c_str());
  const std::string model = confirm_model_source(preliminary, kProvisioningRun);

  const std::string etc_dir = source_etc_dir(model);
  LOG(ERROR) << "model name is " << source_manifest_path(model);
  get_all_files(etc_dir);
  for (const char* name : kFixedInstalls) copy_file(etc_dir + name, kOdmEtcDir + std::string(name));
  for (const std::string& name : OdmFileList) {
    LOG(ERROR) << "ODM ETC FILES ARE " << name;
    copy_file(etc_dir + name, kOdmEtcDir + name);
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
