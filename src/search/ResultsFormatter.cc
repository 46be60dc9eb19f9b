#include "search/ResultsFormatter.h"

#include "search/SearchResults.h"

ResultsFormatter::ResultsFormatter() : ResultsFormatter("(", "(", "AND", ")", "OR", ")") {}

ResultsFormatter::ResultsFormatter(const Str& resultStart, const Str& colStart, const Str& colSep,
                                   const Str& colEnd, const Str& rowSep, const Str& resultEnd)
    : _resultStart(resultStart),
      _colStart(colStart),
      _colSep(colSep),
      _colEnd(colEnd),
      _rowSep(rowSep),
      _resultEnd(resultEnd) {}

Str ResultsFormatter::format(const SearchResults& rows) const {
  if (rows.empty()) return Str();
  // Public fields in name order, resolved once. Name order (not the order
  // of first appearance) keeps the text the same however the rows were
  // chunked or read back from files.
  std::vector<std::pair<Str, sr_index_t>> cols;
  for (const auto& kv : rows.getKeyMap())
    if (!kv.first.startswith('_')) cols.emplace_back(kv.first, kv.second);
  Str out = _resultStart;
  bool firstRow = true;
  Str terms;
  for (const SearchResult* r : rows) {
    terms.clear();
    for (const auto& c : cols) {
      const Str* v = r->getValuePtr(c.second);
      if (!v) continue;
      if (!terms.empty()) terms += " " + _colSep + " ";
      terms += c.first;
      terms += "=\"";
      for (char ch : *v) {
        if (ch == '\\' || ch == '"') terms += '\\';
        terms += ch;
      }
      terms += '"';
    }
    if (terms.empty()) continue;
    out += firstRow ? " " : " " + _rowSep + " ";
    firstRow = false;
    out += _colStart + " " + terms + " " + _colEnd;
  }
  out += " " + _resultEnd;
  return out;
}
