// WordPositionData: one row of a MetaData table (a host, source or source
// type): how many events carried the word, the earliest, latest and most
// recently added event time, the word's code (its row number) and the word in
// its display form. A plain value; copy freely.
#pragma once

#include <cstdint>

#include "util/Str.h"

struct WordPositionData {
  static const int64_t kNoTime = INT64_MAX;  // first time of a row that has no event yet

  uint64_t count = 0;
  int64_t firstTime = kNoTime;
  int64_t lastTime = 0;
  int64_t recentTime = 0;
  uint64_t _hashCode = 0;
  Str word;

  // Counts one event at time t.
  void add(int64_t t) {
    ++count;
    if (t < firstTime) firstTime = t;
    if (t > lastTime) lastTime = t;
    recentTime = t;
  }

  // One line of the table file, newline included (see MetaData.h).
  Str toString() const;
  // Parses such a line (without needing the newline). False when a field is
  // missing or not a number.
  bool fromString(const char* line);
};
