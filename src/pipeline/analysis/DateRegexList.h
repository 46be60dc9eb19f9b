// DateRegexList: the date patterns of a stream. A match gives a month
// ("litmonth" by name, or "month" 1-12), a "day" 1-31 and an optional
// "year" (4 or 2 digits), or a day of the year "ord" (1-366) with a "year".
// Score: 6 for month and day, 11 when the month is written as a name, plus
// the year's length and one; 8 for a day of the year.
// A candidate is valid only when, with the time found on the same line, it
// makes a time inside the parser's date window.
// Thread: that of its DateParser.
#pragma once

#include "pipeline/analysis/DateTimeRegexList.h"

class DateRegexList : public DateTimeRegexList {
 public:
  int parse(const BindingValues& map, ParseState& state) const override;
  bool valid(const ParseState& state, DateParser& parser) const override;
};
