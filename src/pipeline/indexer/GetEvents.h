// GetEvents: the "GET" module "events::start-end": reads the events of the
// ids that the "SEARCH" section found (Query::results(), in their final
// order), positions start to end of that list, both included, into
// Query::resultMap()["events"].
//
// The range is cut to the last id found and to kMaxEvents ids from start.
// Asking past the end is not an error: "Couldn't return enough (matching)
// events" is logged when fewer events come back than the range asked for.
// The index is read in address order within each bucket, so that
// compressed raw files are read forwards; the list keeps the ids' order.
//
// Each event is a PipelineData with rawKey, timeKey (decimal seconds),
// hostKey, sourceKey, sourceTypeKey, cdKey and metaKey. An event that cannot
// be read keeps its place with only cdKey and timeKey, so that outputs can
// say which one is missing.
//
// With "summarize::yes" the events read are also counted into the lists
// "hosts", "sources" and "sourcetypes" (rows as GetModule describes them,
// codes from the index's tables), replacing lists made before.
//
// Threads: the thread running the query.
#pragma once

#include "pipeline/indexer/GetModule.h"

class GetEvents : public GetModule {
 public:
  static constexpr unsigned long kMaxEvents = 100000;

  GetEvents(Query* query, std::shared_ptr<ModuleArgs> args, const Str& name)
      : GetModule(query, std::move(args), name) {}

  void runModule() override;

 private:
  // see the .cc file
  void summarize(IPartitionPolicy& policy, const std::vector<std::shared_ptr<PipelineData>>& events);
};
