#include "search/processors/ConversionProcessor.h"

#include <strings.h>
#include <time.h>

#include <cstdlib>
#include <set>

#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "search/processors/SortCompValue.h"
#include "search/processors/TotalsProcessor.h"
#include "util/Logger.h"

namespace {
Logger gLogger("convert");

struct Named {
  const char* name;
  ConvertType type;
} const kFuncs[] = {{"auto", CONV_AUTO},       {"num", CONV_NUM},         {"rmunit", CONV_RMUNIT},
                    {"rmcomma", CONV_RMCOMMA}, {"memk", CONV_MEMK},       {"dur2sec", CONV_DUR2SEC},
                    {"ctime", CONV_CTIME},     {"mktime", CONV_MKTIME},   {"none", CONV_NONE}};

// The number at the start of `in`: its value and where it ends.
bool leadingNumber(const Str& in, double& v, size_t& end) {
  const char* s = in.c_str();
  char* e = nullptr;
  v = strtod(s, &e);
  if (e == s) return false;
  end = static_cast<size_t>(e - s);
  return true;
}
}  // namespace

bool ConversionProcessor::convert(ConvertType type, const Str& in, const Str& timeformat, Str& out) {
  double v;
  size_t end;
  switch (type) {
    case CONV_AUTO:
    case CONV_NUM:
      if (SortCompValue::parseNumber(in, v)) {
        out = in;
        return true;
      }
      [[fallthrough]];
    case CONV_RMUNIT:
      if (!leadingNumber(in, v, end)) return false;
      out = in.substr(0, end);
      return true;
    case CONV_RMCOMMA:
      out.clear();
      for (char c : in)
        if (c != ',') out += c;
      return true;
    case CONV_MEMK: {
      if (!leadingNumber(in, v, end)) return false;
      Str unit = Str(in.substr(end)).trim();
      if (unit.empty() || strcasecmp(unit.c_str(), "k") == 0) {
      } else if (strcasecmp(unit.c_str(), "m") == 0) {
        v *= 1024;
      } else if (strcasecmp(unit.c_str(), "g") == 0) {
        v *= 1024 * 1024;
      } else {
        return false;
      }
      out = TotalsProcessor::formatNumber(v);
      return true;
    }
    case CONV_DUR2SEC: {
      long d = 0, h = 0, m = 0, s = 0;
      int n = 0;
      if (sscanf(in.c_str(), "%ld+%ld:%ld:%ld%n", &d, &h, &m, &s, &n) == 4 && static_cast<size_t>(n) == in.size()) {
      } else if (d = 0, n = 0, sscanf(in.c_str(), "%ld:%ld:%ld%n", &h, &m, &s, &n) == 3 &&
                                    static_cast<size_t>(n) == in.size()) {
      } else {
        return false;
      }
      out = Str::fromFormat("%ld", ((d * 24 + h) * 60 + m) * 60 + s);
      return true;
    }
    case CONV_CTIME: {
      if (!SortCompValue::parseNumber(in, v)) return false;
      time_t t = static_cast<time_t>(v);
      struct tm tm;
      char buf[256];
      if (!gmtime_r(&t, &tm) || strftime(buf, sizeof buf, timeformat.c_str(), &tm) == 0) return false;
      out = buf;
      return true;
    }
    case CONV_MKTIME: {
      struct tm tm = {};
      const char* e = strptime(in.c_str(), timeformat.c_str(), &tm);
      if (e == nullptr || *e != '\0') return false;
      out = Str::fromFormat("%lld", static_cast<long long>(timegm(&tm)));
      return true;
    }
    default:
      return false;
  }
}

void ConversionProcessor::processArguments() {
  getOption("timeformat", _timeformat);
  std::vector<Str> w;
  getNextArgs(w, false);
  refuseLeftovers();
  for (size_t i = 0; i < w.size(); ++i) {
    size_t open = w[i].find('(');
    if (open == Str::npos || !w[i].endswith(')'))
      throw searchError(this, gLogger, "Invalid argument: '%s'", w[i].c_str());
    Str fn = w[i].substr(0, open), field = w[i].substr(open + 1, w[i].size() - open - 2);
    const Named* found = nullptr;
    for (const Named& n : kFuncs)
      if (strcasecmp(n.name, fn.c_str()) == 0) found = &n;
    if (!found) throw searchError(this, gLogger, "Unknown conversion function '%s'", fn.c_str());
    if (field.empty()) throw searchError(this, gLogger, "Invalid argument: '%s'", w[i].c_str());
    if (field == "**") field = "*";
    Conversion c{found->type, FieldPattern(field), Str()};
    if (i + 2 < w.size() && strcasecmp(w[i + 1].c_str(), "as") == 0) {
      c.as = w[i + 2];
      i += 2;
    }
    _convs.push_back(c);
  }
  if (_convs.empty()) throw searchError(this, gLogger, "Invalid argument: '%s'", "");
}

void ConversionProcessor::execute(SearchResults& results, SearchResultsInfo&) {
  std::vector<Str> keys;
  results.getColumnOrder(keys);  // public keys only: "__" keys are never touched
  std::set<Str> done;             // a field is converted by its first match only
  std::vector<Str> stars;
  Str out;
  for (const Conversion& c : _convs) {
    for (const Str& k : keys) {
      if (done.count(k) || !c.field.match(k, &stars)) continue;
      done.insert(k);
      if (c.type == CONV_NONE) continue;
      sr_index_t from = results.keyIndex(k);
      sr_index_t to = c.as.empty() ? from : results.keyIndex(FieldPattern(c.as).fill(stars), true);
      for (SearchResult* r : results) {
        const Str* v = r->getValuePtr(from);
        if (v && convert(c.type, *v, _timeformat, out)) r->setValue(to, out);
      }
    }
  }
}
