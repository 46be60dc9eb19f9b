#include "CivilTime.h"

#include <cstring>

#include "LineBuffer.h"

namespace {

const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                               "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

int64_t floorDiv(int64_t a, int64_t b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0))); }

}  // namespace

// Days-from-civil and its inverse count eras of 400 years (146097 days) from
// 0000-03-01, so that the leap day falls at the end of each counted year.
int64_t CivilTime::daysFromCivil(int year, unsigned month, unsigned day) {
  const int64_t y = static_cast<int64_t>(year) - (month <= 2);
  const int64_t era = floorDiv(y, 400);
  const int64_t yoe = y - era * 400;
  const int64_t mp = (month + 9) % 12;
  const int64_t doy = (153 * mp + 2) / 5 + day - 1;
  const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

CivilTime::CivilTime(int64_t epochMillis) {
  const int64_t days = floorDiv(epochMillis, 86400000);
  const int64_t msOfDay = epochMillis - days * 86400000;
  _hour = static_cast<int>(msOfDay / 3600000);
  _minute = static_cast<int>(msOfDay / 60000 % 60);
  _second = static_cast<int>(msOfDay / 1000 % 60);
  _millis = static_cast<int>(msOfDay % 1000);
  _weekday = static_cast<int>(((days % 7) + 11) % 7);  // 1970-01-01 was a Thursday

  const int64_t z = days + 719468;
  const int64_t era = floorDiv(z, 146097);
  const int64_t doe = z - era * 146097;
  const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const int64_t mp = (5 * doy + 2) / 153;
  _day = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
  _month = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
  _year = static_cast<int>(yoe + era * 400 + (_month <= 2));
}

bool CivilTime::parseDate(const char* text, int64_t& days) {
  if (std::strlen(text) != 10 || text[4] != '-' || text[7] != '-') return false;
  for (int i : {0, 1, 2, 3, 5, 6, 8, 9})
    if (text[i] < '0' || text[i] > '9') return false;
  const int y = (text[0] - '0') * 1000 + (text[1] - '0') * 100 + (text[2] - '0') * 10 + (text[3] - '0');
  const unsigned m = (text[5] - '0') * 10 + (text[6] - '0');
  const unsigned d = (text[8] - '0') * 10 + (text[9] - '0');
  if (m < 1 || m > 12 || d < 1 || d > 31) return false;
  days = daysFromCivil(y, m, d);
  // Reject dates such as 02-30 that normalise to another day.
  const CivilTime back(days * 86400000);
  return back._year == y && back._month == static_cast<int>(m) && back._day == static_cast<int>(d);
}

void CivilTime::appendSyslog(LineBuffer& out) const {
  out.put(kMonths[_month - 1]);
  out.put(' ');
  if (_day < 10) out.put(' ');
  out.putUint(_day);
  out.put(' ');
  out.putPadded(_hour, 2);
  out.put(':');
  out.putPadded(_minute, 2);
  out.put(':');
  out.putPadded(_second, 2);
}

void CivilTime::appendAccess(LineBuffer& out) const {
  out.putPadded(_day, 2);
  out.put('/');
  out.put(kMonths[_month - 1]);
  out.put('/');
  out.putPadded(_year, 4);
  out.put(':');
  out.putPadded(_hour, 2);
  out.put(':');
  out.putPadded(_minute, 2);
  out.put(':');
  out.putPadded(_second, 2);
  out.put(" +0000");
}

void CivilTime::appendIsoZ(LineBuffer& out) const {
  out.putPadded(_year, 4);
  out.put('-');
  out.putPadded(_month, 2);
  out.put('-');
  out.putPadded(_day, 2);
  out.put('T');
  out.putPadded(_hour, 2);
  out.put(':');
  out.putPadded(_minute, 2);
  out.put(':');
  out.putPadded(_second, 2);
  out.put('.');
  out.putPadded(_millis, 3);
  out.put('Z');
}

void CivilTime::appendJava(LineBuffer& out) const {
  out.putPadded(_year, 4);
  out.put('-');
  out.putPadded(_month, 2);
  out.put('-');
  out.putPadded(_day, 2);
  out.put(' ');
  out.putPadded(_hour, 2);
  out.put(':');
  out.putPadded(_minute, 2);
  out.put(':');
  out.putPadded(_second, 2);
  out.put(',');
  out.putPadded(_millis, 3);
}
