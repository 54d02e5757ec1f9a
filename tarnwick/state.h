// The three tables shared across the program's steps. They are created empty
// before main runs, in the order below, and destroyed in reverse order at exit.
#pragma once

#include <map>
#include <string>
#include <vector>

// Ordered by key (bytes compared unsigned); equal keys keep insertion order.
using AliasMap = std::multimap<std::string, std::string>;

// Model name -> alias text, filled from the ODM configuration file.
extern AliasMap ModelAliasMap;
// Target name -> alias text, from the property-guarded blocks that matched.
extern AliasMap TargetAliasMap;
// Bare names of the regular files found in the model's etc directory.
extern std::vector<std::string> OdmFileList;
