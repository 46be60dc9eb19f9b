// PipelineSplit: a parsed search cut into the part that runs on every chunk
// of events as they are read and the part that runs once over what the
// chunks gave.
//
//   search error | eval x=1 | stats count by host | sort -count
//   \________ prefix _____/   \__ rest: stats, sort ___________/
//   map (per chunk): prestats count by host
//
// The constructor takes the members of the pipeline, evaluates each one's
// arguments in order (the first with "first in pipeline" set) and sorts
// them into three lists:
//   - prefix: the leading run of streamable commands. The first member is
//     the producer (a `search` reading the indexes chunk by chunk, or any
//     generating command, which produces once);
//   - map: the map half of the first command that is not streamable, from
//     its getStreamingOp() (parsed with internal commands allowed); empty
//     when that command has none;
//   - rest: that first non-streamable command and everything after it. A
//     later command that answers isStreamingOpRequired() gets its map half
//     put on the rest list right ahead of it.
// A lone producer is offered the map half (SearchProcessor::absorbMap): an
// index reader may count by stored fields without a row per event. A map
// half written out in the search itself (what a peer is sent: "search x |
// prestats count by host") is the prefix behind the producer; it is offered
// the same way and, when taken, moves to the map list.
// When the very first command is not streamable (`| inputcsv x | ...`)
// there is no prefix and the rest is the whole search, run once.
//
// The split owns every command of the three lists. One search thread uses
// it; the commands keep state between calls (a `search` its cursor, a
// `prehead` its count), so one split serves one run.
#pragma once

#include <list>

#include "util/Str.h"

class SearchProcessor;
class SearchResults;
class SearchResultsInfo;

class PipelineSplit {
 public:
  // Takes ownership of `parsed` (a pipeline or a single command) and splits
  // it. Sets info.streamingSearch, so that a leading `search` reads chunk
  // by chunk. Argument faults come out as SearchProcessorException; the
  // commands are freed then.
  PipelineSplit(SearchProcessor* parsed, SearchResultsInfo& info);
  ~PipelineSplit();
  PipelineSplit(const PipelineSplit&) = delete;
  PipelineSplit& operator=(const PipelineSplit&) = delete;

  const std::list<SearchProcessor*>& prefix() const { return _prefix; }
  const std::list<SearchProcessor*>& mapOps() const { return _map; }
  const std::list<SearchProcessor*>& rest() const { return _rest; }
  bool hasPrefix() const { return !_prefix.empty(); }
  // Whether the producer gives the map half's rows itself (see
  // SearchProcessor::absorbMap); map() then runs nothing.
  bool mapAbsorbed() const { return _mapAbsorbed; }
  // Whether some command of the search needs every row it selects: one
  // that reduces rows into new ones (stats, top) or that has a map half
  // (chart, dedup, sort). A search without any returns events.
  bool needsAllRows() const { return _reduces; }
  // The command names of the lists: "prefix: search | eval; map: prestats;
  // rest: stats | presort | sort".
  Str describe() const;

  // Runs the prefix once: `batch` (emptied first) gets the next chunk of
  // rows. Answers whether the producer has more to give. Cancellation
  // (SearchCancel on info.cancelId) ends the input.
  // REQUIRES: hasPrefix().
  bool fetch(SearchResults& batch, SearchResultsInfo& info);
  // Runs the map commands over one chunk. Answers false when one of them
  // asks for no more input (a `prehead` that has its rows).
  bool map(SearchResults& batch, SearchResultsInfo& info);
  // Runs the rest over `rows` (what the chunks gave, possibly in spill
  // files), in order, while the search is not cancelled.
  void reduce(SearchResults& rows, SearchResultsInfo& info);

 private:
  void release();

  std::list<SearchProcessor*> _prefix, _map, _rest;
  bool _reduces = false;
  bool _mapAbsorbed = false;
};
