#include "LayerOrigins.h"

#include <cstring>

LayerOrigins::LayerOrigins(PropertyPages& pages, const Str& path, bool useRegex) {
  std::vector<PropertiesMapConfig*> configs = pages.getConfigs();
  std::vector<Str> names = pages.getBundleNames();
  bool several = path.find('|') != Str::npos;
  size_t from = 0;
  while (from <= path.size()) {
    size_t bar = path.find('|', from);
    size_t end = bar == Str::npos ? path.size() : bar;
    if (end > from) {
      Str stanza = path.substr(from, std::min<size_t>(end - from, 2047));
      for (size_t i = 0; i < configs.size(); ++i) {
        PropertiesMap layer;
        if (!configs[i]->getCopy(stanza, useRegex, layer)) continue;
        _found = true;
        overlay(layer, several ? names[i] + "[" + stanza + "]" : names[i]);
      }
    }
    if (bar == Str::npos) break;
    from = bar + 1;
  }
  for (size_t i = 0; i < configs.size(); ++i) {
    PropertiesMap layer;
    if (configs[i]->getCopy("default", false, layer)) overlay(layer, names[i] + "[default]");
  }
}

void LayerOrigins::overlay(const PropertiesMap& src, const Str& origin) {
  for (const auto& [key, value] : src) {
    if (key == PropertiesMap::RAW_KEY) continue;
    const char* have = _merged.get(key);
    if (have == nullptr) {
      _merged.put(key, value);
      _origins[key].push_back(origin);
      continue;
    }
    size_t n = strlen(have);
    if (n >= 3 && have[n - 2] == '$' && have[n - 1] == '+') {
      _merged.put(key, Str(have, n - 2) + value);
      _origins[key].push_back(origin);
    }
  }
}

const std::vector<Str>& LayerOrigins::originsOf(const Str& key) const {
  static const std::vector<Str> none;
  auto it = _origins.find(key);
  return it == _origins.end() ? none : it->second;
}
