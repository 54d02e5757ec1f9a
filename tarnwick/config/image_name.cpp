#include "tarnwick/config/config.h"
#include "tarnwick/platform/platform.h"

void getodmimagename() {
  // The configuration as installed: the default one is not copied first.
  create_map_from_config();
  std::string model = select_model_name(kImageNameQuery);
  model = confirm_model_source(model, kImageNameQuery);
  property_set("ro.vendor.odm_image", model.c_str());
}
