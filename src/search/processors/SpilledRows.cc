#include "search/processors/SpilledRows.h"

#include "search/SearchResults.h"

void SpilledRows::loadAll(SearchResults& rs) {
  if (!rs.hasFiles()) return;
  SearchResults all;
  rs.firstFile();
  while (rs.readFile()) {
    all.append(rs);
    if (!rs.nextFile()) break;
  }
  rs.clearFileList();
  rs.free(false);
  rs.usurp(all, true);
}
