// SortSpec: the field specification of `sort` (and of `dedup ... sortby`).
//
// Parses the words that follow the options: an optional leading count, then
// fields, each optionally wrapped as auto(f), num(f), str(f) or ip(f), with a
// "+" or "-" in front of a field, or as a word of its own, setting the
// direction of the fields that follow; a trailing "desc" or "down" reverses
// every direction. toString() renders the sort keys back in a form that
// parse() reads again (used to build the streaming "presort" half).
//
// Faults throw SortSpecException with the user-facing text; the command
// wraps it in its own exception form. Plain value; one thread at a time.
#pragma once

#include <vector>

#include "search/processors/SortCompValue.h"
#include "util/Exceptions.h"
#include "util/Str.h"

VELMOR_DECLARE_EXCEPTION(SortSpecException, std::runtime_error);

class SortSpec {
 public:
  // REQUIRES: words already split into arguments (quotes removed).
  // `quoted[i]` says word i was quoted (a quoted word is always a field).
  void parse(const std::vector<Str>& words, const std::vector<bool>& quoted);

  Str toString() const;
  bool empty() const { return fields.empty(); }

  std::vector<Str> fields;
  std::vector<sort_type> types;
  std::vector<bool> ascending;
  unsigned long limit = 0;  // 0: no limit
};
