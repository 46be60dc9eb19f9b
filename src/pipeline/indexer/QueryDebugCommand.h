// QueryDebugCommand: the administrative commands of the inner query
// language, "!++cmd++::<command>" with up to two parameters
// "!++param1++::<p1>" and "!++param2++::<p2>". Each acts on the query's
// index (its time range where one applies) and leaves its result text in
// the query's "INFO" messages; a failure throws QueryException with its
// text.
//
//   roll              rolls the hot bucket to warm: "Hot db rolled out to
//                     warm." ("Hot db was not rolled: it holds no events or
//                     its directories are locked." when it did not roll)
//   sync              "Hot db sync performed."
//   rescan            lists the bucket directories again: "Database
//                     directories rescanned."
//   optimize          "Hot db optimized !"
//   validate          checks the bucket lists against the directories:
//                     "Database validated." (fails: "Database validation
//                     failed.")
//   clearcache        empties the query cache: "Event cache cleared !"
//   toggleAdvQueries  flips the advanced-query setting, or sets it to p1
//                     when p1 is a truth word: "Advanced queries enabled" /
//                     "Advanced queries disabled"
//   sleep p1          sleeps p1 seconds, stopping early when the query is
//                     cancelled: "Slept <n> seconds." (fails: "Sleep time
//                     not supplied.")
//   memhog p1         allocates and touches p1 bytes, then frees them:
//                     "Allocated <n> bytes." (fails: "Failed to allocate <n>
//                     bytes.", also for more than the machine's memory;
//                     "Memory size not supplied.")
//   export p1 p2      writes the events holding the term p1 to the file p2:
//                     "exported <n> events with the keyword <p1> to file
//                     <p2>" (fails: "Cannot open for writing <p2>",
//                     "Export needs a keyword and a file.")
//   delete p1         deletes the events holding the term p1 (needs the
//                     capability "delete_by_keyword"): "Deleted <n> ids from
//                     <p1>" (fails: "Delete needs a keyword.")
//   logchange p1 p2   sets the level of the log category p1 to p2:
//                     "Setting priority of <p1> to <p2>"; with p1 alone, or
//                     p1 "root", the root level: "Setting root priority to
//                     <level>" (fails: "Priority <level> not recognized",
//                     "Logging is not configured.")
// Any other command fails with "Command <command> is unsupported".
//
// Threads: the thread running the query.
#pragma once

#include "pipeline/indexer/Module.h"

class IPartitionPolicy;

class QueryDebugCommand : public Module {
 public:
  using Module::Module;
  // Throws QueryException.
  void runModule() override;

 private:
  // see the .cc file
  Str run(const Str& cmd, const Str& p1, const Str& p2);
  Str sleep(const Str& p1);
  Str memhog(const Str& p1);
  Str logchange(const Str& p1, const Str& p2);
  int32_t minTime();
  int32_t maxTime();
};
