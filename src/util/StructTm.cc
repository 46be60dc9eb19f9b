#include "util/StructTm.h"


#include "util/Timezone.h"

namespace {

const char* const kWdayNames[7] = {"Sunday", "Monday", "Tuesday", "Wednesday",
                                   "Thursday", "Friday", "Saturday"};
const char* const kMonthNames[12] = {"January", "February", "March",     "April",
                                     "May",     "June",     "July",      "August",
                                     "September", "October", "November", "December"};

int64_t floorDiv(int64_t a, int64_t b) {
  int64_t q = a / b;
  return (a % b != 0 && (a < 0) != (b < 0)) ? q - 1 : q;
}

void appendNum(Str& out, int64_t v, int width, char pad) {
  char buf[24];
  char* e = buf + sizeof buf;
  char* b = e;
  uint64_t u = v < 0 ? 0 - static_cast<uint64_t>(v) : static_cast<uint64_t>(v);
  do {
    *--b = static_cast<char>('0' + u % 10);
    u /= 10;
  } while (u != 0);
  int digits = static_cast<int>(e - b) + (v < 0 ? 1 : 0);
  if (pad == '0' && v < 0) out += '-';
  for (; digits < width; ++digits) out += pad;
  if (pad != '0' && v < 0) out += '-';
  out.append(b, e);
}

// Week of the ISO year: 1-53; `isoYear` gets the year it belongs to.
int isoWeek(int year, int yday, int wday, int& isoYear) {
  int wdayMon = (wday + 6) % 7;   // 0 = Monday
  int week = (yday - wdayMon + 10) / 7;
  isoYear = year;
  if (week < 1) {
    isoYear = year - 1;
    int prevDays = StructTm::isLeapYear(isoYear) ? 366 : 365;
    week = (yday + prevDays - wdayMon + 10) / 7;
  } else {
    int days = StructTm::isLeapYear(year) ? 366 : 365;
    if (yday - wdayMon + 3 >= days) {   // Thursday of this week falls in the next year
      isoYear = year + 1;
      week = 1;
    }
  }
  return week;
}

}  // namespace

bool StructTm::isLeapYear(int year) {
  return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

int StructTm::daysInMonth(int year, int month) {
  static const int kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (month < 0 || month > 11) return 0;
  return month == 1 && isLeapYear(year) ? 29 : kDays[month];
}

int64_t StructTm::daysFromCivil(int year, int month, int mday) {
  int64_t y = static_cast<int64_t>(year) - (month < 2 ? 1 : 0);
  int m = month + 1;   // 1-12
  int64_t era = floorDiv(y, 400);
  int64_t yoe = y - era * 400;
  int64_t doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + mday - 1;
  int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

void StructTm::civilFromDays(int64_t days, int& year, int& month, int& mday) {
  days += 719468;
  int64_t era = floorDiv(days, 146097);
  int64_t doe = days - era * 146097;
  int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  int64_t y = yoe + era * 400;
  int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  int64_t mp = (5 * doy + 2) / 153;
  mday = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
  int m = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
  year = static_cast<int>(y + (m <= 2 ? 1 : 0));
  month = m - 1;
}

void StructTm::setFromSeconds(int64_t utc, int32_t offset) {
  epoch = utc;
  gmtoff = offset;
  int64_t wall = utc + offset;
  int64_t days = floorDiv(wall, 86400);
  int64_t rest = wall - days * 86400;
  civilFromDays(days, year, month, mday);
  hour = static_cast<int>(rest / 3600);
  minute = static_cast<int>(rest / 60 % 60);
  second = static_cast<int>(rest % 60);
  recomputeYdayAndWday();
}

int64_t StructTm::wallSeconds() const {
  return daysFromCivil(year, month, mday) * 86400 + hour * 3600 + minute * 60 + second;
}

void StructTm::recomputeYdayAndWday() {
  int64_t days = daysFromCivil(year, month, mday);
  yday = static_cast<int>(days - daysFromCivil(year, 0, 1));
  wday = static_cast<int>(((days % 7) + 11) % 7);   // 1970-01-01 was a Thursday
}

void StructTm::addCalendarMonths(int months) {
  int64_t total = static_cast<int64_t>(year) * 12 + month + months;
  year = static_cast<int>(floorDiv(total, 12));
  month = static_cast<int>(total - static_cast<int64_t>(year) * 12);
  int dim = daysInMonth(year, month);
  if (mday > dim) mday = dim;
  recomputeYdayAndWday();
}

int StructTm::yearWeekFromMonday() const { return (yday + 7 - (wday + 6) % 7) / 7; }
int StructTm::yearWeekFromSunday() const { return (yday + 7 - wday) / 7; }

int StructTm::yearISO8601() const {
  int y;
  isoWeek(year, yday, wday, y);
  return y;
}

int StructTm::yearWeekISO8601() const {
  int y;
  return isoWeek(year, yday, wday, y);
}

void StructTm::appendFtime(Str& out, const char* f) const {
  for (; *f; ++f) {
    if (*f != '%' || f[1] == '\0') {
      out += *f;
      continue;
    }
    ++f;
    int digits = 0;
    if (*f >= '1' && *f <= '9' && f[1] == 'N') {
      digits = *f - '0';
      ++f;
    }
    switch (*f) {
      case 'a': out.append(kWdayNames[wday], 3); break;
      case 'A': out += kWdayNames[wday]; break;
      case 'b':
      case 'h': out.append(kMonthNames[month], 3); break;
      case 'B': out += kMonthNames[month]; break;
      case 'c': appendFtime(out, "%a %b %e %H:%M:%S %Y"); break;
      case 'C': appendNum(out, floorDiv(year, 100), 2, '0'); break;
      case 'd': appendNum(out, mday, 2, '0'); break;
      case 'D': appendFtime(out, "%m/%d/%y"); break;
      case 'e': appendNum(out, mday, 2, ' '); break;
      case 'F': appendFtime(out, "%Y-%m-%d"); break;
      case 'G': appendNum(out, yearISO8601(), 1, '0'); break;
      case 'g': appendNum(out, ((yearISO8601() % 100) + 100) % 100, 2, '0'); break;
      case 'H': appendNum(out, hour, 2, '0'); break;
      case 'I': appendNum(out, hour % 12 == 0 ? 12 : hour % 12, 2, '0'); break;
      case 'j': appendNum(out, yday + 1, 3, '0'); break;
      case 'k': appendNum(out, hour, 2, ' '); break;
      case 'l': appendNum(out, usec / 1000, 3, '0'); break;
      case 'm': appendNum(out, month + 1, 2, '0'); break;
      case 'M': appendNum(out, minute, 2, '0'); break;
      case 'n': out += '\n'; break;
      case 'N': {
        Str nine;
        appendNum(nine, usec, 6, '0');
        nine += "000";
        out.append(nine, 0, digits == 0 ? 9 : digits);
        break;
      }
      case 'p': out += hour < 12 ? "AM" : "PM"; break;
      case 'R': appendFtime(out, "%H:%M"); break;
      case 's': appendNum(out, epoch, 1, '0'); break;
      case 'S': appendNum(out, second, 2, '0'); break;
      case 't': out += '\t'; break;
      case 'T': appendFtime(out, "%H:%M:%S"); break;
      case 'u': appendNum(out, wday == 0 ? 7 : wday, 1, '0'); break;
      case 'U': appendNum(out, yearWeekFromSunday(), 2, '0'); break;
      case 'V': appendNum(out, yearWeekISO8601(), 2, '0'); break;
      case 'w': appendNum(out, wday, 1, '0'); break;
      case 'W': appendNum(out, yearWeekFromMonday(), 2, '0'); break;
      case 'x': appendFtime(out, "%m/%d/%y"); break;
      case 'X': appendFtime(out, "%H:%M:%S"); break;
      case 'y': appendNum(out, ((year % 100) + 100) % 100, 2, '0'); break;
      case 'Y': appendNum(out, year, 4, '0'); break;
      case 'z': {
        int32_t a = gmtoff < 0 ? -gmtoff : gmtoff;
        out += gmtoff < 0 ? '-' : '+';
        appendNum(out, a / 3600, 2, '0');
        appendNum(out, a / 60 % 60, 2, '0');
        break;
      }
      case 'Z': out += zoneAbbr; break;
      case '%': out += '%'; break;
      default:
        out += '%';
        out += *f;
        break;
    }
  }
}

GmtStructTm::GmtStructTm(int64_t utc) {
  setFromSeconds(utc, 0);
  zoneAbbr = "GMT";
}

LocalStructTm::LocalStructTm(int64_t utc) : LocalStructTm(utc, Timezone::getDefaultTimezone()) {}

LocalStructTm::LocalStructTm(int64_t utc, const Timezone& zone) {
  bool dst = false;
  setFromSeconds(utc, zone.offsetAt(utc, &dst));
  isDst = dst;
  zoneAbbr = zone.abbreviationAt(utc);
}

LocalStructTmHires::LocalStructTmHires(int64_t utc, int32_t usec_)
    : LocalStructTm(utc) {
  usec = usec_;
}

LocalStructTmHires::LocalStructTmHires(int64_t utc, int32_t usec_, const Timezone& zone)
    : LocalStructTm(utc, zone) {
  usec = usec_;
}
