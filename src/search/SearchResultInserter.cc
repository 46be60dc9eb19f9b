#include "search/SearchResultInserter.h"

#include <cstring>

#include "search/SearchResult.h"

void SearchResultInserter::handleToken(const char* token, size_t len) {
  // The separator must not stand at position 0: "::x" names no field.
  for (size_t i = 1; i + 1 < len; ++i) {
    if (token[i] == ':' && token[i + 1] == ':') {
      _key.assign(token, i);
      _value.assign(token + i + 2, len - i - 2);
      _row.setValue(_key, _value);
      if (_names) _names->push_back(_key);
      return;
    }
  }
}
