#include "libbundle/PropertiesMap.h"

const char* const PropertiesMap::RAW_KEY = "_raw";

bool PropertiesMap::get(const std::string_view& key, Str& out) const {
  auto it = _map.find(key);
  if (it == _map.end()) return false;
  out = it->second;
  return true;
}

bool PropertiesMap::erase(const std::string_view& key) {
  auto it = _map.find(key);
  if (it == _map.end()) return false;
  _map.erase(it);
  return true;
}
