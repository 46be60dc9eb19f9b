// TimeFormat: a strptime/strftime-style format held as text, parsed and
// printed by our own code (no libc locale, no libc time zone calls).
//
// Parsing letters: %Y %y %C %m %d %e %j %H %I %k %l(milliseconds, 3 digits)
// %M %S %p %b %B %h %a %A %z (+hhmm, +hh:mm, Z) %Z (zone name word) %s
// (epoch seconds) %N %3N %6N %9N %f (subseconds) %U %W %w %u %T %D %F %R %n
// %t %% and literal text; whitespace in the format matches any run of
// whitespace (also none). Printing: see StructTm::appendFtime.
//
// Immutable after construction; any thread may call the const methods.
#ifndef VELMOR_UTIL_TIMEFORMAT_H
#define VELMOR_UTIL_TIMEFORMAT_H

#include "util/Str.h"
#include "util/TimeFormatRawParseResult.h"

class TimeFormat {
 public:
  explicit TimeFormat(const Str& format);
  const Str& format() const;
  // Parses text from `begin`; on success `*stop` (if given) is where parsing ended.
  bool rawParse(const char* begin, const char* end, TimeFormatRawParseResult& out, const char** stop = nullptr) const;

 private:
  bool parseRange(const char* fb, const char* fe, const char*& p, const char* end,
                  TimeFormatRawParseResult& out, int depth) const;
  Str _format;
};

#endif
