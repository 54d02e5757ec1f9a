// libFuzzer target over the program's configuration loader and model
// selection, over a device root of its own. Input: a product text line, a
// NAME=VALUE property line, a model whose tree gets a manifest, and the
// configuration. Both callers' selections must agree.
#include <android-base/logging.h>
#include <limits.h>
#include <stdlib.h>

#include <filesystem>
#include <sstream>

#include "tarnwick/config/config.h"
#include "tarnwick/platform/platform.h"
#include "tests/harness.h"

namespace fs = std::filesystem;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  android::base::SetMinimumLogSeverity(android::base::FATAL);
  host_root = make_root();
  fs::create_directories(host("/dev/__properties__"));
  fs::create_directories(host("/odm"));
  setenv("TARNWICK_ROOT", host_root.c_str(), 1);
  // A run that ends in a finding skips this and leaves the device as it found it.
  atexit([] { remove_root(host_root); });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::istringstream in(std::string(reinterpret_cast<const char*>(data), size));
  std::string product, property, model;
  for (std::string* line : {&product, &property, &model}) std::getline(in, *line);
  for (const auto& entry : fs::directory_iterator(host("/dev/__properties__"))) fs::remove(entry.path());
  // The property service's own rules decide what a device could hold.
  const size_t eq = property.find('=');
  if (eq != std::string::npos) property_set(property.substr(0, eq).c_str(), property.substr(eq + 1).c_str());
  property_set("ro.vendor.product", product.c_str());
  fs::remove_all(host("/vendor/etc"));
  put(source_manifest_path(kDefaultModel), "");
  // Only a model that names one directory entry ("odm_" + model) gets a tree.
  if (model.size() <= NAME_MAX - 4 && model.find_first_of(std::string("/\0", 2)) == std::string::npos) {
    put(source_manifest_path(model), "");
  }
  put("/odm/etc/odmconfig.xml", std::string(std::istreambuf_iterator<char>(in), {}));
  std::string answers[2];
  for (SelectionVariant variant : {kProvisioningRun, kImageNameQuery}) {
    ModelAliasMap.clear();
    TargetAliasMap.clear();
    create_map_from_config();
    answers[variant] = confirm_model_source(select_model_name(variant), variant);
  }
  if (answers[0] != answers[1]) abort();
  return 0;
}
