#include "util/WildcardList.h"

bool WildcardList::isHit(const char* text) const {
  for (const auto& m : _matchers)
    if (m.isMatch(text)) return true;
  return false;
}

bool WildcardList::isHit(const StrSegment& text) const {
  for (const auto& m : _matchers)
    if (m.isMatch(text)) return true;
  return false;
}
