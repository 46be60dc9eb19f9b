// HeadProcessor: `head`, `tail`, `reverse` and the streaming `prehead`.
//
//   head [n]   keeps the first n rows (default 10)
//   tail [n]   reverses all rows, then keeps the first n (default 10)
//   reverse    reverses and keeps all
//   prehead n  the streaming form: counts across calls and, once the limit
//              is reached, sets "results complete" so the producer stops.
// Over spill files the count runs across files: for tail/reverse the file
// list is reversed too; the file that reaches the limit is trimmed and the
// later files are dropped.
// One thread at a time.
#pragma once

#include "search/SearchProcessor.h"

class HeadProcessor : public SearchProcessor {
 public:
  HeadProcessor(const Str& name, bool reverse, unsigned long limit);
  static SearchProcessor* create(const Str& name);

  bool isStreamable() const override { return _streaming; }
  // "prehead <n>" for head only.
  Str getStreamingOp() const override;
  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;
  // `head n` and `prehead n` look at their first n rows only.
  long inputRowLimit() const override { return !_reverse && _limit > 0 ? long(_limit) : -1; }

 private:
  // Reverses (if asked) and trims the in-memory rows to what is still
  // allowed; answers how many rows were kept.
  size_t trim(SearchResults& results, size_t allowed);

  bool _reverse;
  bool _streaming;
  unsigned long _limit;  // 0: all
  size_t _seen = 0;      // rows passed so far (prehead, across calls)
};
