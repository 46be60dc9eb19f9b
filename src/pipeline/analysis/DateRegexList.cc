#include "pipeline/analysis/DateRegexList.h"

#include "pipeline/analysis/DateParser.h"

int DateRegexList::parse(const BindingValues& map, ParseState& state) const {
  TimeFormatRawParseResult& p = state.parse;
  int score = 0;
  int64_t n = 0;
  if (map.has(DataBinding::YEAR)) {
    const StrSegment& y = map[DataBinding::YEAR];
    if (!p.setYear(y.begin(), y.end())) return -1;
  }
  if (map.has(DataBinding::ORD) && !map.has(DataBinding::DAY)) {
    if (!map.has(DataBinding::YEAR)) return -1;
    if (!readNumber(map[DataBinding::ORD], n) || n < 1 || n > 366) return -1;
    p.yday = static_cast<int>(n - 1);
    p.have |= TimeFormatRawParseResult::HAVE_YDAY;
    return 8;
  }
  if (map.has(DataBinding::LITMONTH)) {
    const StrSegment& m = map[DataBinding::LITMONTH];
    if (!p.setMonth(m.begin(), m.end())) return -1;
    score = 11;
  } else if (map.has(DataBinding::MONTH)) {
    if (!readNumber(map[DataBinding::MONTH], n) || n < 1 || n > 12) return -1;
    p.month = static_cast<int>(n - 1);
    p.have |= TimeFormatRawParseResult::HAVE_MONTH;
    score = 6;
  } else {
    return -1;
  }
  if (!map.has(DataBinding::DAY) || !readNumber(map[DataBinding::DAY], n) || n < 1 || n > 31) return -1;
  p.mday = static_cast<int>(n);
  p.have |= TimeFormatRawParseResult::HAVE_MDAY;
  if (map.has(DataBinding::YEAR)) score += static_cast<int>(map[DataBinding::YEAR].size()) + 1;
  return score;
}

bool DateRegexList::valid(const ParseState& state, DateParser& parser) const {
  return parser.dateFitsWindow(state.parse);
}
