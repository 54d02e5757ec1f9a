#include "tarnwick/state.h"

// Defined in this one file so that their construction order is the order here.
AliasMap ModelAliasMap;
AliasMap TargetAliasMap;
std::vector<std::string> OdmFileList;
