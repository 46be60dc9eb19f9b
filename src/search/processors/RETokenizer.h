// RETokenizer: cuts the text of a search into the tokens the tree is built
// from: words, double-quoted runs (a backslash-escaped quote does not end
// one), "(", ")", and the operators "=", "!=", "<", "<=", ">", ">=".
//
// Runs of white space that begin with a blank separate tokens and vanish;
// a run that begins with a tab or a newline is a token of its own (and so,
// later, a term). The text after the last separator is the last token; when
// it is empty it is kept only after an operator, so that "a=" compares with
// an empty right side.
//
// Immutable after construction; any thread.
#pragma once

#include <vector>

#include "util/Str.h"
#include "util/StringPiece.h"

class RETokenizer {
 public:
  explicit RETokenizer(const StringPiece& text);

  const std::vector<Str>& tokens() const { return _tokens; }

  // Is the token one of the comparison operators?
  static bool isOperator(const Str& token);

 private:
  std::vector<Str> _tokens;
};
