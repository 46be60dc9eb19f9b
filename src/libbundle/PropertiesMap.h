// PropertiesMap: one stanza of a .conf file.
//
// An ordered map from key to value. Keys are ordered as strcmp orders them
// (bytes as unsigned), which is also the order of std::string. The reserved
// key "_raw" holds the stanza's text as it stood in the file, comments
// included; it is what gets written back when the file is saved.
//
// operator[] and get() give the value as a C string, or null when the key is
// absent; the pointer lives until the key is next changed or erased.
//
// Threads: no locking of its own; one writer or many readers. A stanza that
// lives inside a PropertiesMapConfig is guarded by that object's mutex.
#pragma once

#include <cstddef>
#include <map>
#include <string>

#include "util/Str.h"

class PropertiesMap {
 public:
  using Map = std::map<Str, Str, std::less<>>;
  using const_iterator = Map::const_iterator;

  static const char* const RAW_KEY;  // "_raw"

  // Sets `key` to `value`, replacing any value it had.
  void put(const Str& key, const Str& value) { _map[key] = value; }
  void put(const char* key, const char* value) { _map[Str(key)] = value; }
  // The value of `key`, or null.
  const char* get(const std::string_view& key) const {
    auto it = _map.find(key);
    return it == _map.end() ? nullptr : it->second.c_str();
  }
  const char* operator[](const std::string_view& key) const { return get(key); }
  // The value as a Str; `out` is untouched and false returned when absent.
  bool get(const std::string_view& key, Str& out) const;
  bool contains(const std::string_view& key) const { return _map.find(key) != _map.end(); }
  bool erase(const std::string_view& key);

  // Replaces this map's contents by a copy of `other`'s.
  void copy(const PropertiesMap& other) { _map = other._map; }
  // Removes every key.
  void free() { _map.clear(); }

  size_t size() const { return _map.size(); }
  bool empty() const { return _map.empty(); }
  const_iterator begin() const { return _map.begin(); }
  const_iterator end() const { return _map.end(); }

  bool operator==(const PropertiesMap& o) const { return _map == o._map; }

 private:
  Map _map;
};
