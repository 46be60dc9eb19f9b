#include "pipeline/indexer/search/FileOperator.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "util/Logger.h"

static Logger gLogger("file");

Str FileOperator::sourceTypeFromPath(const Str& path) {
  size_t slash = path.rfind('/');
  Str base = slash == Str::npos ? path : Str(path.substr(slash + 1));
  base = Str(base.substr(0, base.find('.')));
  return base.empty() ? Str("file") : base;
}

void FileOperator::processArguments() {
  getOption("sourcetype", _sourceType);
  getOption("host", _host);
  if (getNextNonOpt(_path, true) >= args.size() || _path.empty())
    throw searchError(this, gLogger, "A file path is required");
  refuseLeftovers();
  if (_sourceType.empty()) _sourceType = sourceTypeFromPath(_path);
  if (_host.empty()) {
    char name[256] = {0};
    if (gethostname(name, sizeof(name) - 1) == 0) _host = name;
    if (_host.empty()) _host = "localhost";
  }
}

void FileOperator::execute(SearchResults& results, SearchResultsInfo& info) {
  FILE* f = fopen(_path.c_str(), "r");
  if (!f) throw searchError(this, gLogger, "Unable to read the file '%s': %s", _path.c_str(), strerror(errno));
  struct stat st;
  if (fstat(fileno(f), &st) != 0 || !S_ISREG(st.st_mode)) {
    fclose(f);
    throw searchError(this, gLogger, "Unable to read the file '%s': %s", _path.c_str(), "not a regular file");
  }
  const sr_index_t kRaw = results.keyIndex("_raw", true), kTime = results.keyIndex("_time", true),
                   kSerial = results.keyIndex("_serial", true), kSource = results.keyIndex("source", true),
                   kHost = results.keyIndex("host", true), kType = results.keyIndex("sourcetype", true);
  const Str time = Str::fromFormat("%lld", (long long)st.st_mtime);
  const size_t limit = SearchResults::getMaxResultRows(false);
  char* line = nullptr;
  size_t cap = 0;
  size_t n = 0;
  ssize_t len;
  bool truncated = false;
  while ((len = getline(&line, &cap, f)) >= 0) {
    if (n >= limit) {
      truncated = true;
      break;
    }
    while (len > 0 && (line[len - 1] == '\n' || line[len - 1] == '\r')) --len;
    SearchResult* r = results.addNewResult();
    r->setValue(kRaw, line, size_t(len));
    r->setValue(kTime, time);
    r->setValue(kSerial, Str::fromFormat("%zu", n));
    r->setValue(kSource, _path);
    r->setValue(kHost, _host);
    r->setValue(kType, _sourceType);
    ++n;
  }
  bool failed = ferror(f) != 0;
  free(line);
  fclose(f);
  if (failed) throw searchError(this, gLogger, "Unable to read the file '%s': %s", _path.c_str(), strerror(EIO));
  if (truncated)
    info.addWarning(Str::fromFormat("Only the first %zu lines of '%s' were read", n, _path.c_str()));
}
