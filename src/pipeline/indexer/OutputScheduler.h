// OutputScheduler: the "OUTPUT" module "scheduler" ("schedOut"): writes one
// line into the result document that sums the query up for the scheduler of
// saved searches:
//
//   <schedResults><eventCount>N+</eventCount><hostCount>N</hostCount>
//   <sourceCount>N</sourceCount><typeCount>N</typeCount>
//   <sourceTypeCount>N</sourceTypeCount><eventTagCount>N</eventTagCount>
//   <hostTagCount>N</hostTagCount><starttime>T</starttime>
//   <endtime>T</endtime></schedResults>            (one line, no breaks)
//
// eventCount is the number of ids found, followed by "+" when the search
// stopped at its result limit (there may be more). The other counts are the
// whole sizes of the lists the "GET" section fetched (hosts, sources,
// types, sourcetypes, eventtags, hosttags), 0 for a list not fetched.
// starttime and endtime are the query's time bounds as
// "%m/%d/%Y:%H:%M:%S" local time, empty where the query set none.
//
// Threads: the thread running the query.
#pragma once

#include "pipeline/indexer/Module.h"

class OutputScheduler : public Module {
 public:
  using Module::Module;
  void runModule() override;
};
