// The configuration loader, both look-ups, the model selection and the image
// name query, on any document, product text and property.
// Input, one per line: the product text; NAME=VALUE, a property the document's
// config_name may name; a model whose tree gets a manifest; then the document.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "fuzz/fuzz_sandbox.h"
#include "tarnwick/config/config.h"
#include "tarnwick/state.h"

namespace {

const char kPropertyDir[] = "/dev/__properties__/";
const char kImageProperty[] = "/dev/__properties__/ro.vendor.odm_image";
const char kDefaultModel[] = "VX41";
// The longest value the property store hands back as it is.
const size_t kMaxValue = 91;

std::string take_line(std::string* rest) {
  size_t end = rest->find('\n');
  std::string line = rest->substr(0, end);
  rest->erase(0, end == std::string::npos ? rest->size() : end + 1);
  return line;
}

std::string tree_of(const std::string& model) { return kModelTreePrefix + model; }

bool has_manifest(const std::string& model) {
  return access((tree_of(model) + "/odm/etc/vintf/manifest.xml").c_str(), R_OK) == 0;
}

// A name that stays one directory entry under the directory it is put in.
bool is_entry_name(const std::string& name) {
  return !name.empty() && name != "." && name != ".." &&
         name.find_first_of(std::string("/\0", 2)) == std::string::npos;
}

// The key of the first entry of |table| (in its order) whose value is |alias|.
const std::string* first_key_for(const AliasMap& table, const std::string& alias) {
  for (const auto& entry : table) {
    if (entry.second == alias) return &entry.first;
  }
  return nullptr;
}

// The selection as the README states it, over the tables the loader filled.
std::string expected_model(const std::string& product) {
  const std::string* target = first_key_for(TargetAliasMap, product);
  const std::string* model = first_key_for(ModelAliasMap, product);
  // A target named like the product text itself cannot be told from no match.
  std::string name = target != nullptr && *target != product ? *target
                     : model != nullptr                      ? *model
                                                             : product;
  if (name.empty()) name = kDefaultModel;
  if (has_manifest(name)) return name;
  if (name.size() >= 3 && name.compare(name.size() - 3, 3, "_RU") == 0) name.resize(name.size() - 3);
  return has_manifest(name) ? name : kDefaultModel;
}

void reset_tables() {
  ModelAliasMap.clear();
  TargetAliasMap.clear();
  OdmFileList.clear();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  enter_device_sandbox(argc, argv);
  put_file(tree_of(kDefaultModel) + "/odm/etc/vintf/manifest.xml", "<manifest/>");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string rest(reinterpret_cast<const char*>(data), size);
  const std::string product = take_line(&rest).substr(0, kMaxValue);
  const std::string property = take_line(&rest);
  const std::string model = take_line(&rest);

  const size_t equals = property.find('=');
  std::string prop_name = property.substr(0, equals);
  // The product text has its own line, and the query's answer must start unset.
  if (equals == std::string::npos || !is_entry_name(prop_name) ||
      prop_name == "ro.vendor.product" || prop_name == "ro.vendor.odm_image") {
    prop_name.clear();
  } else {
    put_file(kPropertyDir + prop_name, property.substr(equals + 1, kMaxValue));
  }
  put_file(std::string(kPropertyDir) + "ro.vendor.product", product);
  // The fallback's tree stays as it is; other names get a tree for this input only.
  const bool own_tree = is_entry_name(model) && model != kDefaultModel;
  if (own_tree) put_file(tree_of(model) + "/odm/etc/vintf/manifest.xml", "<manifest/>");
  put_file("/odm/etc/odmconfig.xml", rest);

  reset_tables();
  create_map_from_config();
  // The product text as a property read gives it back: up to its first zero byte.
  const std::string expected = expected_model(product.substr(0, product.find('\0')));
  for (SelectionVariant variant : {kProvisioningRun, kImageNameQuery}) {
    if (confirm_model_source(select_model_name(variant), variant) != expected) abort();
  }

  // The query loads the document itself and publishes its answer, once per boot.
  reset_tables();
  unlink(kImageProperty);
  getodmimagename();
  std::string published;
  const bool set = get_file(kImageProperty, &published);
  if (set && published != expected) abort();
  // Refused only for bytes the property store does not take (not UTF-8).
  bool ascii = true;
  for (unsigned char c : expected) ascii = ascii && c < 0x80;
  if (ascii && !set) abort();

  reset_tables();
  if (!prop_name.empty()) unlink((kPropertyDir + prop_name).c_str());
  if (own_tree) {
    std::error_code ec;
    std::filesystem::remove_all(tree_of(model), ec);
  }
  return 0;
}
