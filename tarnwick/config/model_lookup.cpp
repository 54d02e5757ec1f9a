#include "tarnwick/config/config.h"
#include "tarnwick/platform/platform.h"

AliasMap::const_iterator first_entry_with(const AliasMap& table, const std::string& alias) {
  // Values are compared, not keys, so every entry may have to be visited.
  auto it = table.begin();
  while (it != table.end() && it->second != alias) ++it;
  return it;
}

std::map<std::string, std::string> index_aliases(const AliasMap& table) {
  std::map<std::string, std::string> index;
  // emplace keeps the first key met, in table order: first_entry_with's.
  for (const auto& [key, alias] : table) index.emplace(alias, key);
  return index;
}

std::string get_model_name(std::string aliasName, AliasMap table) {
  const auto match = first_entry_with(table, aliasName);
  for (auto it = table.begin(); it != table.end(); ++it) {
    LOG(ERROR) << "iterating " << it->first << "  value found " << it->second;
    if (it == match) {
      LOG(ERROR) << "returning key " << it->first << " as value " << it->second << " matched ";
      return it->first;
    }
    LOG(ERROR) << "returning aliasName as value dont match " << aliasName;
  }
  LOG(ERROR) << "nothing matched returning aliasname itself " << aliasName;
  return aliasName;
}
