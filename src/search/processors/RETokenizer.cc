#include "search/processors/RETokenizer.h"

#include "util/RE.h"

namespace {

const RE& separatorRE() {
  static const RE re("^(.*?)(\\s+|\\(|\\)|(?<!\\\\)\".*?(?<!\\\\)\"|!?=|[<>]=?)");
  return re;
}

const RE& operatorRE() {
  static const RE re("!?=|[<>]=?");
  return re;
}

}  // namespace

bool RETokenizer::isOperator(const Str& token) { return operatorRE().FullMatch(token); }

RETokenizer::RETokenizer(const StringPiece& text) {
  StringPiece rest = text;
  StringPiece word, sep;
  while (rest.size() > 0 && separatorRE().Consume(&rest, &word, &sep)) {
    if (word.size() > 0) _tokens.emplace_back(word.data(), word.size());
    if (sep.size() > 0 && sep.data()[0] != ' ') _tokens.emplace_back(sep.data(), sep.size());
  }
  if (rest.size() > 0 || (!_tokens.empty() && isOperator(_tokens.back()))) _tokens.emplace_back(rest.data(), rest.size());
}
