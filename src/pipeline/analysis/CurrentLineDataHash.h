// CurrentLineDataHash: per stream, what the line merger knows of each line
// shape: how often a line of that shape was followed by another, and by
// which shapes. JointLineCountHash (its sibling) counts the pairs.
//
// Both are bounded: at the limit (20000 entries by default) the least
// recently used entry goes, so memory does not grow with the data. Lookups
// take the key as a string_view and allocate nothing; only a new entry or a
// new follower costs an allocation. Keys are hashed with djb2.
//
// Owned by one Aggregator; one thread; no lock.
#pragma once

#include <cstdint>
#include <list>
#include <set>
#include <string_view>
#include <unordered_map>

#include "util/Hash.h"
#include "util/Str.h"

// A table of Str keys to V, bounded, least recently used evicted first.
// Shared by the line merger's tables and the rule store.
template <class V>
class ShapeLruTable {
 public:
  explicit ShapeLruTable(size_t limit) : _limit(limit ? limit : 1) { _index.reserve(_limit); }
  ShapeLruTable(const ShapeLruTable&) = delete;
  ShapeLruTable& operator=(const ShapeLruTable&) = delete;

  // The value of key, made the most recent; null when absent.
  V* find(std::string_view key) {
    auto it = _index.find(key);
    if (it == _index.end()) return nullptr;
    _order.splice(_order.begin(), _order, it->second);
    return &it->second->value;
  }
  // The value of key without touching its place.
  const V* peek(std::string_view key) const {
    auto it = _index.find(key);
    return it == _index.end() ? nullptr : &it->second->value;
  }
  // The value of key, made the most recent; a new default value when absent
  // (evicting the least recent entry at the limit).
  V& findOrAdd(std::string_view key) {
    if (V* v = find(key)) return *v;
    while (_index.size() >= _limit) {
      _index.erase(std::string_view(_order.back().key));
      _order.pop_back();
    }
    _order.emplace_front();
    _order.front().key.assign(key.data(), key.size());
    _index.emplace(std::string_view(_order.front().key), _order.begin());
    return _order.front().value;
  }
  size_t size() const { return _index.size(); }
  size_t limit() const { return _limit; }
  // Shrinks to at most `limit` entries at once (least recent go first).
  void setLimit(size_t limit) {
    _limit = limit ? limit : 1;
    while (_index.size() > _limit) {
      _index.erase(std::string_view(_order.back().key));
      _order.pop_back();
    }
  }
  void clear() {
    _index.clear();
    _order.clear();
  }

 private:
  struct Node {
    Str key;
    V value{};
  };
  struct KeyHash {
    size_t operator()(std::string_view s) const { return size_t(djb2_hash(s.data(), s.size())); }
  };
  size_t _limit;
  std::list<Node> _order;  // most recent first; nodes never move in memory
  std::unordered_map<std::string_view, typename std::list<Node>::iterator, KeyHash> _index;
};

// What is known of one shape: lines of it that were followed by another
// line, and the shapes that followed.
struct CurrentLineData {
  uint32_t count = 0;
  std::set<Str, std::less<>> followers;  // empty once given up
  uint32_t numFollowers = 0;             // distinct followers seen; kept after giving up
  bool gaveUp = false;                   // too many followers to be worth keeping
};

class CurrentLineDataHash {
 public:
  static constexpr size_t kDefaultLimit = 20000;
  explicit CurrentLineDataHash(size_t limit = kDefaultLimit) : _table(limit) {}

  // The entry of `prev`, with its count raised and `shape` added to its
  // followers (unless the set was given up).
  CurrentLineData& findOrAddCurrentLineData(std::string_view prev, std::string_view shape);
  // How often `shape` was followed by a line; 0 when unknown.
  uint32_t getCurrentLineDataCount(std::string_view shape);
  // Drops the followers of `data` for good (the count of them stays).
  static void giveUp(CurrentLineData& data);

  size_t size() const { return _table.size(); }

 private:
  ShapeLruTable<CurrentLineData> _table;
};
