// JointLineCountHash: per stream, how often a line of one shape was followed
// by a line of another. The key is the two shapes written one after the
// other. Bounded like CurrentLineDataHash (least recently used entry goes at
// the limit); lookups allocate nothing.
//
// Owned by one Aggregator; one thread; no lock.
#pragma once

#include <cstdint>
#include <string_view>

#include "pipeline/analysis/CurrentLineDataHash.h"

struct LineCount {
  uint32_t count = 0;
};

class JointLineCountHash {
 public:
  static constexpr size_t kDefaultLimit = 20000;
  explicit JointLineCountHash(size_t limit = kDefaultLimit) : _table(limit) {}

  // Raises the count of `key` (made if absent) and returns it.
  uint32_t findOrAddCount(std::string_view key) { return ++_table.findOrAdd(key).count; }
  // The count of `key`; 0 when unknown.
  uint32_t getCount(std::string_view key) {
    const LineCount* c = _table.find(key);
    return c ? c->count : 0;
  }
  size_t size() const { return _table.size(); }

 private:
  ShapeLruTable<LineCount> _table;
};
