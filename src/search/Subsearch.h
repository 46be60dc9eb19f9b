// Subsearch: runs the bracketed subsearch of one command argument and turns
// its rows into the argument that replaces it.
//
// Each subsearch has a job directory <dispatch root>/<query id>_<djb2 of its
// text>. The first to find no directory makes it, runs the subsearch on a
// thread of its own (the caller blocks on join, so rows are never shared
// between running threads) and leaves "status.csv" and "results.csv" there.
// Anyone else who finds the directory (another pass of the same search) is a
// second reader: it polls status.csv until results.csv appears, an error is
// reported, or the `timeout` limit passes.
//
// Limits, stanza "subsearch" of `limits`, read once: maxtime (10, seconds),
// maxout (100, rows kept), timeout (30, seconds a second reader waits),
// ttl (300, seconds the job directory is kept; written into its status).
//
// Errors are SearchProcessorException with the subsearch's own text.
// Called on the thread of the command whose arguments are evaluated.
#pragma once

#include "util/Pathname.h"
#include "util/Str.h"

class Arg;
class ProcessorArg;
class SearchResults;
class SearchResultsInfo;

class Subsearch {
 public:
  // The replacement for `arg` (which the caller then deletes): a ResultsArg
  // owning the rows when asResults, else a StringArg with the rows as search
  // text (empty for no rows). `arg` gives up its processor.
  static Arg* run(ProcessorArg& arg, bool asResults, SearchResultsInfo& parentInfo);

  // "<queryId>_<decimal djb2 hash of text>".
  static Str jobId(const Str& queryId, const Str& text);
  // The root of job directories: <VELMOR_HOME>/var/run/velmor/dispatch
  // unless set (the service sets its own).
  static Pathname dispatchRoot();
  static void setDispatchRoot(const Pathname& root);

  // The text for rows: the first row's "_query" if it has one, else
  // the text of `format` with its defaults (ResultsFormatter).
  static Str rowsToSearch(SearchResults& rows);

  // Second-reader wait on an existing job directory; fills `out` or throws.
  static void waitForResults(const Pathname& dir, unsigned long timeoutSecs, SearchResults& out);
};
