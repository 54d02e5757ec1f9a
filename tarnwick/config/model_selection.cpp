#include "tarnwick/config/config.h"
#include "tarnwick/fileutil/fileutil.h"
#include "tarnwick/platform/platform.h"

namespace {

bool ends_with_regional_suffix(const std::string& model) {
  const size_t n = sizeof(kRegionalSuffix) - 1;
  return model.size() >= n && model.compare(model.size() - n, n, kRegionalSuffix) == 0;
}

}  // namespace

bool target_overrides(const std::string& product, const std::string& target) {
  return target != product;
}

std::string or_default_model(const std::string& model) { return model.empty() ? kDefaultModel : model; }

std::string source_manifest_path(const std::string& model) {
  return kModelTreePrefix + model + "/odm/etc/vintf/manifest.xml";
}

std::string select_model_name(SelectionVariant variant) {
  const bool query = variant == kImageNameQuery;
  char product_buf[PROP_VALUE_MAX] = {};
  property_get("ro.vendor.product", product_buf, "");
  const std::string product = product_buf;

  std::string model = get_model_name(product, ModelAliasMap);
  LOG(ERROR) << (query ? "[automation]model_str from get_model_name "
                       : "model_str from get_model_name ")
             << model;
  std::string target = get_model_name(product, TargetAliasMap);
  LOG(ERROR) << (query ? "[automation]model_str from get_model_name_roconfig "
                       : "model_str from get_model_name_roconfig ")
             << target;
  if (target_overrides(product, target)) {
    LOG(ERROR) << (query ? "[automation]model_name is diff from  model_str_roconfig "
                         : "model_name is diff from  model_str_roconfig ");
    model = target;
  }
  LOG(ERROR) << (query ? "[automation]  model_str = " : "model_str from get_model_name ") << model;
  return or_default_model(model);
}

std::string confirm_model_source(std::string model, SelectionVariant variant) {
  const bool query = variant == kImageNameQuery;
  std::string manifest = source_manifest_path(model);
  if (exists_file(manifest)) return model;
  LOG(ERROR) << (query ? "[automation]src_manifet not exist " : "src_manifet not exist ")
             << manifest;
  if (ends_with_regional_suffix(model)) {
    LOG(ERROR) << (query ? "[automation]RUSSIA.. truncate last 3 letter"
                         : "RUSSIA.. truncate last 3 letter");
    model.resize(model.size() - (sizeof(kRegionalSuffix) - 1));
  }
  if (exists_file(source_manifest_path(model))) return model;
  LOG(ERROR) << (query ? "[automation]NO MATCH, Fallback.. " : "NO MATCH, Fallback.. ");
  return kDefaultModel;
}
