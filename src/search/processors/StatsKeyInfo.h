// StatsKeyInfo: the accumulator of the statistics commands for one field in
// one group.
//
// addValue() takes each value the field has in a row of the group; the
// numeric work (sum, sum of squares, bounds, the kept numbers) goes on only
// while every value so far was a finite decimal number ("nan", "inf" and hex
// texts count as words, so the sort behind median never meets a NaN).
// writeResult() writes the asked functions into a result row: numbers with
// "%.*f" at the most decimal places any input had, ratios (avg, stdev, var,
// rate) with "%f"; only count and dc for a key that never saw a value.
// To keep the cost down the distinct map, the ordered list, the numbers and
// the time bounds are kept only when the options given at construction need
// them. writePrestats()/mergeEntry() carry the whole state through the
// intermediate rows of the map half (entry types listed at kEntryTypes).
// A plain value object owned by its group; one thread.
#pragma once

#include <map>
#include <vector>

#include "search/processors/StatsInclOptions.h"
#include "util/Str.h"

class SearchResult;

// Per-value limits of the `stats` stanza; 0 means no limit.
struct StatsLimits {
  unsigned long maxvalues = 10000;
  unsigned long maxvaluesize = 1000;
};

class StatsKeyInfo {
 public:
  static constexpr double kUnset = -9.99e+99;

  StatsKeyInfo() = default;
  StatsKeyInfo(const StatsInclOptions& opts, const StatsLimits& limits);

  void addValue(const Str& value);
  // Counts a row without a value: the row count of a group.
  void addRow() { ++_count; }
  void addRows(unsigned long n) { _count += n; }
  // Widens the time bounds (rate).
  void addTime(double t);
  // REQUIRES: `out` has a parent (names are interned there).
  void writeResult(SearchResult& out, const StatsInclOptions& opts) const;

  // One intermediate entry: a type (see kEntryTypes), a number text and/or
  // a string.
  struct Entry {
    const char* type;
    Str num;
    Str str;
    bool hasNum;
    bool hasStr;
  };
  void writePrestats(std::vector<Entry>& out) const;
  // Folds one entry read back from the map half. Answers 0 on success, else
  // the reason: 1 bad type, 2 missing num/str for the type, 3 a num that is
  // not a number, 4 a count that is not a count.
  int mergeEntry(const Str& type, const Str* num, const Str* str);

  unsigned long count() const { return _count; }
  bool allNumeric() const { return _allNumeric; }
  unsigned decimals() const { return _decimals; }
  bool limitReached() const { return _limitReached; }
  double sum() const { return _sum; }
  const std::map<Str, unsigned long>& distinct() const { return _distinct; }
  const std::vector<double>& numbers() const { return _numbers; }

  // Statistics over a vector: sum of squared differences from the mean over
  // n - 1 (var) and n (varp); 0 for n <= 1 (var) or n == 0 (varp).
  static double var(const std::vector<double>& v);
  static double varp(const std::vector<double>& v);
  // Decimal places of a number text ("1.50" -> 2, "3" -> 0, "1.5e3" -> 1).
  static unsigned decimalsOf(const Str& text);
  // A finite decimal number making up the whole text.
  static bool parseNumber(const Str& text, double& out);

 private:
  void addString(const Str& v);
  void addNumber(double d, unsigned dec);
  void addDistinct(const Str& v, unsigned long n);
  double varFromSums(bool population) const;
  Str fmtNum(double d) const;

  unsigned long _count = 0;
  double _sum = 0;
  double _sumsq = 0;
  bool _allNumeric = true;
  unsigned _decimals = 0;
  std::map<Str, unsigned long> _distinct;
  unsigned long _distinctTotal = 0;  // sum of the map's counts
  std::vector<double> _numbers;
  double _numMin = kUnset;
  double _numMax = kUnset;
  Str _strMin, _strMax, _first, _last;
  bool _haveStr = false;
  std::vector<Str> _list;
  double _tMin = kUnset;
  double _tMax = kUnset;
  bool _limitReached = false;

  bool _keepNumbers = false;
  bool _keepDistinct = false;
  bool _keepList = false;
  StatsLimits _limits;
};
