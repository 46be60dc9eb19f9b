// TimeUnit: the units of time spans and relative times, and the words that
// name them, shared by the query time keywords ("-7d", "@mon") and the
// binning commands ("span=5m"). Words, case ignored:
//   second  s sec secs second seconds     minute  m min mins minute minutes
//   hour    h hr hrs hour hours           day     d day days
//   week    w week weeks                  month   mon mons month months
//   quarter q quarter quarters            year    y yr yrs year years
// Pure functions; any thread.
#pragma once

#include <string_view>

enum class TimeUnit { kSecond, kMinute, kHour, kDay, kWeek, kMonth, kQuarter, kYear };

// The unit `word` names; false for an empty or unknown word.
bool timeUnitByName(std::string_view word, TimeUnit& unit);
