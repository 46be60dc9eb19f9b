#include "libbundle/SettingsMap.h"

const char* const SettingsMap::DEFAULT_STANZA = "default";

PropertiesMap* SettingsMap::find(const std::string_view& name) {
  auto it = _map.find(name);
  return it == _map.end() ? nullptr : &it->second;
}

const PropertiesMap* SettingsMap::find(const std::string_view& name) const {
  auto it = _map.find(name);
  return it == _map.end() ? nullptr : &it->second;
}

bool SettingsMap::erase(const std::string_view& name) {
  auto it = _map.find(name);
  if (it == _map.end()) return false;
  _map.erase(it);
  return true;
}
