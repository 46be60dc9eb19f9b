#include "search/dispatch/ProviderQueue.h"

#include "search/SearchCancel.h"
#include "search/SearchParser.h"
#include "search/SearchResults.h"
#include "search/dispatch/PipelineSplit.h"

ProviderQueue::ProviderQueue(const Str& localSearch, std::vector<std::unique_ptr<ResultProvider>> peers,
                             const SearchResultsInfo& info, size_t rowsPerRead)
    : _localInfo(info), _peers(std::move(peers)), _peerOpen(_peers.size(), true), _rowsPerRead(rowsPerRead) {
  if (_rowsPerRead == 0) _rowsPerRead = 1;
  _localInfo.messages.clear();
  if (!localSearch.empty()) {
    _local = std::make_unique<PipelineSplit>(SearchParser::parse(localSearch, true), _localInfo);
    _localMore = true;
  }
}

ProviderQueue::~ProviderQueue() = default;

size_t ProviderQueue::openSources() const {
  size_t n = _localMore ? 1 : 0;
  for (bool b : _peerOpen) n += b ? 1 : 0;
  return n;
}

bool ProviderQueue::fetchResults(SearchResults& out, SearchResultsInfo& info) {
  if (!SearchCancel::instance()->cont(info.cancelId)) return false;
  if (_localMore) {
    SearchResults batch;
    if (!_local->hasPrefix()) {
      // A local part that is generated at once runs whole, once.
      _local->reduce(batch, _localInfo);
      _localMore = false;
    } else {
      _localMore = _local->fetch(batch, _localInfo);
      if (!_local->map(batch, _localInfo)) _localMore = false;
    }
    out.takeRows(batch);
    // Messages of the local part reach the user once.
    for (auto& [type, texts] : _localInfo.messages)
      for (const Str& t : texts) info.addMessage(type, t);
    _localInfo.messages.clear();
  }
  for (size_t i = 0; i < _peers.size(); ++i) {
    if (!_peerOpen[i]) continue;
    if (!_peers[i]->read(out, _rowsPerRead)) {
      _peerOpen[i] = false;
      if (_peers[i]->failed()) info.addWarning(_peers[i]->warning());
    }
  }
  return openSources() > 0;
}
