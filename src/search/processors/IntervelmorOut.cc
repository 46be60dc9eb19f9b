#include "search/processors/IntervelmorOut.h"

#include <stdio.h>
#include <unistd.h>

#include "search/SearchResults.h"
#include "search/processors/SpilledCsvWriter.h"
#include "util/Logger.h"

namespace {
Logger gLogger("save");
}

void IntervelmorOut::processArguments() {
  if (getOption("fd", _fd) && _fd < 0) throw searchError(this, gLogger, "Invalid descriptor %ld", _fd);
  getOption("internal", _internal);
  refuseLeftovers();
}

void IntervelmorOut::execute(SearchResults& results, SearchResultsInfo&) {
  fflush(nullptr);  // what stdio holds for the descriptor goes out first
  int fd = dup(static_cast<int>(_fd));
  FILE* f = fd < 0 ? nullptr : fdopen(fd, "w");
  if (!f) {
    if (fd >= 0) close(fd);
    throw searchError(this, gLogger, "Could not write to descriptor %ld", _fd);
  }
  FileStar out(f);
  size_t bytes = 0;
  Str error;
  bool ok = SpilledCsvWriter::write(results, out, _internal, false, bytes, error);
  ok = out.close() && ok;
  if (!ok) throw searchError(this, gLogger, "Could not write to descriptor %ld", _fd);
}
