// QueryCancelChecker: asks whether the search of a cancel id was cancelled.
// The query engine and the policies' read loops poll it between blocks.
//
// Threads: implementations must allow calls from any thread.
#pragma once

#include "util/Str.h"

class QueryCancelChecker {
 public:
  virtual ~QueryCancelChecker() = default;
  // Non-zero once the search of that id was cancelled.
  virtual int isQueryCancelled(const Str& cancelId) = 0;
};
