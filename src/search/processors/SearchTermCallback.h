// SearchTermCallback: hands the tokens of an event to the terms of a search
// that can match them, in one pass of the event cleaner.
//
// A byte-indexed trie holds each token-matched term at the node of its fixed
// prefix (the text before its first star, cut to kMaxDepth bytes). A token
// walks the trie from its first byte and every term met on the way is tried
// against it, so the cost depends on the event's tokens, not on the number
// of terms. Terms without a fixed prefix (phrases, leading stars) cannot be
// found through tokens: they are listed apart and matched against the whole
// raw text.
//
// Ownership: the terms belong to the tree; this object only points at them
// and must not outlive it. One thread (acceptToken changes the terms'
// values).
#pragma once

#include <cstdint>
#include <vector>

#include "pipeline/indexer/ICleanCallback.h"

class ParseNode;
class ParseNodeTERM;

class SearchTermCallback : public ICleanCallback {
 public:
  static const size_t kMaxDepth = 16;

  // Takes the term leaves among `leaves`; comparisons are passed over.
  explicit SearchTermCallback(const std::vector<ParseNode*>& leaves);

  bool acceptToken(const char* term, size_t len, size_t start, size_t end) override;

  // unhit() on every term reached through the trie.
  void unhitAll();
  const std::vector<ParseNodeTERM*>& trieLeaves() const { return _trieLeaves; }
  const std::vector<ParseNodeTERM*>& rawLeaves() const { return _rawLeaves; }

 private:
  struct Node {
    int32_t child[256];
    std::vector<ParseNodeTERM*> leaves;
  };
  std::vector<Node> _trie;
  std::vector<ParseNodeTERM*> _trieLeaves;
  std::vector<ParseNodeTERM*> _rawLeaves;
};
