#include "pipeline/indexer/QuerySort.h"

#include "pipeline/indexer/Query.h"
#include "pipeline/indexer/SortMeta.h"

void QuerySort::runModule() { _query->addModule("SORT", getModule<SortMeta>(_query, _args, "sorter")); }
