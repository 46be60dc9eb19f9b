#include "pipeline/analysis/MapRegexNameResolver.h"

Str MapRegexNameResolver::resolve(const Str& name) {
  auto it = _patterns.find(name);
  return it == _patterns.end() ? Str() : it->second;
}
