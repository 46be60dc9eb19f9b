// QueryValue: strict readers of the numbers in query arguments. Unlike the
// Str conversions they refuse blanks and signs where the language does not
// allow them ("maxresults:: 5", "readlevel::+1").
//
// Stateless; any thread.
#pragma once

#include "util/Str.h"

struct QueryValue {
  // One or more decimal digits that fit an unsigned long.
  static bool parseUnsigned(const Str& text, unsigned long& out);
  // parseUnsigned with an optional leading "-", fitting a long.
  static bool parseLong(const Str& text, long& out);
};
