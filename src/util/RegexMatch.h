// RegexMatch: the groups of one successful Regex::match.
//
// Every group is a StrSegment into the matched subject, so a RegexMatch is
// valid only while the subject's text lives and is unchanged. A group that did
// not take part in the match is an empty segment with a null pointer. The
// names of groups are looked up in the Regex that filled the match, which must
// also outlive it. Owned by its caller; one thread at a time.
#pragma once

#include <cstddef>
#include <map>
#include <vector>

#include "util/Str.h"
#include "util/StrSegment.h"

class RegexMatch {
 public:
  RegexMatch() = default;

  // Number of groups, group 0 (the whole match) included.
  size_t size() const { return _groups.size(); }
  // Throws std::runtime_error
  // "IndexOutOfBounds Exception: idx = %u, size = %u" past the last group.
  const StrSegment& getGroup(size_t idx) const;
  // Fills `out` with name -> text of every named group that took part.
  void getAllGroups(std::map<Str, Str>& out) const;

  // Offsets of group 0 within the segment that was matched.
  size_t getMatchStart() const { return _start; }
  size_t getMatchEnd() const { return _end; }

  // Filled by Regex::match.
  void reset(size_t groups, const std::map<Str, unsigned>* names);
  void setGroup(size_t idx, const char* p, size_t len) { _groups[idx].assign(p, len); }
  void setSpan(size_t start, size_t end) {
    _start = start;
    _end = end;
  }

 private:
  std::vector<StrSegment> _groups;
  const std::map<Str, unsigned>* _names = nullptr;
  size_t _start = 0;
  size_t _end = 0;
};
