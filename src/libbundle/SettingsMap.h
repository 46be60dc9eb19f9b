// SettingsMap: the stanzas of one .conf file, by name.
//
// An ordered map (byte order) from stanza name to PropertiesMap. The map owns
// its stanzas; a PropertiesMap* handed out stays valid until that stanza is
// erased or the map is cleared or destroyed. After a file is loaded the
// stanza "default" is always present.
//
// Threads: no locking of its own; see PropertiesMap.
#pragma once

#include <map>

#include "libbundle/PropertiesMap.h"
#include "util/Str.h"

class SettingsMap {
 public:
  using Map = std::map<Str, PropertiesMap, std::less<>>;
  using iterator = Map::iterator;
  using const_iterator = Map::const_iterator;

  static const char* const DEFAULT_STANZA;  // "default"

  // The stanza, or null.
  PropertiesMap* find(const std::string_view& name);
  const PropertiesMap* find(const std::string_view& name) const;
  // The stanza, created empty when absent.
  PropertiesMap& operator[](const Str& name) { return _map[name]; }
  bool contains(const std::string_view& name) const { return _map.find(name) != _map.end(); }
  bool erase(const std::string_view& name);
  // The first stanza whose name is not below `name` (for prefix walks).
  iterator lower_bound(const std::string_view& name) { return _map.lower_bound(name); }
  const_iterator lower_bound(const std::string_view& name) const { return _map.lower_bound(name); }
  void clear() { _map.clear(); }

  size_t size() const { return _map.size(); }
  bool empty() const { return _map.empty(); }
  iterator begin() { return _map.begin(); }
  iterator end() { return _map.end(); }
  const_iterator begin() const { return _map.begin(); }
  const_iterator end() const { return _map.end(); }

 private:
  Map _map;
};
