#include "search/processors/ParseNodeCMP.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "libbundle/PropertiesMap.h"
#include "libbundle/PropertyPages.h"
#include "pipeline/indexer/GenericCleaner.h"
#include "search/SearchResults.h"

namespace {

Str unquote(const Str& s) {
  if (s.size() >= 2 && s.front() == '"' && s.back() == '"') return s.substr(1, s.size() - 2);
  return s;
}

Str unescape(const Str& s) {
  Str out;
  out.reserve(s.size());
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '\\' && i + 1 < s.size()) ++i;
    out.push_back(s[i]);
  }
  return out;
}

// The whole of [p, p+len) as a number; false if strtod stops early or fails.
bool parseNumber(const char* p, size_t len, double& out) {
  if (len == 0 || len > 255) return false;
  char buf[256];
  std::memcpy(buf, p, len);
  buf[len] = '\0';
  char* end = nullptr;
  errno = 0;
  out = std::strtod(buf, &end);
  return errno == 0 && end == buf + len;
}

}  // namespace

ParseNodeCMP::ParseNodeCMP(const Str& op) : _op(op) {
  _orLT = op == "<" || op == "<=" || op == "!=";
  _orGT = op == ">" || op == ">=" || op == "!=";
  _orEQ = op == "=" || op == "<=" || op == ">=";
}

void ParseNodeCMP::pushNOT() {
  _orLT = !_orLT;
  _orGT = !_orGT;
  _orEQ = !_orEQ;
  _op = opString();
}

Str ParseNodeCMP::opString() const {
  if (_orLT && _orGT) return _orEQ ? "<=>" : "!=";
  if (_orLT) return _orEQ ? "<=" : "<";
  if (_orGT) return _orEQ ? ">=" : ">";
  return _orEQ ? "=" : "<>";
}

Str ParseNodeCMP::toString() const {
  Str s = "CMP(" + _key + opString() + _value;
  if (_isNumeric) s += " num";
  if (_isIndexed) s += " indexed";
  if (_isIndexedValue) s += " indexedvalue";
  if (_tokenizer) s += " tokenized";
  s += ")";
  return s;
}

void ParseNodeCMP::setSides(const Str& left, const Str& right, const GenericCleaner* cleaner) {
  _hasSides = true;
  _key = unescape(unquote(left));
  if (right.empty()) return;
  _isNumeric = parseNumber(right.data(), right.size(), _number);
  _value = lowercase(unescape(unquote(right)));
  if (_orLT != _orGT) return;
  _matcher = std::make_unique<WildcardMatcher>(StrSegment(_value.data(), _value.size()));
  // The key's stanza over [default]: a key without a stanza of its own
  // takes the defaults (INDEXED_VALUE = true ships there, so that a search
  // of key=value looks up the value's words).
  PropertiesMap stanza;
  PropertyPages::instance("fields").fillLayers(stanza, _key, false);
  Str pattern;
  if (PropertyPages::layeredFind("TOKENIZER", stanza, pattern) && !pattern.empty()) {
    auto re = std::make_unique<RE>(pattern);
    // An invalid expression is dropped without a message.
    if (re->error().empty() && re->NumberOfCapturingGroups() >= 1) _tokenizer = std::move(re);
  }
  bool flag = false;
  if (PropertyPages::layeredFind("INDEXED", stanza, flag)) _isIndexed = flag;
  flag = false;
  if (PropertyPages::layeredFind("INDEXED_VALUE", stanza, flag)) _isIndexedValue = flag;
  if (_isIndexedValue && cleaner) cleaner->tokenize(StrSegment(_value.data(), _value.size()), *this);
}

bool ParseNodeCMP::acceptToken(const char* term, size_t len, size_t, size_t) {
  _tokens.emplace(term, len);
  return true;
}

Str ParseNodeCMP::toIndex() const { return lowercase(_key + "::" + _value); }

bool ParseNodeCMP::getConjuncts(std::set<Str>& terms, std::set<Str>& optional) {
  if (_orLT != _orGT) return false;  // only "=" and "!="
  if (_isIndexed) {
    if (_orEQ) {
      terms.insert(toIndex());
      return true;
    }
    // A "!=" pair is no exclusion: a row without the field fails it too.
    (void)optional;
    return false;
  }
  if (_isIndexedValue && _orEQ) terms.insert(_tokens.begin(), _tokens.end());
  return false;
}

void ParseNodeCMP::setKeyIndex(SearchResults& results) { _keyIndex = results.keyIndex(_key, true); }

void ParseNodeCMP::evaluate(SearchResult* row) {
  if (_hasValue) return;
  const Str* field = row->getValuePtr(_keyIndex);
  if (field == nullptr) return;  // missing matches neither "=" nor "!="
  double number;
  if (_tokenizer) {
    StringPiece input(field->data(), field->size());
    StringPiece element;
    while (input.size() > 0) {
      const char* before = input.data();
      if (!_tokenizer->FindAndConsume(&input, &element)) break;
      if (_isNumeric && parseNumber(element.data(), element.size(), number) && number == _number) {
        setValue(_orEQ);
        return;
      }
      _scratch.assign(element.data(), element.size());
      lowercaseInPlace(_scratch);
      if (_matcher && _matcher->isMatch(_scratch.c_str())) {
        setValue(_orEQ);
        return;
      }
      // An empty match moves nothing: step over one byte.
      if (input.data() == before && input.size() > 0) input.remove_prefix(1);
    }
    setValue(!_orEQ);
    return;
  }
  if (_isNumeric && parseNumber(field->data(), field->size(), number)) {
    compare(number < _number ? -1 : (number > _number ? 1 : 0));
    return;
  }
  _scratch.assign(field->data(), field->size());
  lowercaseInPlace(_scratch);
  if (_matcher) {
    setValue(_matcher->isMatch(_scratch.c_str()) ? _orEQ : !_orEQ);
    return;
  }
  int c = std::strcmp(_scratch.c_str(), _value.c_str());
  compare(c);
}
