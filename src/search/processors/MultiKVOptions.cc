#include "search/processors/MultiKVOptions.h"

#include <algorithm>

#include "util/StrSegment.h"

namespace {
// The words getOption takes for booleans, in any case.
bool readBool(const Str& v, bool& out) {
  Str w = lowercase(StrSegment(v));
  if (w == "t" || w == "true" || w == "1" || w == "yes" || w == "y") return out = true, true;
  if (w == "f" || w == "false" || w == "0" || w == "no" || w == "n") return out = false, true;
  return false;
}

bool readCount(const Str& v, unsigned long& out) {
  long n;
  if (!v.tryToLong(n)) return false;
  out = n < 0 ? 0 : static_cast<unsigned long>(n);
  return n >= 0;
}
}  // namespace

bool MultiKVOptions::isKeyword(const Str& word) {
  Str w = lowercase(StrSegment(word));
  return w == "fields" || w == "filter";
}

Str MultiKVOptions::setOption(const Str& rawName, const Str& value) {
  Str name = lowercase(StrSegment(rawName));
  if (name == "conf" || isKeyword(name)) {
    if (std::find(_seen.begin(), _seen.end(), name) != _seen.end())
      return Str::fromFormat("%s keyword must be specified only once", name.c_str());
    _seen.push_back(name);
    if (name == "conf") conf = value;
    return Str();
  }
  struct Flag {
    const char* name;
    bool* out;
  } flags[] = {{"multitable", &multitable}, {"rmorig", &rmorig},     {"passthru", &passthru},
               {"noheader", &noheader},     {"copyattrs", &copyattrs}};
  for (const Flag& f : flags)
    if (name == f.name) {
      if (!readBool(value, *f.out)) return Str::fromFormat("Invalid boolean value for option '%s'", f.name);
      return Str();
    }
  struct Count {
    const char* name;
    unsigned long* out;
    const char* error;
  } counts[] = {
      {"maxnewresults", &maxnewresults, "Invalid maxnewresults, must be >= 1"},
      {"max_header_line", &maxHeaderLine, "Invalid max_header_line, must be >= 1"},
      {"max_header_lookahead", &maxHeaderLookahead, "Invalid max_header_lookahead, must be >= 1"},
      {"forceheader", &forceheader, "Invalid forceheader, must be >= 1"},
      {"start_line", &startLine, "Invalid start_line, must be >= 1"},
      {"last_line", &lastLine, "Invalid last_line, must be >= 1 and > start_line"},
  };
  for (const Count& c : counts)
    if (name == c.name) {
      if (!readCount(value, *c.out) || *c.out < 1) return c.error;
      return Str();
    }
  return Str::fromFormat("Invalid option '%s'", rawName.c_str());
}

Str MultiKVOptions::validate() const {
  if (lastLine != 0 && lastLine <= startLine) return "Invalid last_line, must be >= 1 and > start_line";
  return Str();
}
