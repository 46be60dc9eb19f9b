// QSMSetAcceptor: collects the segments GenericCleaner::tokenize finds in a
// search token: the distinct segments as an ordered set, and the spans of
// the outer ones (segments not lying inside another segment: the whole
// words, where the minor segments of "10.1.2.3" lie inside it).
//
// A plain collector for one tokenize call; one thread.
#pragma once

#include <algorithm>
#include <cstddef>
#include <set>
#include <utility>
#include <vector>

#include "pipeline/indexer/GenericCleaner.h"
#include "pipeline/indexer/ICleanCallback.h"
#include "util/Str.h"

class QSMSetAcceptor : public ICleanCallback {
 public:
  bool acceptToken(const char* term, size_t len, size_t start, size_t end) override {
    _words.insert(Str(term, len));
    _spans.emplace_back(start, end);
    return true;
  }

  const std::set<Str>& words() const { return _words; }

  // [start, end) of each outer segment, in text order, each once.
  std::vector<std::pair<size_t, size_t>> outerSpans() const {
    std::vector<std::pair<size_t, size_t>> s = _spans;
    // Longest first among equal starts, so that an outer span comes before
    // the segments inside it.
    std::sort(s.begin(), s.end(), [](const auto& a, const auto& b) {
      return a.first != b.first ? a.first < b.first : a.second > b.second;
    });
    std::vector<std::pair<size_t, size_t>> out;
    for (const auto& sp : s)
      if (out.empty() || sp.second > out.back().second) out.push_back(sp);
    return out;
  }

  // The distinct words of a lowercased search token as the index holds
  // them: its outer segments, cut by cleaner. A star joins the word it
  // touches (a wildcard of that word), and a word of stars alone is none.
  static std::vector<Str> searchWords(const GenericCleaner& cleaner, const Str& lower) {
    Str probe = lower;
    std::replace(probe.begin(), probe.end(), '*', 'x');
    QSMSetAcceptor acceptor;
    cleaner.tokenize(StrSegment(probe), acceptor);
    std::set<Str> distinct;
    for (const auto& [from, to] : acceptor.outerSpans()) {
      Str w = lower.substr(from, to - from);
      if (w.find_first_not_of('*') != Str::npos) distinct.insert(w);
    }
    return std::vector<Str>(distinct.begin(), distinct.end());
  }

 private:
  std::set<Str> _words;
  std::vector<std::pair<size_t, size_t>> _spans;
};
