// PipelineData: one record of the ingestion pipeline, and one event as the
// query engine hands it back: a map of keys to shared string values. The
// well-known keys name the raw text, the time, the host, source, source
// type, index and the stored meta text; any other key is a field.
//
// Values are shared: copying a record copies pointers, not text.
//
// Ownership: held by shared pointer. Threads: one thread at a time per
// record; distinct records may be used by any threads.
#pragma once

#include <memory>
#include <unordered_map>
#include <vector>

#include "util/Str.h"

class PipelineData {
 public:
  static const Str rawKey;         // "_raw"
  static const Str timeKey;        // "_time"
  static const Str hostKey;        // "host"
  static const Str sourceKey;      // "source"
  static const Str sourceTypeKey;  // "sourcetype"
  static const Str indexKey;       // "_MetaData:Index"
  static const Str metaKey;        // "_meta"
  static const Str cdKey;          // "_cd": "<bucket id>:<address>" of an event read back

  PipelineData() = default;

  // The value of key, or null.
  std::shared_ptr<const Str> get(const Str& key) const;
  // The value of key, or an empty text.
  const Str& getStr(const Str& key) const;
  bool has(const Str& key) const { return _map.count(key) != 0; }
  void put(const Str& key, const Str& value) { _map[key] = std::make_shared<const Str>(value); }
  void put(const Str& key, std::shared_ptr<const Str> value) { _map[key] = std::move(value); }
  void remove(const Str& key) { _map.erase(key); }
  size_t size() const { return _map.size(); }
  // Keys in no particular order.
  std::vector<Str> keys() const;
  const std::unordered_map<Str, std::shared_ptr<const Str>>& map() const { return _map; }

 private:
  std::unordered_map<Str, std::shared_ptr<const Str>> _map;
};
