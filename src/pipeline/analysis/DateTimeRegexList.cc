#include "pipeline/analysis/DateTimeRegexList.h"

DateTimeRegexList::~DateTimeRegexList() = default;

void DateTimeRegexList::setPatterns(const std::vector<const RegexBinding*>* patterns) {
  _patterns = patterns;
  reset();
}

int DateTimeRegexList::tryPattern(size_t i, const StrSegment& text, ParseState& state) {
  if (!(*_patterns)[i]->evaluate(text, _values, state.begin, state.end, _scratch)) return -1;
  state.parse.clear();
  return parse(_values, state);
}

bool DateTimeRegexList::valid(const ParseState&, DateParser&) const { return true; }

void DateTimeRegexList::reset() {
  lastBinding = -1;
  runCount = 0;
  lastLength = 0;
}

bool DateTimeRegexList::readNumber(const StrSegment& s, int64_t& out) {
  if (s.empty() || s.size() > 18) return false;
  int64_t v = 0;
  for (char c : s.view()) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + (c - '0');
  }
  out = v;
  return true;
}
