#include "search/processors/SearchTermCallback.h"

#include <algorithm>
#include <cstring>

#include "search/processors/ParseNodeTERM.h"

SearchTermCallback::SearchTermCallback(const std::vector<ParseNode*>& leaves) {
  _trie.emplace_back();
  std::fill(std::begin(_trie[0].child), std::end(_trie[0].child), 0);
  for (ParseNode* leaf : leaves) {
    if (!leaf->isTERM()) continue;
    auto* term = static_cast<ParseNodeTERM*>(leaf);
    Str prefix = term->prefix();
    if (prefix.empty()) {
      _rawLeaves.push_back(term);
      continue;
    }
    size_t node = 0;
    for (size_t i = 0; i < prefix.size() && i < kMaxDepth; ++i) {
      unsigned char c = static_cast<unsigned char>(prefix[i]);
      if (_trie[node].child[c] == 0) {
        _trie.emplace_back();
        std::fill(std::begin(_trie.back().child), std::end(_trie.back().child), 0);
        _trie[node].child[c] = static_cast<int32_t>(_trie.size() - 1);
      }
      node = static_cast<size_t>(_trie[node].child[c]);
    }
    _trie[node].leaves.push_back(term);
    _trieLeaves.push_back(term);
  }
}

bool SearchTermCallback::acceptToken(const char* term, size_t len, size_t, size_t) {
  size_t node = 0;
  for (size_t i = 0; i < len && i < kMaxDepth; ++i) {
    int32_t next = _trie[node].child[static_cast<unsigned char>(term[i])];
    if (next == 0) break;
    node = static_cast<size_t>(next);
    for (ParseNodeTERM* leaf : _trie[node].leaves) leaf->hit(term);
  }
  return true;
}

void SearchTermCallback::unhitAll() {
  for (ParseNodeTERM* leaf : _trieLeaves) leaf->unhit();
}
