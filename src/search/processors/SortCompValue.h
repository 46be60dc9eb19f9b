// SortCompValue and rescomp_t: the flat comparison records of `sort`.
//
// A SortCompValue is one sort key of one row, parsed once before sorting so
// that comparisons never parse text: the text itself, the number it reads as
// (if it does) and the IPv4 address it reads as (if it does). A rescomp_t is
// one row prepared for sorting: its keys, the row pointer (not owned) and the
// row's original position, which breaks ties so that sorting is stable.
//
// Ordering, key by key: equal texts go on to the next key; a missing value
// sorts after a present one in either direction; `num` and `ip` keys put a
// parsed value before text in either direction; `str` compares bytes; `auto`
// compares addresses if both parse, else numbers if both parse, else bytes.
// Only the comparison proper is reversed by a descending key.
//
// Plain values; any thread may use its own.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "util/Str.h"

class SearchResult;

enum sort_type { auto_stype, number_stype, string_stype, ip_stype, none_stype };

class SortCompValue {
 public:
  SortCompValue() = default;

  // Fills the record from a present value (parses number and address as
  // the type needs) or, with value null, marks it missing.
  void set(const Str* value, sort_type type, bool ascending);

  // <0, 0, >0 as `a` sorts before, with, after `b` (same key of two rows).
  static int compare(const SortCompValue& a, const SortCompValue& b);

  // Whole-text parsers, exposed for tests. parseNumber accepts what strtod
  // reads with nothing left over (surrounding blanks allowed).
  static bool parseNumber(const Str& text, double& out);
  static bool parseIp(const Str& text, std::array<uint32_t, 4>& out);

  Str text;
  double num = 0;
  bool isNum = false;
  std::array<uint32_t, 4> ip{};
  bool isIp = false;
  sort_type type = auto_stype;
  bool ascending = true;
  bool missing = true;
};

struct rescomp_t {
  std::vector<SortCompValue> vals;
  SearchResult* res = nullptr;
  size_t pos = 0;

  bool operator<(const rescomp_t& other) const;
};
