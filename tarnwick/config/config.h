// The ODM configuration and model resolution: which source tree under
// /vendor/etc/odm/ belongs to this device.
#pragma once

#include <map>
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

// The look-up's rule, for callers that must not copy the table: the first
// entry of |table|, in table order, whose value is |alias|; end() when none is.
AliasMap::const_iterator first_entry_with(const AliasMap& table, const std::string& alias);

// Every alias of |table| with the key that the look-up gives it, for host
// tools that look up many texts in one table.
std::map<std::string, std::string> index_aliases(const AliasMap& table);

// The steps of select_model_name after its look-ups: a target answer that is
// not the product text itself overrides the model answer; and an empty model
// becomes the default.
bool target_overrides(const std::string& product, const std::string& target);
std::string or_default_model(const std::string& model);

// The preliminary model: ro.vendor.product looked up in both tables, a target
// match overriding a model match, "VX41" when the result is empty.
std::string select_model_name(SelectionVariant variant);

// The final model: |model| when its tree has a manifest, else the same name
// without an "_RU" ending when that tree has one, else "VX41".
std::string confirm_model_source(std::string model, SelectionVariant variant);

// "automation" mode: publishes the final model in ro.vendor.odm_image.
void getodmimagename();
