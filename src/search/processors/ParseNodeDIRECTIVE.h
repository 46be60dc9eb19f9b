// ParseNodeDIRECTIVE: a bare "OR" or "NOT" of the search text. It lives only
// between tree building and ParseNodeGROUP::associate, which replaces every
// directive by the structure it stands for. Owned by its group; one thread.
#pragma once

#include "search/processors/ParseNode.h"

class ParseNodeDIRECTIVE : public ParseNode {
 public:
  explicit ParseNodeDIRECTIVE(const Str& word) : _word(word) {}

  // REQUIRES: never called (a directive is never negated).
  void pushNOT() override;
  Str toString() const override { return _word; }
  bool isDIRECTIVE() const override { return true; }

  const Str& getWord() const { return _word; }
  bool isOR() const { return _word == "OR"; }
  bool isNOT() const { return _word == "NOT"; }

 private:
  Str _word;
};
