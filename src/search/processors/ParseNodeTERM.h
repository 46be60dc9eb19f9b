// ParseNodeTERM: a word or quoted phrase of a search, matched against the
// tokens or the raw text of an event.
//
// The text loses enclosing double quotes and backslash escapes, and is
// segmented by the term cleaner into tokens (the index terms it can be
// looked up by). A term that is exactly one token is matched token by token,
// through the SearchTermCallback trie on its fixed prefix; any other term is
// a phrase, matched as "*text*" against the lower-cased raw text. Matching
// is case insensitive. A token holding a "*" is kept only when at least
// `min_prefix_len` bytes (limit of stanza "search", default 2) stand before
// the first star, so that the index is never asked for a tiny prefix.
//
// Ownership: owned by its group; the matcher is owned here. One thread.
#pragma once

#include <memory>
#include <set>

#include "pipeline/indexer/ICleanCallback.h"
#include "search/processors/ParseNode.h"
#include "util/WildcardMatcher.h"

class GenericCleaner;

class ParseNodeTERM : public ParseNode, public ICleanCallback {
 public:
  // `cleaner` may be null: the term then has no tokens (and is a phrase).
  ParseNodeTERM(const Str& text, const GenericCleaner* cleaner);

  void pushNOT() override { _isNegated = !_isNegated; }
  Str toString() const override;
  bool isTERM() const override { return true; }
  bool isLeaf() const override { return true; }
  bool getConjuncts(std::set<Str>& terms, std::set<Str>& optional) override;

  bool isNegated() const { return _isNegated; }
  // The lower-cased matching text. REQUIRES: !isNegated().
  const Str& termString() const;
  bool isPhrase() const { return _isPhrase; }
  // The literal text before the first star of the pattern (empty for a
  // phrase): every token this term can match begins with it.
  Str prefix() const { return _matcher->getPatternPrefix(); }
  // The text as it stood in the search (quotes and escapes included).
  const Str& originalText() const { return _text; }
  // Was the text enclosed in double quotes?
  bool isQuoted() const;
  const std::set<Str>& tokens() const { return _tokens; }

  bool isMatch(const char* text) const { return _matcher->isMatch(text); }
  // A token (or the raw text) of the event: on a match the value becomes
  // !isNegated. Does nothing once the value is known.
  void hit(const char* text) {
    if (!_hasValue && _matcher->isMatch(text)) setValue(!_isNegated);
  }
  // No (further) match is possible: a term still open becomes isNegated.
  void unhit() {
    if (!_hasValue) setValue(_isNegated);
  }

  // Collects the segments of the text (construction only).
  bool acceptToken(const char* term, size_t len, size_t start, size_t end) override;

  // The limit `min_prefix_len`, read once.
  static size_t minPrefixLen();

 private:
  Str _text;
  Str _match;
  std::unique_ptr<WildcardMatcher> _matcher;
  std::set<Str> _tokens;
  bool _isPhrase = false;
  bool _isNegated = false;
};
