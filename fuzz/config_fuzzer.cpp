// The configuration loader, both look-ups and the model selection, on any
// document, product text and property value. Input: the product text, a
// property value and a model given a manifest, one per line, then the XML.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <string>

#include "fuzz/fuzz_sandbox.h"
#include "tarnwick/config/config.h"
#include "tarnwick/fileutil/fileutil.h"

namespace {

std::string take_line(std::string* rest) {
  size_t end = rest->find('\n');
  std::string line = rest->substr(0, end);
  rest->erase(0, end == std::string::npos ? rest->size() : end + 1);
  return line;
}

std::string manifest_of(const std::string& model) {
  return std::string(kModelTreePrefix) + model + "/odm/etc/vintf/manifest.xml";
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  enter_device_sandbox(argc, argv);
  put_file(manifest_of("VX41"), "<manifest/>");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string rest(reinterpret_cast<const char*>(data), size);
  const std::string product = take_line(&rest).substr(0, 91);
  const std::string value = take_line(&rest).substr(0, 91);
  const std::string model = take_line(&rest).substr(0, 64);
  put_file("/dev/__properties__/ro.vendor.product", product);
  put_file("/dev/__properties__/ro.config.device", value);
  // Only plain names get a tree, so that the fuzzer cannot write outside /vendor.
  const bool plain = model.find_first_of("/.") == std::string::npos && !model.empty();
  if (plain) put_file(manifest_of(model), "<manifest/>");
  put_file("/odm/etc/odmconfig.xml", rest);

  ModelAliasMap.clear();
  TargetAliasMap.clear();
  create_map_from_config();
  for (SelectionVariant variant : {kProvisioningRun, kImageNameQuery}) {
    const std::string chosen = confirm_model_source(select_model_name(variant), variant);
    // The final model always has a manifest, or is the fallback.
    if (chosen != "VX41" && !exists_file(manifest_of(chosen))) abort();
  }
  if (plain) remove(manifest_of(model).c_str());
  return 0;
}
