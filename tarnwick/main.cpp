// Entry point: the image name query when started with "automation", otherwise
// the version gate, which provisions /odm when its stamp is not the source's.
#include <stdio.h>
#include <string.h>

#include <string>

#include "tarnwick/config/config.h"
#include "tarnwick/fileutil/fileutil.h"
#include "tarnwick/paths.h"
#include "tarnwick/platform/platform.h"
#include "tarnwick/provision/provision.h"

int main(int argc, char** argv) {
  if (argc >= 2 && strcmp(argv[1], "automation") == 0) {
    LOG(ERROR) << "Entry [automation]tarnwick main";
    getodmimagename();
    return 0;
  }

  LOG(ERROR) << "Entry tarnwick main ";
  char product[PROP_VALUE_MAX] = {};
  property_get("ro.vendor.product", product, "");
  LOG(ERROR) << "tarnwick model_str ro.vendor.product value = " << product;

  // All three are opened up front and stay open until main returns.
  UniqueFile installed_stamp = open_file(kInstalledStampPath, "r");
  UniqueFile sku_stamp = open_file(sku_stamp_path(product), "r");
  UniqueFile default_stamp = open_file(kDefaultStampPath, "r");
  LOG(ERROR) << "before opening odmver.txt file ";

  // Each stamp's version line is its last line.
  std::string source_line;
  std::string line;
  if (sku_stamp) {
    while (read_line(sku_stamp.get(), &line)) {
      LOG(ERROR) << "tarnwick SKU vendorver Line is " << line;
      source_line = line;
    }
  } else if (default_stamp) {
    while (read_line(default_stamp.get(), &line)) {
      LOG(ERROR) << "tarnwick default vendorver Line is " << line;
      source_line = line;
    }
  }

  if (!installed_stamp) {
    LOG(ERROR) << "tarnwick odm version textfile not found";
    reboot_device(source_line);
  } else {
    LOG(ERROR) << "odmver.txt file opened ";
    int first = getc(installed_stamp.get());
    bool empty = first == EOF;
    if (!empty) ungetc(first, installed_stamp.get());
    LOG(ERROR) << "tarnwick  P odm fastboot empty file " << empty;
    if (empty) {
      LOG(ERROR) << "tarnwick FOUND P ODM  SO REBOOTING ";
      reboot_device(source_line);
      return 0;
    }
    std::string installed_line;
    while (read_line(installed_stamp.get(), &line)) {
      LOG(ERROR) << "odmver Line is " << line;
      installed_line = line;
    }
    if (installed_line == source_line) {
      LOG(ERROR) << "tarnwick FOUND odm and vendor same version line ";
      property_set("ro.vendor.odm_restart", "1");
      property_set("ro.vendor.odm.version", installed_line.c_str());
      return 0;
    }
    LOG(ERROR) << "tarnwick  DIFF odm and vendor  version line ";
    reboot_device(source_line);
  }
  LOG(ERROR) << "tarnwick returning from tarnwick main function ";
  return 0;
}
