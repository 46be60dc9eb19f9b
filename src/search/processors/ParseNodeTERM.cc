#include "search/processors/ParseNodeTERM.h"

#include <cassert>
#include <cstring>

#include "pipeline/indexer/GenericCleaner.h"
#include "search/SLLimits.h"

namespace {

bool quoted(const Str& s) { return s.size() >= 2 && s.front() == '"' && s.back() == '"'; }

// "\x" becomes "x" throughout.
Str unescape(const Str& s) {
  Str out;
  out.reserve(s.size());
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '\\' && i + 1 < s.size()) ++i;
    out.push_back(s[i]);
  }
  return out;
}

}  // namespace

size_t ParseNodeTERM::minPrefixLen() {
  static const size_t len = [] {
    unsigned long v = 2;
    SL::getLimit("search", "min_prefix_len", v);
    return static_cast<size_t>(v);
  }();
  return len;
}

ParseNodeTERM::ParseNodeTERM(const Str& text, const GenericCleaner* cleaner) : _text(text) {
  Str t = quoted(text) ? Str(text.substr(1, text.size() - 2)) : text;
  t = unescape(t);
  if (cleaner) cleaner->tokenize(StrSegment(t.data(), t.size()), *this);
  _isPhrase = !(_tokens.size() == 1 && _tokens.begin()->size() == t.size());
  _match = lowercase(StrSegment(t.data(), t.size()));
  if (_isPhrase) _match = "*" + _match + "*";
  _matcher = std::make_unique<WildcardMatcher>(StrSegment(_match.data(), _match.size()));
}

bool ParseNodeTERM::isQuoted() const { return quoted(_text); }

const Str& ParseNodeTERM::termString() const {
  assert(!_isNegated);
  return _match;
}

bool ParseNodeTERM::acceptToken(const char* term, size_t len, size_t, size_t) {
  const char* star = static_cast<const char*>(std::memchr(term, '*', len));
  if (star == nullptr || static_cast<size_t>(star - term) >= minPrefixLen()) _tokens.emplace(term, len);
  return true;
}

Str ParseNodeTERM::toString() const {
  Str s = _isNegated ? "NOT " : "";
  s += _isPhrase ? "PHRASE(" : "TERM(";
  s += _match;
  s += ")";
  return s;
}

bool ParseNodeTERM::getConjuncts(std::set<Str>& terms, std::set<Str>& optional) {
  bool wildcard = _match.find('*') != Str::npos;
  if (!_isPhrase && !wildcard) {
    (_isNegated ? optional : terms).insert(_match);
    return true;
  }
  if (!_isNegated) terms.insert(_tokens.begin(), _tokens.end());
  return false;
}
