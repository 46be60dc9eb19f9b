#include "pipeline/indexer/QueryDedupe.h"

#include "pipeline/indexer/DedupeMeta.h"
#include "pipeline/indexer/Query.h"

void QueryDedupe::runModule() { _query->addModule("SORT", getModule<DedupeMeta>(_query, _args, "deduper")); }
