// KVInserter: what the extraction rules (KVRegex, KVParser, the automatic
// scanner) hand their key/value pairs to. The rules know nothing about rows;
// the implementation decides where a pair goes and whether it is taken.
// The segments are valid only during the call. One thread at a time.
#pragma once

#include "util/StrSegment.h"

class KVInserter {
 public:
  virtual ~KVInserter() = default;
  // Offers one pair. `takeLastWord`: the key may be a phrase of which only
  // the last word names the field (see KVTransformer::cleanKey). Answers 1
  // when the pair was stored, 0 when it was refused.
  virtual int insert(const StrSegment& key, const StrSegment& value, bool takeLastWord) = 0;
  // True once no further pair can be taken (a limit was reached), so that a
  // rule may stop early.
  virtual bool full() const = 0;
};
