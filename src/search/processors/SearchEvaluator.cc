#include "search/processors/SearchEvaluator.h"

#include "libbundle/PropertiesMap.h"
#include "libbundle/PropertyPages.h"
#include "pipeline/indexer/GenericCleaner.h"
#include "search/SL.h"
#include "search/SearchResults.h"
#include "search/processors/ParseNodeCMP.h"
#include "search/processors/ParseNodeDIRECTIVE.h"
#include "search/processors/ParseNodeGROUP.h"
#include "search/processors/ParseNodeTERM.h"
#include "search/processors/RETokenizer.h"
#include "search/processors/SearchTermCallback.h"
#include "util/Exceptions.h"

namespace {

// The breaker list without "*" entries.
Str dropStar(const Str& list) {
  Str out;
  for (const Str& b : GenericCleaner::parseBreakerList(StrSegment(list.data(), list.size()))) {
    if (b.find('*') != Str::npos) continue;
    if (!out.empty()) out += ' ';
    // Re-escape what parseBreakerList undid.
    for (char c : b) {
      if (c == ' ')
        out += "\\s";
      else if (c == '\t')
        out += "\\t";
      else if (c == '\n')
        out += "\\n";
      else if (c == '\r')
        out += "\\r";
      else if (c == '\\')
        out += "\\\\";
      else
        out += c;
    }
  }
  return out;
}

std::unique_ptr<GenericCleaner> makeCleaner(const Str& stanzaName, bool keepStars) {
  PropertiesMap stanza;
  PropertyPages& pages = PropertyPages::instance("segmenters");
  pages.fillLayers(stanza, pages.propsExist(stanzaName) ? stanzaName : Str("default"), false);
  if (keepStars) {
    Str v;
    if (stanza.get("MAJOR", v)) stanza.put("MAJOR", dropStar(v));
    if (stanza.get("MINOR", v)) stanza.put("MINOR", dropStar(v));
  }
  return std::make_unique<GenericCleaner>(stanza);
}

}  // namespace

SearchEvaluator::SearchEvaluator(const StringPiece& text) : _text(text.data(), text.size()) {
  _cleaner = makeCleaner("default", false);
  // A star in a search term is a wildcard, never a breaker.
  std::unique_ptr<GenericCleaner> termCleaner = makeCleaner("search", true);
  _root = std::make_unique<ParseNodeGROUP>(true);
  std::vector<ParseNodeGROUP*> stack{_root.get()};
  RETokenizer tokens(text);
  for (const Str& t : tokens.tokens()) {
    if (t == "(") {
      auto* g = new ParseNodeGROUP(true);
      stack.back()->addChild(g);
      stack.push_back(g);
    } else if (t == ")") {
      if (stack.size() == 1) throw SearchParsingException("unbalanced parentheses");
      stack.pop_back();
    } else if (t == "AND") {
      continue;
    } else if (t == "OR" || t == "NOT") {
      stack.back()->addChild(new ParseNodeDIRECTIVE(t));
    } else if (RETokenizer::isOperator(t)) {
      stack.back()->addChild(new ParseNodeCMP(t));
    } else {
      stack.back()->addChild(new ParseNodeTERM(t, termCleaner.get()));
    }
  }
  if (stack.size() != 1) throw SearchParsingException("unbalanced parentheses");
  _root->associate(termCleaner.get());
  rebuildLeaves();
}

SearchEvaluator::~SearchEvaluator() = default;

void SearchEvaluator::rebuildLeaves() {
  _leaves.clear();
  _root->getLeaves(_leaves);
  _callback = std::make_unique<SearchTermCallback>(_leaves);
}

bool SearchEvaluator::optimize() {
  _root->collapse();
  _root->resetValue();
  bool v;
  bool known = _root->getValue(v);
  _root->resetValue();
  if (known && !v) return false;
  rebuildLeaves();
  return true;
}

void SearchEvaluator::getKeywords(std::set<Str>& out) const {
  for (ParseNode* leaf : _leaves) {
    if (!leaf->isTERM()) continue;
    auto* term = static_cast<ParseNodeTERM*>(leaf);
    if (!term->isNegated()) out.insert(term->tokens().begin(), term->tokens().end());
  }
}

bool SearchEvaluator::getQuery(std::set<Str>& andTerms, std::set<Str>& notTerms, std::set<Str>& orTerms,
                               Timeval& start, Timeval& end) {
  return _root->getQuery(andTerms, notTerms, orTerms, start, end);
}

Str SearchEvaluator::toIndexString() {
  std::set<Str> andTerms, notTerms, orTerms;
  Timeval start(0, 0), end(2147483647, 0);
  bool exact = getQuery(andTerms, notTerms, orTerms, start, end);
  Str s = exact ? "exact|" : "inexact|";
  s += Str::fromFormat("%lld|%lld", static_cast<long long>(start.sec()), static_cast<long long>(end.sec()));
  s += "|AND:";
  for (const Str& t : andTerms) s += "|" + t;
  s += "|NOT:";
  for (const Str& t : notTerms) s += "|" + t;
  s += "|OR:";
  for (const Str& t : orTerms) s += "|" + t;
  return s;
}

Str SearchEvaluator::toString() const { return _root->toString(); }

void SearchEvaluator::initKeys(SearchResults& results) {
  bool needRaw = false;
  for (ParseNode* leaf : _leaves) {
    if (leaf->isCMP())
      static_cast<ParseNodeCMP*>(leaf)->setKeyIndex(results);
    else
      needRaw = true;
  }
  _rawKey = needRaw ? results.keyIndex(SL::Raw, true) : 0;
}

bool SearchEvaluator::isMatch(SearchResult* row) {
  _root->resetValue();
  const Str* raw = _rawKey ? row->getValuePtr(_rawKey) : nullptr;
  if (raw) _cleaner->tokenize(StrSegment(raw->data(), raw->size()), *_callback);
  _callback->unhitAll();
  bool v;
  if (!_root->getValue(v)) {
    // Terms without a fixed prefix need the whole text; a row without _raw
    // is matched as an empty text.
    if (raw) {
      _lowerRaw.assign(raw->data(), raw->size());
      lowercaseInPlace(_lowerRaw);
    } else {
      _lowerRaw.clear();
    }
    for (ParseNodeTERM* leaf : _callback->rawLeaves()) {
      leaf->hit(_lowerRaw.c_str());
      leaf->unhit();
    }
    if (_root->getValue(v)) return v;
    for (ParseNode* leaf : _leaves)
      if (leaf->isCMP()) static_cast<ParseNodeCMP*>(leaf)->evaluate(row);
    if (!_root->getValue(v)) return false;
  }
  return v;
}

void SearchEvaluator::filter(SearchResults& results, bool keysKnown) {
  if (!keysKnown) initKeys(results);
  for (auto it = results.begin(); it != results.end();) {
    if (isMatch(*it)) {
      ++it;
    } else {
      delete *it;
      it = results.erase(it);
    }
  }
}
