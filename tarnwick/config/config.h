// The ODM configuration and model resolution: which source tree under
// /vendor/etc/odm/ belongs to this device.
#pragma once

#include <string>

#include "tarnwick/paths.h"
#include "tarnwick/state.h"

// The model used when the look-ups give nothing, and when no tree has a manifest.
inline constexpr char kDefaultModel[] = "VX41";

// The ending of a regional model's name, dropped when that model has no tree.
inline constexpr char kRegionalSuffix[] = "_RU";

// The manifest whose presence makes a model's source tree usable.
std::string source_manifest_path(const std::string& model);

// Which caller a selection runs for; it picks the log texts and nothing else.
enum SelectionVariant { kProvisioningRun, kImageNameQuery };

// Reads /odm/etc/odmconfig.xml into ModelAliasMap and TargetAliasMap.
void create_map_from_config();

// Returns the key of the first entry of |table| whose value is |aliasName|,
// or |aliasName| itself when none is.
std::string get_model_name(std::string aliasName, AliasMap table);

// The preliminary model: ro.vendor.product looked up in both tables, a target
// match overriding a model match, "VX41" when the result is empty.
std::string select_model_name(SelectionVariant variant);

// The final model: |model| when its tree has a manifest, else the same name
// without an "_RU" ending when that tree has one, else "VX41".
std::string confirm_model_source(std::string model, SelectionVariant variant);

// "automation" mode: publishes the final model in ro.vendor.odm_image.
void getodmimagename();
