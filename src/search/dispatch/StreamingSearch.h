// StreamingSearch: runs a whole search over everything it selects, chunk by
// chunk, without holding the events in memory.
//
// DESIGN: one thread, no queue. The search is split once (PipelineSplit).
// Then, until the producer is exhausted, a chunk is read through the
// prefix, the map half reduces it (a `prestats` turns ten thousand events
// into a row per group) and what is left is gathered. When the first
// command of the rest is transforming, the gathered rows are spilled as CSV
// files of `spillRows` rows into a private directory, and the rest reads
// them file by file at the end; so a report over a billion events needs the
// memory of its groups, not of its events. The rest then runs once over
// what was gathered.
//
// Limits:
//   - a search that returns events (no command of it reduces rows or has a
//     map half, see PipelineSplit::needsAllRows) keeps the first
//     `maxEvents` rows (newest first) and stops reading there, with an INFO
//     message when more were left;
//   - a rest that looks only at its first N rows (`head N`) ends the
//     reading once N rows are gathered;
//   - the search's cancel id (SearchCancel) ends the reading between
//     chunks; the rows gathered so far are dropped.
//   - the chunk hook (Options::onChunk) sees every chunk as the prefix
//     gave it, before the map half, and may end the reading: Finish keeps
//     the rows gathered so far (this chunk included) and runs the rest over
//     them; Cancel drops everything and gives no rows.
// A spill that cannot be written (a full disk) fails the search with
// "Could not write search rows to '<path>': <reason>" rather than giving a
// count that silently misses events.
//
// Owns the split and its commands; the spill directory is removed with the
// rows that use it (SearchResults::addTempDir) or by the destructor.
#pragma once

#include <functional>
#include <memory>

#include "search/dispatch/PipelineSplit.h"
#include "util/Pathname.h"

class SearchProcessor;
class SearchResults;
class SearchResultsInfo;

class StreamingSearch {
 public:
  // What the chunk hook wants after a chunk.
  enum class ChunkAction { Continue, Finish, Cancel };

  struct Options {
    // Rows a search that returns events keeps; 0: `max_count`
    // of stanza "search" in limits (default 10000).
    size_t maxEvents = 0;
    // Gathered rows per spill file; 0: the result row limit (50000).
    size_t spillRows = 0;
    // Where spill directories are made; empty: $TMPDIR or /tmp.
    Pathname spillParent;
    // Called after every chunk with the events read so far.
    std::function<void(size_t events, size_t chunks)> progress;
    // Called with every chunk the prefix gave (the events, newest first, as
    // read), on the search's thread, before the map half. May add fields to
    // the rows (event typing) and may wait (a paused job) before it answers.
    std::function<ChunkAction(SearchResults& chunk)> onChunk;
  };

  // Splits `parsed` (owned). Argument faults throw SearchProcessorException.
  StreamingSearch(SearchProcessor* parsed, SearchResultsInfo& info, Options options);
  StreamingSearch(SearchProcessor* parsed, SearchResultsInfo& info);
  ~StreamingSearch();

  const PipelineSplit& split() const { return *_split; }

  // Runs the search to its end; `out` gets the final rows. Failures throw
  // SearchProcessorException.
  // REQUIRES: called once.
  void run(SearchResults& out, SearchResultsInfo& info);

  size_t eventsRead() const { return _events; }
  size_t chunks() const { return _chunks; }
  size_t spillFiles() const { return _spilled; }
  // Whether the chunk hook ended the reading with Cancel.
  bool cancelledByHook() const { return _hookCancelled; }

 private:
  void gather(SearchResults& batch, SearchResults& gathered);
  void spill(SearchResults& gathered, std::vector<Pathname>& files);

  std::unique_ptr<PipelineSplit> _split;
  Options _options;
  Pathname _spillDir;  // made on the first spill
  bool _dirHandedOver = false;
  bool _hookCancelled = false;
  size_t _events = 0, _chunks = 0, _spilled = 0;
};
