// RulesDB: the learned line-merging rules of the whole process, shared by
// every stream, so what is learned on one file helps the next of its kind.
// The key of a rule is two line shapes written one after the other (see
// LineShape); the value a Rule.
//
// Bounded: at most 10000 rules by default (setMaxCacheSize); at the limit
// the least recently used rule goes, and findRule counts as a use.
//
// Ownership: instance() lives for the process; rules are shared pointers
// (a caller's copy outlives eviction). Threads: any; every member takes the
// object's mutex.
#pragma once

#include <memory>
#include <string_view>

#include "pipeline/analysis/CurrentLineDataHash.h"
#include "pipeline/analysis/Rule.h"
#include "util/Mutex.h"

class RulesDB {
 public:
  static constexpr size_t kDefaultMaxCacheSize = 10000;

  static RulesDB& instance();
  RulesDB();
  RulesDB(const RulesDB&) = delete;
  RulesDB& operator=(const RulesDB&) = delete;

  // The rule of `key`, made the most recent; null when there is none.
  std::shared_ptr<Rule> findRule(std::string_view key);
  // True with the rule's break flag in `brk` when `key` has a rule (made
  // the most recent); no shared pointer is copied.
  bool lookupBreak(std::string_view key, bool& brk);
  // With no rule for key, adds one. With a rule of the same break flag,
  // raises its weight to `weight` when that is more than the old weight
  // plus 0.05. A rule of the other flag stays as it is.
  void addRule(std::string_view key, bool brk, double weight);

  void setMaxCacheSize(size_t n);
  size_t size();
  // Forgets every rule (tests; a reset of what was learned).
  void clear();

 private:
  Mutex _mutex;
  ShapeLruTable<std::shared_ptr<Rule>> _rules;
};
