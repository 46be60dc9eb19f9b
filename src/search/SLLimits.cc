#include "search/SLLimits.h"

#include <cerrno>
#include <climits>
#include <cstdlib>

#include "libbundle/PropertiesMap.h"
#include "libbundle/PropertyPages.h"
#include "search/SL.h"
#include "util/Logger.h"

static Logger gLogger("SL");

namespace SL {

bool getLimit(const Str& stanza, const Str& key, Str& value) {
  std::unique_ptr<PropertiesMap> map = PropertyPages::instance(limits_file).get(stanza);
  if (!map) return false;
  return PropertyPages::layeredFind(key.c_str(), *map, value);
}

bool getLimit(const Str& stanza, const Str& key, int& value) {
  Str text;
  if (!getLimit(stanza, key, text)) return false;
  errno = 0;
  char* end = nullptr;
  long n = strtol(text.c_str(), &end, 10);
  if (text.empty() || errno || *end != '\0' || n < INT_MIN || n > INT_MAX) {
    gLogger.warn("Invalid limits.conf value '%s' (expected integer) for stanza '%s', key '%s'", text.c_str(),
                 stanza.c_str(), key.c_str());
    return false;
  }
  value = static_cast<int>(n);
  return true;
}

bool getLimit(const Str& stanza, const Str& key, unsigned long& value) {
  Str text;
  if (!getLimit(stanza, key, text)) return false;
  bool ok = !text.empty() && text[0] != '-' && strtod(text.c_str(), nullptr) >= 0;
  unsigned long n = 0;
  if (ok) {
    errno = 0;
    char* end = nullptr;
    n = strtoul(text.c_str(), &end, 10);
    ok = errno == 0 && *end == '\0';
  }
  if (!ok) {
    gLogger.warn("Invalid limits.conf value '%s' (expected non-negative integer) for stanza '%s', key '%s'",
                 text.c_str(), stanza.c_str(), key.c_str());
    return false;
  }
  value = n;
  return true;
}

bool getLimit(const Str& stanza, const Str& key, double& value) {
  Str text;
  if (!getLimit(stanza, key, text)) return false;
  errno = 0;
  char* end = nullptr;
  double d = strtod(text.c_str(), &end);
  if (text.empty() || errno || *end != '\0') {
    gLogger.warn("Invalid limits.conf value '%s' (expected numerical) for stanza '%s', key '%s'", text.c_str(),
                 stanza.c_str(), key.c_str());
    return false;
  }
  value = d;
  return true;
}

}  // namespace SL
