// DataWrapper: one event read back from an index: where it lies, its raw
// text, its stored meta text and time, and the words of its host, source and
// source type (empty when the bucket no longer knows the code). A plain
// value, filled by DatabasePartitionPolicy::read.
#pragma once

#include <cstdint>

#include "pipeline/indexer/ValueWrapper.h"
#include "util/Str.h"

struct DataWrapper {
  ValueWrapper value;
  Str raw;
  Str meta;
  int32_t time = 0;
  Str host;
  Str source;
  Str sourceType;
  // "audit_valid", "audit_tampered" or "audit_cantValidate" once checked
  // against its block signature; empty when not checked.
  Str audit;
};
