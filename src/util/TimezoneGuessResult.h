// TimezoneGuessResult: the zone a TimeGuesser settled on for one text: either
// a fixed offset, or a Timezone (owned by the process-wide registry, never
// freed). A plain value.
#ifndef VELMOR_UTIL_TIMEZONEGUESSRESULT_H
#define VELMOR_UTIL_TIMEZONEGUESSRESULT_H

#include <cstdint>

class Timezone;

struct TimezoneGuessResult {
  bool offsetKnown = false;   // offset holds the answer
  int32_t offset = 0;         // seconds east of UTC
  const Timezone* zone = nullptr;
};

#endif
