// UnifiedSearchDispatchThread: runs one search in the background for the
// readers of a UnifiedSearchDispatchThreadInfo.
//
// DESIGN. main() parses the search text as a pipeline and runs it batch by
// batch while SearchCancel::cont(info.cancelId()) holds: each pass executes
// the pipeline into a fresh SearchResults (a command that has more to give
// sets resultsComplete false), publishes the rows to the info, appends them
// to the results file and marks them written. The header is written with
// the first rows; a later batch that brings new columns rewrites the file
// once under the wider header (a new file renamed over the old one, so a
// reader that opened the old file still finds every row it was promised).
// The run ends when the pipeline says its results are complete, when it is
// cancelled, when it holds `max_events` rows (stanza "search" of limits.conf,
// default 10000; extra rows of the last batch are dropped), or when the
// `_raw` texts add up to more than `max_results_raw_size` (same stanza; the
// run then ends with an error). Failures become error messages of the run.
// In every case the info is marked finished, which wakes all readers.
//
// Ownership: the info owns the thread and joins it; the manager has already
// started the run's cancel id, so a cancel before main() runs is not lost.
// Threads: main() runs on its own thread; everything else is the owner's.
#pragma once

#include <set>
#include <vector>

#include "util/ScopedFileStar.h"
#include "util/Str.h"
#include "util/Thread.h"

class SearchResults;
class UnifiedSearchDispatchThreadInfo;

class UnifiedSearchDispatchThread : public Thread {
 public:
  // Default of `max_events` when limits.conf has none.
  static constexpr unsigned long kDefaultMaxEvents = 10000;

  explicit UnifiedSearchDispatchThread(UnifiedSearchDispatchThreadInfo& info);
  ~UnifiedSearchDispatchThread() override;

  void main() override;

 private:
  void runSearch();
  // Appends the rows to the results file (header first, or a rewrite when
  // they bring new columns). Throws SearchProcessorException when the file
  // cannot be written.
  void writeRows(const SearchResults& rows);
  void rewriteWith(const SearchResults& rows);

  UnifiedSearchDispatchThreadInfo& _info;
  ScopedFileStar _file;
  std::vector<Str> _header;
  std::set<Str> _headerSet;
};
