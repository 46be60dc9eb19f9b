#include "search/processors/IntervelmorIn.h"

#include <stdio.h>
#include <unistd.h>

#include "search/FILELineReader.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "util/Logger.h"

namespace {
Logger gLogger("load");
}

void IntervelmorIn::processArguments() {
  if (getOption("fd", _fd) && _fd < 0) throw searchError(this, gLogger, "Invalid descriptor %ld", _fd);
  refuseLeftovers();
}

void IntervelmorIn::execute(SearchResults& results, SearchResultsInfo& info) {
  int fd = dup(static_cast<int>(_fd));
  FILE* f = fd < 0 ? nullptr : fdopen(fd, "r");
  if (!f) {
    if (fd >= 0) close(fd);
    throw searchError(this, gLogger, "Could not read descriptor %ld", _fd);
  }
  results.clearFileList();
  results.free(false);
  results.resetBadLineCount();
  FILELineReader reader{FileStar(f), true};
  results.fromCSV(reader);
  if (results.getBadLineCount())
    info.addWarning(Str::fromFormat("While reading input, encountered %lu inconsistent number of column errors.",
                                    static_cast<unsigned long>(results.getBadLineCount())));
}
