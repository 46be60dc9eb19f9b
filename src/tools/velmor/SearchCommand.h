// SearchCommand: `velmor search '<search>'`: runs one search to its end,
// in this process over the indexes of VELMOR_HOME or as a job of the
// service named by --server, and prints the final rows as -o says
// (RowsPrinter). A text whose first word is not a command is searched for
// ("error host=web1" runs "search error host=web1").
//
// How many rows: -n N. Without it a search that returns events shows the
// newest 100 (more matching is said on standard error) and a report
// (stats, top, chart...) every row. -n 0 lifts the command's own limit (a
// search for events still keeps `max_count` of limits.conf).
//
// While it runs, standard error shows the events read and the rate, when
// standard error is a terminal. The search's messages go to standard error
// as "<TYPE>: <text>". Answers the exit status: 0 done, 1 the search
// failed (its message on standard error), 2 bad usage (a time that is no
// time).
//
// Used once, on the main thread.
#pragma once

#include <cstdint>

#include "tools/velmor/CliOptions.h"
#include "tools/velmor/RowsPrinter.h"

class SearchResults;
class SearchResultsInfo;

class SearchCommand {
 public:
  explicit SearchCommand(const CliOptions& o) : _o(o) {}
  int run();

  // The default -n of a search of events.
  static constexpr long kDefaultEvents = 100;

 private:
  int runLocal();
  int runServer();
  // Prints the rows (capped by -n) and answers 0.
  int print(SearchResults& rows, bool report);

  const CliOptions& _o;
  RowsPrinter::Mode _mode = RowsPrinter::kTable;
  int64_t _earliest = 0, _latest = 0;  // 0: unbounded
  Str _text;
};
