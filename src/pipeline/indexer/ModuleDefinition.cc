#include "pipeline/indexer/ModuleDefinition.h"

#include <algorithm>

bool ModuleDefinition::takes(const Str& keyword) const {
  return std::find(requiredArgs.begin(), requiredArgs.end(), keyword) != requiredArgs.end() ||
         std::find(optionalArgs.begin(), optionalArgs.end(), keyword) != optionalArgs.end();
}
