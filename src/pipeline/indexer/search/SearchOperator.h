// SearchOperator: the `newsearch` command. Reads the events of one index
// that a term expression selects, newest first, one chunk per execute call.
//
//   newsearch <terms> [index=<name>] [readlevel=<n>]
//
// Options, cut out of the text wherever they stand ("=" or "::", value
// optionally quoted):
//   index=<name>     the index to read; none or "default" means the
//                    container's default index. A repeat warns "index
//                    specified multiple times, using only '<name>'" and the
//                    later one wins.
//   readlevel=<n>    0 reads the stored fields only (no key=value fields);
//                    default 2. A value that is not a non-negative integer
//                    warns "Invalid readlevel '<v>'"; a repeat warns
//                    "readlevel specified multiple times, using '<v>'".
//   maxtime, maxresults  ignored, with "Ignoring deprecated search modifier
//                    '<name>'".
//
// evalArgs: the user's role filters restrict the text ("( <text> ) <filter>",
// with the INFO message "Your search was restricted by <filter>"), the text
// is expanded (tags, event types, time words), the options are stripped,
// the index rights are checked ("Only admins may search the index <name>"
// for names starting with "_" and "velmorlogger"; the index "history"
// without the capability search_history reads only the user's own events,
// through an added "user::<name>" term), the index is resolved ("There is
// no query runner registered", `Could not find a policy for domain
// "<name>"`) and the CursoredSearch is made. The info's time bounds become
// the cursor's real ones.
//
// execute: one chunk of at most chunkSize events (20 at first). The chunk
// size then adapts so that a chunk takes about `target_time_perchunk`
// milliseconds (stanza "search" of limits, default 2000), within 20 ..
// `max_results_perchunk` (default 10000, at most the result row limit).
// While events remain, info.resultsComplete is false and the caller calls
// execute again. A search whose cancel id was stopped (SearchCancel) reads
// nothing more and reports complete. The directories of the index are held
// (LockContainer) for the length of each chunk only, so that buckets may
// move between chunks.
//
// One search thread owns the command; the evaluator and cursor belong to it.
#pragma once

#include <memory>
#include <vector>

#include "pipeline/indexer/ValueWrapper.h"
#include "search/SearchProcessor.h"
#include "util/Timeval.h"

class CursoredSearch;
class DiscretizationProcessor;
class StatsProcessor;
class IPartitionPolicy;
class SearchEvaluator;

class SearchOperator : public SearchProcessor {
 public:
  static constexpr unsigned long kMinChunk = 20;

  explicit SearchOperator(const Str& name);
  ~SearchOperator() override;
  static SearchProcessor* create(const Str& name) { return new SearchOperator(name); }

  void parseArguments() override {}
  void evalArgs(SearchResultsInfo& info) override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

  // Counting in place of the map half of a report. Taken when the index
  // answers the search exactly and the map half is, in this order,
  //   [prebin span=<time span> _time |] [fillnull ... <fields> |]
  //   prestats <counts only> [by <fields>]
  // where every field is host, source, sourcetype or index (and _time after
  // the prebin). execute() then names the events of each chunk without
  // reading their raw text, counts them by the bucket's codes of those
  // fields (and the time bin), turns the codes into words once per chunk
  // and hands the counts to the prestats command, which writes the same
  // rows it would have written over the events themselves. A fillnull of
  // those fields changes nothing: every event carries them.
  bool absorbMap(const std::list<SearchProcessor*>& ops) override;
  bool isCounting() const { return _countStats != nullptr; }

  // What evalArgs found; for the commands that wrap this one, and tests.
  const Str& getIndex() const { return _index; }
  int getReadLevel() const { return _readLevel; }
  unsigned long getChunkSize() const { return _chunkSize; }
  const Str& getText() const { return _text; }
  // The cursor's time before and after the last chunk.
  const Timeval& getChunkStart() const { return _chunkStart; }
  const Timeval& getChunkEnd() const { return _chunkEnd; }

  // Cuts the local options out of `text` (see above), setting index and
  // readLevel and appending the warnings. An `index` that is not empty
  // counts as given before. Public for the table tests.
  static Str stripLocalOptions(const Str& text, Str& index, int& readLevel, std::vector<Str>& warnings);
  // The role filters of the user as one text (" ( f1 ) OR ( f2 ) "), empty
  // when unrestricted.
  static Str getAccessFilter(const Str& user);
  // The next chunk size after a chunk of `size` that took `elapsedMs`.
  static unsigned long nextChunkSize(unsigned long size, long elapsedMs, long targetMs, unsigned long maxSize);

 private:
  void setUp(SearchResultsInfo& info);
  void executeCounts(SearchResults& results, SearchResultsInfo& info);

  enum CountDim { kHost, kSource, kSourceType, kIndex, kTime };

  std::unique_ptr<SearchEvaluator> _evaluator;
  std::unique_ptr<CursoredSearch> _cursor;
  IPartitionPolicy* _policy = nullptr;
  Str _index;
  Str _text;
  unsigned long _chunkSize = kMinChunk;
  int _readLevel = 2;
  Timeval _chunkStart, _chunkEnd;
  // Counting (absorbMap): borrowed map commands, the fields by position.
  StatsProcessor* _countStats = nullptr;
  DiscretizationProcessor* _countBin = nullptr;
  std::vector<CountDim> _countDims;
  std::vector<ValueWrapper> _values;
};
