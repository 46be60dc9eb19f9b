#include "search/processors/Transaction.h"

#include <stdlib.h>

#include <cmath>

#include "libbundle/PropertyPages.h"
#include "libbundle/StringMgr.h"
#include "util/Exceptions.h"

namespace {

SearchProcessorException textError(const char* key, const Str& a, const Str& b = Str()) {
  return SearchProcessorException(Str::fromFormat(StringMgr::str(key).c_str(), a.c_str(), b.c_str()).c_str());
}

// A value written with one pair of enclosing double quotes loses them.
Str unquote(const Str& v) {
  Str t = v.trim();
  if (t.size() >= 2 && t.front() == '"' && t.back() == '"') return Str(t.substr(1, t.size() - 2));
  return t;
}

}  // namespace

bool Transaction::parseSpan(const Str& text, double& seconds) {
  Str t = text.trim();
  if (t.empty()) return false;
  char* end = nullptr;
  double v = strtod(t.c_str(), &end);
  if (end == t.c_str()) return false;
  Str unit(end);
  double mult = 1;
  if (unit.empty() || unit == "s" || unit == "sec" || unit == "secs")
    mult = 1;
  else if (unit == "m" || unit == "min" || unit == "mins")
    mult = 60;
  else if (unit == "h" || unit == "hr" || unit == "hrs")
    mult = 3600;
  else if (unit == "d" || unit == "day" || unit == "days")
    mult = 86400;
  else
    return false;
  if (!std::isfinite(v)) return false;
  seconds = v < 0 ? -1 : v * mult;
  return true;
}

Transaction::Transaction(const Str& n, const PropertiesMap& s) : name(n) {
  Str v;
  for (const char* key : {"maxspan", "maxpause"}) {
    if (!s.get(key, v) || v.trim().empty()) continue;
    double secs;
    if (!parseSpan(v, secs))
      throw textError("TRANSAM_BAD_TIME_SPAN__S_S", v, key);
    (key[3] == 's' ? maxspan : maxpause) = secs;
  }
  if (s.get("maxevents", v) && !v.trim().empty()) {
    long n2;
    if (!v.trim().tryToLong(n2))
      throw textError("TRANSAM_BAD_MAXEVENTS__S", v);
    maxevents = n2 <= 0 ? 0 : static_cast<unsigned long>(n2);
  }
  if (s.get("startswith", v)) startswith = unquote(v);
  if (s.get("endswith", v)) endswith = unquote(v);
  if (s.get("fields", v)) {
    Str list = unquote(v);
    size_t pos = 0;
    while (pos <= list.size()) {
      size_t comma = list.find(',', pos);
      if (comma == Str::npos) comma = list.size();
      Str f = Str(list.substr(pos, comma - pos)).trim();
      if (!f.empty()) {
        size_t star = f.find('*');
        if (star != Str::npos && star != f.size() - 1)
          throw SearchProcessorException(StringMgr::str("TRANSAM_WILDCARDS_ONLY_AT_END_OF_NAMES").c_str());
        bool dup = false;
        for (const Str& g : fields) dup = dup || g == f;
        if (!dup) fields.push_back(f);
      }
      pos = comma + 1;
    }
  }
  if (s.get("matchtype", v) && !v.trim().empty()) {
    matchtype = v.trim();
    if (matchtype != "closest") throw textError("TRANSAM_UNSUPPORTED_MATCHTYPE__S", matchtype);
  }
  if (s.get("exclusive", v) && !v.trim().empty()) {
    if (!v.trim().tryToBool(exclusive)) throw textError("TRANSAM_BAD_EXCLUSIVE_BOOLEAN__S", v.trim());
  }
  if (s.get("aliases", v)) {
    Str list = unquote(v);
    size_t pos = 0;
    while (pos < list.size()) {
      size_t sep = list.find_first_of(", \t", pos);
      if (sep == Str::npos) sep = list.size();
      Str a(list.substr(pos, sep - pos));
      pos = sep + 1;
      if (a.empty()) continue;
      size_t eq = a.find('=');
      Str n = eq == Str::npos ? Str() : Str(a.substr(0, eq));
      Str type = eq == Str::npos ? Str() : Str(a.substr(eq + 1));
      bool good = !n.empty() && !type.empty() && isalpha(static_cast<unsigned char>(n[0]));
      for (char c : n) good = good && (isalnum(static_cast<unsigned char>(c)) || c == '_');
      if (!good) throw textError("TRANSAM_BAD_ALIAS__S", a);
      if (!PropertyPages::instance("eventtypes").propsExist(type)) throw textError("TRANSAM_UNKNOWN_EVENTTYPE__S", type);
      aliases.emplace_back(n, type);
    }
  }
  if (s.get("pattern", v)) pattern = unquote(v);
}
