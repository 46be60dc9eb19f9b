// ExtraTimevalParseInfo: what a time parse learned besides the instant: how
// precise the text was, whether it stated its zone, and the event's own
// wall-clock fields. A plain value filled by Timeval::set; one thread.
#ifndef VELMOR_UTIL_EXTRATIMEVALPARSEINFO_H
#define VELMOR_UTIL_EXTRATIMEVALPARSEINFO_H

#include <cstdint>

struct ExtraTimevalParseInfo {
  int precision = -3;        // >0: subsecond digits; 0: seconds; -1: minutes; -2: day; -3: none
  bool zoneKnown = false;    // the text stated its zone (an offset, or a name that was understood)
  int64_t zoneOffset = 0;    // seconds east of UTC of the event's own wall clock
  int year = 0, month = 0 /*0-11*/, mday = 0, wday = 0 /*0=Sunday*/, hour = 0, minute = 0, second = 0;
  char subsecond[10] = {};   // subsecond digits as written, NUL-terminated, at most 9
  // The broken-down fields of `seconds` (UTC) shifted by zoneOffset.
  void fromGmtUnixtime(int64_t seconds);
};

#endif
