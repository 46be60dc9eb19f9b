// WildcardList: several WildcardMatcher patterns; a text is a hit if any of
// them matches. Built once, then read-only: isHit may be called from any
// number of threads at once.
#ifndef VELMOR_UTIL_WILDCARDLIST_H
#define VELMOR_UTIL_WILDCARDLIST_H

#include <cstddef>
#include <vector>

#include "util/StrSegment.h"
#include "util/WildcardMatcher.h"

class WildcardList {
 public:
  WildcardList() = default;

  void add(const StrSegment& pattern) { _matchers.emplace_back(pattern); }
  void clear() { _matchers.clear(); }
  size_t size() const { return _matchers.size(); }
  bool empty() const { return _matchers.empty(); }
  const std::vector<WildcardMatcher>& matchers() const { return _matchers; }

  bool isHit(const char* text) const;
  bool isHit(const StrSegment& text) const;

 private:
  std::vector<WildcardMatcher> _matchers;
};

#endif
