#include "search/processors/StatsInclOptions.h"

#include <ctype.h>
#include <stdlib.h>

namespace {

struct FuncName {
  const char* name;
  StatsFunc func;
};

const FuncName kNames[] = {
    {"count", SF_COUNT},   {"c", SF_COUNT},       {"dc", SF_DC}, {"distinct_count", SF_DC},
    {"avg", SF_AVG},       {"mean", SF_AVG},      {"stdev", SF_STDEV},       {"stdevp", SF_STDEVP},
    {"var", SF_VAR},       {"varp", SF_VARP},     {"sum", SF_SUM},           {"min", SF_MIN},
    {"max", SF_MAX},       {"median", SF_MEDIAN}, {"mode", SF_MODE},         {"first", SF_FIRST},
    {"last", SF_LAST},     {"range", SF_RANGE},   {"values", SF_VALUES},     {"list", SF_LIST},
    {"rate", SF_RATE},
};

Str lower(const Str& s) {
  Str out(s);
  for (char& c : out) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return out;
}

}  // namespace

bool StatsInclOptions::lookupFunc(const Str& name, StatsFunc& func, unsigned& perc) {
  Str n = lower(name);
  perc = 0;
  for (const FuncName& f : kNames)
    if (n == f.name) {
      func = f.func;
      return true;
    }
  size_t skip = n.startswith("perc") ? 4 : (n.startswith('p') ? 1 : 0);
  if (skip == 0 || skip == n.size()) return false;
  Str num = n.substr(skip);
  // "pabc" is no function at all; "p100", "p0", "p1.5" are bad percentiles.
  if (!isdigit(static_cast<unsigned char>(num[0])) && num[0] != '-' && num[0] != '+' && num[0] != '.') return false;
  func = SF_PERC;
  bool digits = true;
  for (char c : num) digits = digits && isdigit(static_cast<unsigned char>(c));
  if (digits && num.size() <= 3) {
    unsigned long v = strtoul(num.c_str(), nullptr, 10);
    if (v >= 1 && v <= 99) perc = static_cast<unsigned>(v);
  }
  return true;
}

bool StatsInclOptions::isArgSet(const Str& name) {
  Str n = lower(name);
  return n == "default" || n == "all";
}

std::vector<StatsFunc> StatsInclOptions::processArgSet(const Str& name) {
  if (lower(name) == "default") return {SF_COUNT, SF_DC, SF_AVG, SF_MIN, SF_MAX, SF_SUM};
  return {SF_COUNT, SF_DC,  SF_AVG,    SF_STDEV, SF_STDEVP, SF_VAR,  SF_VARP, SF_SUM,
          SF_MIN,   SF_MAX, SF_MEDIAN, SF_MODE,  SF_FIRST,  SF_LAST, SF_RANGE};
}

const char* StatsInclOptions::funcName(StatsFunc f) {
  for (const FuncName& n : kNames)
    if (n.func == f) return n.name;
  return "perc";
}

void StatsInclOptions::include(StatsFunc f, const Str& as) {
  for (const Str& n : names[f])
    if (n == as) return;
  names[f].push_back(as);
}

void StatsInclOptions::includePerc(unsigned p, const Str& as) {
  std::vector<Str>& v = percs[p];
  for (const Str& n : v)
    if (n == as) return;
  v.push_back(as);
}

bool StatsInclOptions::any() const {
  for (const auto& n : names)
    if (!n.empty()) return true;
  return !percs.empty();
}
