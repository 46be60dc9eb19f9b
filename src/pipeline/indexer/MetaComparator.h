// MetaComparator: the sort and dedupe key of events by one field, computed
// once per event as a string, so that plain string comparison of two keys
// gives the order of the field's values.
//
//   field            key
//   "time"           "0" + "%.16llx" of the time, shifted to unsigned
//   "host", "source", "sourcetype"
//                    "1" + the word of the event's code in its bucket, or,
//                    when the bucket no longer knows the code,
//                    "2" + "%.8lx" of the code
//   any other field  read from the event: the first "<field>::<value>" of
//                    its meta text, else of its raw text, else a
//                    "<field>=<value>" of its raw text (surrounding quotes
//                    dropped). A number gives "0" + "%.16llx" of an
//                    order-keeping coding of the double; other text "1" +
//                    the text.
//   no value         kMissing ("9")
//
// Ownership: keeps the policy pointer, which must outlive it; the policy is
// read only for "other" fields and code words. One thread at a time.
#pragma once

#include <vector>

#include "pipeline/indexer/ValueWrapper.h"
#include "util/Str.h"

class IPartitionPolicy;

class MetaComparator {
 public:
  static const char kMissing[];

  // REQUIRES: field is not empty. policy may be null (then only "time" has values).
  MetaComparator(const Str& field, IPartitionPolicy* policy) : _field(field), _policy(policy) {}

  // keys[i] becomes the key of ids[i].
  void computeKeys(const std::vector<ValueWrapper>& ids, std::vector<Str>& keys) const;
  static bool isMissing(const Str& key) { return key == kMissing; }
  // The key of a field value read from an event ("0"/"1" form).
  static Str valueKey(const Str& value);

 private:
  Str wordKey(const ValueWrapper& id) const;

  Str _field;
  IPartitionPolicy* _policy;
};
