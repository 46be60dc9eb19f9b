#include "TimeWarp.h"

#include <cmath>

#include "CivilTime.h"

namespace {

// Relative traffic of one minute: a floor for background jobs, a broad peak
// in the early afternoon, a smaller evening bump, and less at weekends.
double minuteWeight(int minuteOfDay, int weekday) {
  const double h = minuteOfDay / 60.0;
  const double day = std::exp(-(h - 13.5) * (h - 13.5) / (2 * 3.5 * 3.5));
  const double evening = 0.3 * std::exp(-(h - 20.5) * (h - 20.5) / (2 * 1.2 * 1.2));
  const double weekend = (weekday == 0 || weekday == 6) ? 0.55 : 1.0;
  return (0.18 + day + evening) * weekend;
}

}  // namespace

TimeWarp::TimeWarp(int64_t startEpochSeconds, int days)
    : _startMillis(startEpochSeconds * 1000), _minutes(static_cast<size_t>(days) * 1440) {
  _cumulative.resize(_minutes + 1);
  _cumulative[0] = 0;
  for (int d = 0; d < days; ++d) {
    const int weekday = CivilTime(_startMillis + static_cast<int64_t>(d) * 86400000).weekday();
    for (int m = 0; m < 1440; ++m) {
      const size_t i = static_cast<size_t>(d) * 1440 + m;
      _cumulative[i + 1] = _cumulative[i] + minuteWeight(m, weekday);
    }
  }
}

int64_t TimeWarp::millisAt(double fraction, Cursor& cursor) const {
  const double target = fraction * _cumulative[_minutes];
  size_t m = cursor.minute;
  while (m + 1 < _minutes && _cumulative[m + 1] <= target) ++m;
  cursor.minute = m;
  const double within = (target - _cumulative[m]) / (_cumulative[m + 1] - _cumulative[m]);
  int64_t ms = static_cast<int64_t>(within * 60000.0);
  if (ms < 0) ms = 0;
  if (ms > 59999) ms = 59999;
  return _startMillis + static_cast<int64_t>(m) * 60000 + ms;
}
