#include "pipeline/indexer/GetWordTable.h"

#include "pipeline/indexer/IPartitionPolicy.h"
#include "pipeline/indexer/Query.h"
#include "pipeline/indexer/ScopedQueryTimer.h"

void GetWordTable::runModule() {
  ScopedQueryTimer timer(_keyword, _query->getQueryId());
  unsigned long start, end;
  parseRange(getArg(_keyword), _malformed, start, end);
  IPartitionPolicy* p = policyOf(*_query);
  std::vector<WordPositionData> rows = _table == kHosts     ? p->getHosts()
                                       : _table == kSources ? p->getSources()
                                                            : p->getSourceTypes();
  sortForDisplay(rows);
  _query->resultMap()[_keyword] = listRows(rows, start, end);
}
