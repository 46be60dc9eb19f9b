// TimeWarp: maps progress through a file (a fraction in [0, 1)) to a time in
// the generated span, so that events crowd into working hours and thin out
// at night and on weekends, as real traffic does.
//
// The span is cut into minutes, each with a weight from the hour of day and
// the day of week; the cumulative weights form a monotone map. Because the
// map is monotone, non-decreasing fractions give non-decreasing times, and a
// fraction below 1 gives a time before the end of the span.
//
// Read-only after construction; each caller keeps its own Cursor, which
// makes a run of increasing fractions cost O(1) each.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

class TimeWarp {
 public:
  struct Cursor {
    size_t minute = 0;
  };

  // REQUIRES: days >= 1.
  TimeWarp(int64_t startEpochSeconds, int days);

  // The time in milliseconds since the epoch for a fraction in [0, 1).
  // REQUIRES: fractions passed with one cursor never decrease.
  int64_t millisAt(double fraction, Cursor& cursor) const;

  int64_t startMillis() const { return _startMillis; }
  int64_t endMillis() const { return _startMillis + static_cast<int64_t>(_minutes) * 60000; }

 private:
  int64_t _startMillis;
  size_t _minutes;
  std::vector<double> _cumulative;  // _minutes + 1 entries, from 0 to the total weight
};
