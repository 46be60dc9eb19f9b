// TimeRegexList: the time patterns of a stream. A match gives either a whole
// Unix time ("utcepoch": decimal seconds, or a TAI64 label "@4000000..." of
// more than 16 characters whose 8 hexadecimal digits from the tenth
// character are the seconds), or a time of day: "hour", "minute", optional
// "second", "subsecond", "ampm" and "zone". A minute or second above 59 fails.
// With "ampm" the hour 12 counts as 0 and a first letter "p"/"P" means pm.
// A zone "+hhmm", "-hhmm", "+hh:mm" (hours below 24, minutes below 60) or
// "Z" is an offset; any other zone text is a name.
// Score: the length of the whole match, so that a pattern that recognises
// more of its surroundings beats a bare clock.
// Thread: that of its DateParser.
#pragma once

#include "pipeline/analysis/DateTimeRegexList.h"

class TimeRegexList : public DateTimeRegexList {
 public:
  int parse(const BindingValues& map, ParseState& state) const override;

  // The zone rules on their own: true and the offset in seconds east of UTC
  // when `text` is an offset.
  static bool parseZoneOffset(const StrSegment& text, int32_t& offset);
};
