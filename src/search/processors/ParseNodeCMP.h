// ParseNodeCMP: a comparison of a field with a value ("x=1", "size>10",
// "host::web"), checked against the fields of a row.
//
// The operator is three flags: "<" is LT, ">" GT, "<=" LT+EQ, ">=" GT+EQ,
// "=" EQ, "!=" LT+GT; negation flips all three. "=" and "!=" match the value
// as a case-insensitive wildcard pattern; when the field's stanza in the
// `fields` property file has a TOKENIZER, each element it cuts from the
// field is tried in turn. When both sides are numbers the comparison is
// numeric ("x=1" holds for "1.0" and "01"); inequalities on text compare
// bytes. A row without the field leaves the node without a value, so it
// matches neither "=" nor "!=".
//
// `fields` also says whether the pair is in the index as "key::value"
// (INDEXED, and always for the "key::value" form of a search) or its value's
// tokens are (INDEXED_VALUE).
//
// Ownership: owned by its group; matcher and tokenizer are owned here. One
// thread.
#pragma once

#include <memory>
#include <set>

#include "pipeline/indexer/ICleanCallback.h"
#include "search/SearchResult.h"
#include "search/processors/ParseNode.h"
#include "util/RE.h"
#include "util/WildcardMatcher.h"

class GenericCleaner;
class SearchResults;

class ParseNodeCMP : public ParseNode, public ICleanCallback {
 public:
  // `op` is one of "<", ">", "<=", ">=", "=", "!=".
  explicit ParseNodeCMP(const Str& op);

  void pushNOT() override;
  Str toString() const override;
  bool isCMP() const override { return true; }
  bool isLeaf() const override { return true; }
  bool getConjuncts(std::set<Str>& terms, std::set<Str>& optional) override;

  // Takes the two sides as they stood in the search (quotes and escapes
  // included). `cleaner` (may be null) segments an INDEXED_VALUE value.
  void setSides(const Str& left, const Str& right, const GenericCleaner* cleaner);
  // Have the sides been given (the operator alone has none)?
  bool hasSides() const { return _hasSides; }
  void setIndexed(bool indexed) { _isIndexed = indexed; }
  bool isIndexed() const { return _isIndexed; }
  // "key::value", lower case: the pair as the index holds it.
  Str toIndex() const;
  const Str& getVal() const { return _value; }
  const Str& getKey() const { return _key; }
  bool isLT() const { return _orLT; }
  bool isGT() const { return _orGT; }
  bool isEQ() const { return _orEQ; }
  bool isNumeric() const { return _isNumeric; }
  double numericValue() const { return _number; }
  // The operator the flags stand for now.
  Str opString() const;

  // Interns the key in `results` (created if missing).
  void setKeyIndex(SearchResults& results);
  // Decides the value from the row unless it is known already.
  // REQUIRES: setKeyIndex on the row's results.
  void evaluate(SearchResult* row);

  bool acceptToken(const char* term, size_t len, size_t start, size_t end) override;

 private:
  void compare(int sign) { setValue((_orLT && sign < 0) || (_orGT && sign > 0) || (_orEQ && sign == 0)); }

  bool _orLT = false;
  bool _orGT = false;
  bool _orEQ = false;
  sr_index_t _keyIndex = 0;
  bool _hasSides = false;
  bool _isNumeric = false;
  bool _isIndexed = false;
  bool _isIndexedValue = false;
  double _number = 0;
  std::unique_ptr<WildcardMatcher> _matcher;
  Str _op;
  Str _key;
  Str _value;
  std::set<Str> _tokens;
  std::unique_ptr<RE> _tokenizer;
  Str _scratch;  // lower-cased field value, reused across rows
};
