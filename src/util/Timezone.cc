#include "util/Timezone.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>

#include "util/Mutex.h"
#include "util/ScopedFileStar.h"
#include "util/StructTm.h"

namespace {

// The registry: zones by the name they were asked for. Never freed.
Mutex& registryMutex() {
  static Mutex* m = new Mutex();
  return *m;
}
std::map<Str, Timezone*>& registry() {
  static auto* r = new std::map<Str, Timezone*>();
  return *r;
}

struct Abbreviation {
  const char* name;
  int32_t offset;
};
const Abbreviation kAbbreviations[] = {
    {"UTC", 0},          {"GMT", 0},          {"Z", 0},           {"UT", 0},
    {"EST", -5 * 3600},  {"EDT", -4 * 3600},  {"CST", -6 * 3600}, {"CDT", -5 * 3600},
    {"MST", -7 * 3600},  {"MDT", -6 * 3600},  {"PST", -8 * 3600}, {"PDT", -7 * 3600},
    {"AKST", -9 * 3600}, {"AKDT", -8 * 3600}, {"HST", -10 * 3600}, {"CET", 3600},
    {"CEST", 7200},      {"EET", 7200},       {"EEST", 10800},    {"WET", 0},
    {"WEST", 3600},      {"BST", 3600},       {"IST", 19800},     {"JST", 9 * 3600},
    {"KST", 9 * 3600},   {"AEST", 10 * 3600}, {"AEDT", 11 * 3600}, {"ACST", 34200},
    {"NZST", 12 * 3600}, {"NZDT", 13 * 3600}, {"MSK", 3 * 3600},
};

bool sameNoCase(const Str& a, const char* b) {
  size_t n = strlen(b);
  if (a.size() != n) return false;
  for (size_t i = 0; i < n; ++i) {
    char c = a[i];
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 32);
    if (c != b[i]) return false;
  }
  return true;
}

uint32_t be32(const unsigned char* p) {
  return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}
int64_t be64(const unsigned char* p) {
  return static_cast<int64_t>((uint64_t{be32(p)} << 32) | be32(p + 4));
}

// POSIX TZ text pieces. Each advances `p` on success.
bool parseZoneName(const char*& p, Str& out) {
  if (*p == '<') {
    const char* q = strchr(p, '>');
    if (!q || q - p < 2) return false;
    out.assign(p + 1, q);
    p = q + 1;
    return true;
  }
  const char* b = p;
  while ((*p >= 'A' && *p <= 'Z') || (*p >= 'a' && *p <= 'z')) ++p;
  if (p - b < 3) return false;
  out.assign(b, p);
  return true;
}

// [+-]hh[:mm[:ss]] -> seconds (sign as written).
bool parseHms(const char*& p, int32_t& out, int maxHours) {
  int sign = 1;
  if (*p == '+' || *p == '-') sign = *p++ == '-' ? -1 : 1;
  int parts[3] = {0, 0, 0};
  for (int i = 0; i < 3; ++i) {
    if (i > 0) {
      if (*p != ':') break;
      ++p;
    }
    if (*p < '0' || *p > '9') return false;
    int n = 0, digits = 0;
    while (*p >= '0' && *p <= '9' && digits < 3) n = n * 10 + (*p++ - '0'), ++digits;
    parts[i] = n;
  }
  if (parts[0] > maxHours || parts[1] > 59 || parts[2] > 59) return false;
  out = sign * (parts[0] * 3600 + parts[1] * 60 + parts[2]);
  return true;
}

bool parseNum(const char*& p, int& out, int lo, int hi) {
  if (*p < '0' || *p > '9') return false;
  int n = 0;
  while (*p >= '0' && *p <= '9' && n <= hi) n = n * 10 + (*p++ - '0');
  if (n < lo || n > hi) return false;
  out = n;
  return true;
}

bool parseRule(const char*& p, Timezone::Rule& r) {
  if (*p == 'M') {
    ++p;
    r.kind = 'M';
    if (!parseNum(p, r.month, 1, 12) || *p++ != '.' || !parseNum(p, r.week, 1, 5) ||
        *p++ != '.' || !parseNum(p, r.wday, 0, 6)) {
      return false;
    }
  } else if (*p == 'J') {
    ++p;
    r.kind = 'J';
    if (!parseNum(p, r.day, 1, 365)) return false;
  } else {
    r.kind = 'D';
    if (!parseNum(p, r.day, 0, 365)) return false;
  }
  r.secs = 7200;
  if (*p == '/') {
    ++p;
    if (!parseHms(p, r.secs, 167)) return false;
  }
  return true;
}

// Local (wall) seconds at which `r` happens in `year`, before adding r.secs.
int64_t ruleDay(const Timezone::Rule& r, int year) {
  int64_t jan1 = StructTm::daysFromCivil(year, 0, 1);
  int64_t day;
  if (r.kind == 'J') {
    day = jan1 + r.day - 1;
    if (StructTm::isLeapYear(year) && r.day >= 60) ++day;   // Feb 29 is never counted
  } else if (r.kind == 'D') {
    day = jan1 + r.day;
  } else {
    int64_t first = StructTm::daysFromCivil(year, r.month - 1, 1);
    int firstWday = static_cast<int>(((first % 7) + 11) % 7);
    int64_t d = first + (r.wday - firstWday + 7) % 7 + (r.week - 1) * 7;
    int64_t last = first + StructTm::daysInMonth(year, r.month - 1) - 1;
    while (d > last) d -= 7;
    day = d;
  }
  return day * 86400;
}

}  // namespace

Timezone::~Timezone() = default;

const Str& Timezone::name() const { return _name; }

Timezone* Timezone::fixed(const Str& name, int32_t offset) {
  auto* tz = new Timezone();
  tz->_name = name;
  tz->_types.push_back(LocalType{offset, false, name});
  return tz;
}

const Timezone& Timezone::gmt() {
  static const Timezone* g = fixed("GMT", 0);
  return *g;
}

bool Timezone::parsePosix(const char* text, Timezone& tz) {
  const char* p = text;
  if (!parseZoneName(p, tz._std.abbr) || !parseHms(p, tz._std.offset, 24)) return false;
  tz._std.offset = -tz._std.offset;   // POSIX counts west of UTC
  tz._std.isDst = false;
  tz._hasPosix = true;
  if (*p == '\0') return true;
  if (!parseZoneName(p, tz._dst.abbr)) return false;
  tz._dst.isDst = true;
  tz._dst.offset = tz._std.offset + 3600;
  if (*p != ',' && *p != '\0') {
    if (!parseHms(p, tz._dst.offset, 24)) return false;
    tz._dst.offset = -tz._dst.offset;
  }
  tz._posixHasDst = true;
  if (*p == '\0') {
    // No rules: the usual North American ones.
    tz._start = Rule{'M', 3, 2, 0, 0, 7200};
    tz._end = Rule{'M', 11, 1, 0, 0, 7200};
    return true;
  }
  if (*p++ != ',' || !parseRule(p, tz._start) || *p++ != ',' || !parseRule(p, tz._end)) return false;
  return *p == '\0';
}

Timezone* Timezone::fromPosixTZ(const char* text) {
  if (!text || !*text) return nullptr;
  std::unique_ptr<Timezone> tz(new Timezone());
  if (!parsePosix(text, *tz)) return nullptr;
  tz->_name = text;
  return tz.release();
}

void Timezone::posixTransitions(int year, int64_t& dstStart, int64_t& dstEnd) const {
  dstStart = ruleDay(_start, year) + _start.secs - _std.offset;
  dstEnd = ruleDay(_end, year) + _end.secs - _dst.offset;
}

const Timezone::LocalType& Timezone::posixAt(int64_t utc) const {
  if (!_posixHasDst) return _std;
  int year, month, mday;
  StructTm::civilFromDays((utc + _std.offset) / 86400 - ((utc + _std.offset) % 86400 < 0 ? 1 : 0),
                          year, month, mday);
  int64_t start, end;
  posixTransitions(year, start, end);
  if (start < end) return (utc >= start && utc < end) ? _dst : _std;
  return (utc >= end && utc < start) ? _std : _dst;   // southern hemisphere
}

const Timezone::LocalType& Timezone::searchAt(int64_t utc) const {
  if (_transitions.empty() || utc < _transitions.front()) {
    if (_types.empty()) return posixAt(utc);
    return _types[_firstType];
  }
  if (_hasPosix && utc >= _transitions.back()) return posixAt(utc);
  auto it = std::upper_bound(_transitions.begin(), _transitions.end(), utc);
  return _types[_transitionTypes[static_cast<size_t>(it - _transitions.begin()) - 1]];
}

int32_t Timezone::offsetAt(int64_t utc, bool* isDst) const {
  const LocalType& t = searchAt(utc);
  if (isDst) *isDst = t.isDst;
  return t.offset;
}

const char* Timezone::abbreviationAt(int64_t utc) const { return searchAt(utc).abbr.c_str(); }

bool Timezone::convertToGmt(int64_t& wall) const {
  if (wall < INT64_MIN / 2 || wall > INT64_MAX / 2) return false;
  // The offsets that could apply near this wall time; a reading is consistent when
  // the offset in force at (wall - offset) is that offset.
  const int32_t candidates[3] = {offsetAt(wall - 86400), offsetAt(wall), offsetAt(wall + 86400)};
  bool found = false;
  int64_t best = 0;
  for (int32_t o : candidates) {
    int64_t utc = wall - o;
    if (offsetAt(utc) != o) continue;
    if (!found || utc < best) best = utc;   // on an overlap the earlier reading wins
    found = true;
  }
  if (!found) {
    // In a gap (the clock jumped forward): read the wall clock with the offset in
    // force before the jump, the standard one for a DST start.
    best = wall - candidates[0];
  }
  wall = best;
  return true;
}

Timezone* Timezone::fromAncientZoneinfoData(const char* data, size_t length) {
  const auto* d = reinterpret_cast<const unsigned char*>(data);
  if (!data || length < 44 || memcmp(d, "TZif", 4) != 0) return nullptr;
  auto counts = [&](size_t at, uint32_t c[6]) {
    for (int i = 0; i < 6; ++i) c[i] = be32(d + at + 20 + 4 * i);
  };
  uint32_t c[6];   // isutcnt isstdcnt leapcnt timecnt typecnt charcnt
  counts(0, c);
  auto blockSize = [](const uint32_t* c, size_t timeSize) -> uint64_t {
    return uint64_t{c[3]} * timeSize + c[3] + uint64_t{c[4]} * 6 + c[5] +
           uint64_t{c[2]} * (timeSize + 4) + c[1] + c[0];
  };
  size_t at = 44;
  size_t timeSize = 4;
  if (c[4] == 0 || c[4] > 256 || c[5] == 0) return nullptr;
  uint64_t size1 = blockSize(c, 4);
  if (size1 > length - at) return nullptr;
  bool v2 = d[4] >= '2';
  if (v2) {
    at += size1;
    if (length - at < 44 || memcmp(d + at, "TZif", 4) != 0) return nullptr;
    counts(at, c);
    at += 44;
    timeSize = 8;
    if (c[4] == 0 || c[4] > 256 || c[5] == 0 || blockSize(c, 8) > length - at) return nullptr;
  }
  std::unique_ptr<Timezone> tz(new Timezone());
  const unsigned char* times = d + at;
  const unsigned char* idx = times + size_t{c[3]} * timeSize;
  const unsigned char* types = idx + c[3];
  const char* chars = reinterpret_cast<const char*>(types + size_t{c[4]} * 6);
  for (uint32_t i = 0; i < c[3]; ++i) {
    int64_t t = timeSize == 8 ? be64(times + 8 * i) : static_cast<int32_t>(be32(times + 4 * i));
    if (i > 0 && t <= tz->_transitions.back()) return nullptr;
    if (idx[i] >= c[4]) return nullptr;
    tz->_transitions.push_back(t);
    tz->_transitionTypes.push_back(idx[i]);
  }
  for (uint32_t i = 0; i < c[4]; ++i) {
    const unsigned char* t = types + 6 * i;
    LocalType lt;
    lt.offset = static_cast<int32_t>(be32(t));
    if (lt.offset < -26 * 3600 || lt.offset > 26 * 3600 || t[4] > 1 || t[5] >= c[5]) return nullptr;
    lt.isDst = t[4] == 1;
    const char* a = chars + t[5];
    lt.abbr.assign(a, strnlen(a, c[5] - t[5]));
    tz->_types.push_back(std::move(lt));
  }
  if (v2) {
    const char* footer = reinterpret_cast<const char*>(d + at + blockSize(c, 8));
    const char* end = data + length;
    if (footer < end && *footer == '\n') {
      const char* nl = static_cast<const char*>(memchr(footer + 1, '\n', end - footer - 1));
      if (nl && nl > footer + 1) {
        Str text(footer + 1, nl);
        Timezone posix;
        if (!parsePosix(text.c_str(), posix)) return nullptr;
        tz->_hasPosix = true;
        tz->_std = posix._std;
        tz->_dst = posix._dst;
        tz->_posixHasDst = posix._posixHasDst;
        tz->_start = posix._start;
        tz->_end = posix._end;
      }
    }
  }
  return tz.release();
}

namespace {

Timezone* loadZoneinfoFile(const Str& path) {
  ScopedFileStar f(fopen(path.c_str(), "rb"));
  if (!f.isValid()) return nullptr;
  struct stat st;
  if (fstat(fileno(f.get()), &st) != 0 || !S_ISREG(st.st_mode)) return nullptr;
  Str data;
  char buf[8192];
  size_t n;
  while ((n = f.read(buf, sizeof buf)) > 0) {
    data.append(buf, n);
    if (data.size() > (4u << 20)) return nullptr;
  }
  return Timezone::fromAncientZoneinfoData(data.data(), data.size());
}

Timezone* buildZone(const Str& name) {
  for (const Abbreviation& a : kAbbreviations) {
    if (sameNoCase(name, a.name)) return Timezone::fixed(a.name, a.offset);
  }
  // Zone names come from log text: only plain names under the zoneinfo directory.
  if (name.find("..") == Str::npos && name[0] != '/' && name[0] != '<' &&
      name.find(',') == Str::npos) {
    const char* dir = getenv("TZDIR");
    Str path = Str(dir && *dir ? dir : "/usr/share/zoneinfo") + "/" + name;
    if (Timezone* tz = loadZoneinfoFile(path)) return tz;
  }
  return Timezone::fromPosixTZ(name.c_str());
}

}  // namespace

const Timezone* Timezone::find(const Str& asked) {
  Str name = asked;
  if (!name.empty() && name[0] == ':') name.erase(0, 1);
  if (name.empty()) return nullptr;
  ScopedLock lock(registryMutex());
  auto& reg = registry();
  auto it = reg.find(name);
  if (it != reg.end()) return it->second;
  Timezone* tz = buildZone(name);
  if (tz) tz->_name = name;
  // Unknown names are remembered too, as null, up to a bound: zone words come from
  // arbitrary text.
  if (tz || reg.size() < 4096) reg[name] = tz;
  return tz;
}

const Timezone& Timezone::getDefaultTimezone() {
  static const Timezone* def = [] {
    const char* env = getenv("TZ");
    if (env) {
      const char* path = env[0] == ':' ? env + 1 : env;
      if (path[0] == '/') {   // an explicit zoneinfo file, trusted as it comes from the environment
        if (Timezone* tz = loadZoneinfoFile(path)) {
          tz->_name = path;
          return static_cast<const Timezone*>(tz);
        }
        return &gmt();
      }
      const Timezone* tz = find(env);
      return tz ? tz : &gmt();
    }
    Timezone* tz = loadZoneinfoFile("/etc/localtime");
    if (tz) {
      tz->_name = "localtime";
      return static_cast<const Timezone*>(tz);
    }
    return &gmt();
  }();
  return *def;
}
