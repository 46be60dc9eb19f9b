// SearchResultInserter: an ITokenHandler that turns "key::value" tokens into
// fields of one row. The token is split at its first "::" found at a position
// other than 0; the text before names the field (interned in the row's
// parent), the rest is the value. Tokens without such a separator are
// ignored. When a name vector is given, every field name set is appended to
// it. The row and the vector are borrowed; one thread at a time.
// REQUIRES: the row has a parent.
#pragma once

#include <vector>

#include "search/ITokenHandler.h"
#include "util/Str.h"

class SearchResult;

class SearchResultInserter : public ITokenHandler {
 public:
  explicit SearchResultInserter(SearchResult& row, std::vector<Str>* names = nullptr)
      : _row(row), _names(names) {}
  void handleToken(const char* token, size_t len) override;

 private:
  SearchResult& _row;
  std::vector<Str>* _names;
  Str _key;    // scratch, reused between tokens
  Str _value;  // scratch
};
