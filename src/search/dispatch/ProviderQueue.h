// ProviderQueue: the rows of a dispatched search from every server, merged
// into one stream: the local part (run in-process over this server's
// indexes) and one ResultProvider per peer.
//
// DESIGN: one thread, round robin. Each fetchResults() call takes one chunk
// of the local part (prefix then map half, see PipelineSplit) and up to
// `rowsPerRead` rows of every peer still open, in the order given. A peer
// that fails leaves a WARN message in the search's info and the others go
// on; its rows read before the failure are kept. A peer is as slow as its
// receive time-out allows, so a silent peer holds the others back until
// then.
//
// Owns its providers and the local part. The caller's thread only.
#pragma once

#include <memory>
#include <vector>

#include "search/SearchResultsInfo.h"
#include "search/dispatch/ResultProvider.h"

class PipelineSplit;
class SearchResults;

class ProviderQueue {
 public:
  // `localSearch` empty: no local part. Its parse and argument faults throw
  // SearchProcessorException. `info` gives the time bounds and cancel id.
  ProviderQueue(const Str& localSearch, std::vector<std::unique_ptr<ResultProvider>> peers,
                const SearchResultsInfo& info, size_t rowsPerRead = 10000);
  ~ProviderQueue();
  ProviderQueue(const ProviderQueue&) = delete;
  ProviderQueue& operator=(const ProviderQueue&) = delete;

  // Appends the next rows of every open source to `out`; warnings of failed
  // peers go into `info`. False once no source has more.
  bool fetchResults(SearchResults& out, SearchResultsInfo& info);
  size_t openSources() const;

 private:
  std::unique_ptr<PipelineSplit> _local;
  SearchResultsInfo _localInfo;
  bool _localMore = false;
  std::vector<std::unique_ptr<ResultProvider>> _peers;
  std::vector<bool> _peerOpen;
  size_t _rowsPerRead;
};
