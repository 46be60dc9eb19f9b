#include "pipeline/indexer/GetEmptyList.h"

#include "pipeline/indexer/Query.h"

void GetEmptyList::runModule() {
  unsigned long start, end;
  parseRange(getArg(_keyword), _malformed, start, end);
  _query->resultMap()[_keyword].clear();
}
