#include "tarnwick/config/config.h"
#include "tarnwick/platform/platform.h"

std::string get_model_name(std::string aliasName, AliasMap table) {
  // Values are compared, not keys, so every entry may have to be visited.
  for (const auto& [key, value] : table) {
    LOG(ERROR) << "iterating " << key << "  value found " << value;
    if (value == aliasName) {
      LOG(ERROR) << "returning key " << key << " as value " << value << " matched ";
      return key;
    }
    LOG(ERROR) << "returning aliasName as value dont match " << aliasName;
  }
  LOG(ERROR) << "nothing matched returning aliasname itself " << aliasName;
  return aliasName;
}
