// Fixed device paths that more than one part of the program uses.
#pragma once

#include <string>

// Source trees are this prefix followed by a model name.
inline constexpr char kModelTreePrefix[] = "/vendor/etc/odm/odm_";

// The configuration the model look-up reads, and the default installed over it.
inline constexpr char kConfigPath[] = "/odm/etc/odmconfig.xml";
inline constexpr char kDefaultConfigPath[] = "/vendor/etc/odm/odm_default/odm/etc/odmconfig.xml";

// Version stamps: the installed one, and the source tree's default one.
inline constexpr char kInstalledStampPath[] = "/odm/odmver.txt";
inline constexpr char kDefaultStampPath[] = "/vendor/etc/odm/odm_default/odm/odmver.txt";

// The source stamp named by |product| as it is read: no look-up, no check of
// its characters, nothing in its place when it is empty.
inline std::string sku_stamp_path(const std::string& product) {
  return kModelTreePrefix + product + "/odm/odmver.txt";
}
