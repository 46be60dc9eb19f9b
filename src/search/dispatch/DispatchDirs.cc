#include "search/dispatch/DispatchDirs.h"

#include <errno.h>
#include <string.h>

#include "search/SearchProcessor.h"
#include "search/SearchResults.h"
#include "search/Subsearch.h"
#include "util/Logger.h"
#include "util/ScopedFileStar.h"

static Logger gLogger("DispatchDirs");

Pathname DispatchDirs::dispatchRoot() { return Subsearch::dispatchRoot(); }

bool DispatchDirs::isValidSid(const Str& sid) {
  return !sid.empty() && sid != "." && sid != ".." && sid.find('/') == Str::npos && sid.find('\0') == Str::npos;
}

Pathname DispatchDirs::dispatchDir(const Str& sid) {
  if (!isValidSid(sid)) throw SearchProcessorException("invalid value of id: ../ not allowed");
  return dispatchRoot() / sid;
}

bool DispatchDirs::writeCsv(const SearchResults& rows, const Pathname& path, const std::vector<Str>* fields) {
  Pathname tmp(path + ".tmp");
  bool ok;
  int err = 0;
  {
    ScopedFileStar f(fopen(tmp.c_str(), "w"));
    ok = f.get() != nullptr;
    if (!ok) err = errno;
    if (ok) {
      if (fields)
        rows.toCSV(f, *fields, true);
      else
        rows.toCSV(f);
      ok = f.flush() && !f.error();
      if (!ok) err = errno;
    }
    if (f.get() && !f.close() && ok) {
      ok = false;
      err = errno;
    }
  }
  if (ok && !tmp.renameTo(path)) {
    ok = false;
    err = errno;
  }
  if (!ok) {
    gLogger.error("Could not write %s: %s", path.c_str(), strerror(err ? err : EIO));
    tmp.unlink();
  }
  return ok;
}
