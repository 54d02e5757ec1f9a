#include <dirent.h>

#include "tarnwick/fileutil/fileutil.h"
#include "tarnwick/platform/platform.h"
#include "tarnwick/state.h"

bool exists_file(const std::string& path) {
  return open_file(path, "r") != nullptr;
}

int get_all_files(std::string dir) {
  std::unique_ptr<DIR, int (*)(DIR*)> listing(device_opendir(dir.c_str()), closedir);
  if (!listing) {
    LOG(ERROR) << "COULD NOT FIND ETC";
    return 1;
  }
  // readdir's null is both the end and an error; either way the listing is over.
  while (const dirent* entry = readdir(listing.get())) {
    LOG(ERROR) << "file_name" << entry->d_name << "\n";
    if (entry->d_type == DT_REG) OdmFileList.emplace_back(entry->d_name);
  }
  return 0;
}
