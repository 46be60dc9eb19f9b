#include "search/processors/OutputText.h"

#include <algorithm>

#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "search/processors/ResultsXml.h"

namespace {
void appendPadded(const Str& text, size_t width, bool last, Str& out) {
  out += text;
  if (!last) out.append(width - text.size() + 2, ' ');
}
}  // namespace

void OutputText::renderBegin(SearchResultsInfo&, Str&) {
  _columns.clear();
  _columnOf.clear();
  _cells.clear();
}

void OutputText::renderChunk(SearchResults& chunk, SearchResultsInfo& info) {
  std::vector<Str> names;
  std::vector<sr_index_t> keys;
  ResultsXml::columns(chunk, info, names, keys);
  _chunkKeys.clear();
  for (size_t i = 0; i < names.size(); ++i) {
    auto it = _columnOf.find(names[i]);
    if (it == _columnOf.end()) {
      it = _columnOf.emplace(names[i], _columns.size()).first;
      _columns.push_back(names[i]);
    }
    _chunkKeys.emplace_back(keys[i], it->second);
  }
}

void OutputText::renderRow(SearchResults&, const SearchResult& row, size_t, Str&) {
  std::vector<Str> cells(_columns.size());
  for (auto& kc : _chunkKeys) {
    const Str* v = row.getValuePtr(kc.first);
    if (!v) continue;
    Str& cell = cells[kc.second];
    cell = *v;
    std::replace(cell.begin(), cell.end(), '\n', ' ');
    std::replace(cell.begin(), cell.end(), '\t', ' ');
    cell.erase(std::remove(cell.begin(), cell.end(), '\r'), cell.end());
  }
  _cells.push_back(std::move(cells));
}

void OutputText::renderEnd(SearchResultsInfo&, size_t rows, Str& out) {
  if (rows == 0 || _columns.empty()) return;
  std::vector<size_t> width(_columns.size());
  for (size_t c = 0; c < _columns.size(); ++c) width[c] = _columns[c].size();
  for (auto& r : _cells)
    for (size_t c = 0; c < r.size(); ++c) width[c] = std::max(width[c], r[c].size());
  const size_t last = _columns.size() - 1;
  for (size_t c = 0; c < _columns.size(); ++c) appendPadded(_columns[c], width[c], c == last, out);
  out += '\n';
  for (size_t c = 0; c < _columns.size(); ++c) appendPadded(Str(width[c], '-'), width[c], c == last, out);
  out += '\n';
  for (auto& r : _cells) {
    r.resize(_columns.size());
    for (size_t c = 0; c < r.size(); ++c) appendPadded(r[c], width[c], c == last, out);
    out += '\n';
  }
  _cells.clear();
}
