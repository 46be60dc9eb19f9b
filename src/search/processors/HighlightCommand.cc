#include "search/processors/HighlightCommand.h"

#include <algorithm>

#include "search/SL.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "search/processors/AbstractOperator.h"

void HighlightCommand::processArguments() {
  std::vector<Str> words;
  getNextArgs(words, true);
  for (const Str& w : words) {
    Str t = lowercase(w);
    if (!t.empty() && std::find(_terms.begin(), _terms.end(), t) == _terms.end()) _terms.push_back(t);
  }
}

void HighlightCommand::execute(SearchResults& results, SearchResultsInfo& info) {
  std::vector<Str> terms = _terms;
  if (terms.empty())
    for (const Str& k : info.keywords) terms.push_back(lowercase(k));
  for (const Str& t : _terms) info.keywords.insert(t);
  if (terms.empty() || results.empty()) return;
  sr_index_t raw = results.keyIndex(SL::Raw);
  if (raw == SearchResults::nkeyindex) return;
  sr_index_t mark = results.keyIndex("_hilite", true);
  std::vector<bool> found(terms.size());
  Str word, marked;
  for (SearchResult* r : results) {
    const Str* text = r->getValuePtr(raw);
    if (!text) continue;
    std::fill(found.begin(), found.end(), false);
    size_t i = 0, n = text->size();
    while (i < n) {
      while (i < n && AbstractOperator::isBreaker((*text)[i])) ++i;
      size_t s = i;
      while (i < n && !AbstractOperator::isBreaker((*text)[i])) ++i;
      if (i == s) continue;
      word.assign(*text, s, i - s);
      lowercaseInPlace(word);
      for (size_t k = 0; k < terms.size(); ++k)
        if (terms[k] == word) found[k] = true;
    }
    marked.clear();
    for (size_t k = 0; k < terms.size(); ++k) {
      if (!found[k]) continue;
      if (!marked.empty()) marked += ' ';
      marked += terms[k];
    }
    if (marked.empty())
      r->removeValue(mark);
    else
      r->setValue(mark, marked);
  }
}
