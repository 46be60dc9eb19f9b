// CommonValueProcessor: `top` and `rare`, and their map halves `pretop` and
// `prerare`.
//
//   top|rare [<n>] [limit=<n>] [showcount=<bool>] [showperc=<bool>]
//            [countfield=<name>] [percentfield=<name>] <field>... [by <field>...]
//
// Counts each combination of the fields' values within each group of the
// `by` fields. A row lacking one of the fields or `by` fields, or holding an
// empty value there, is not counted. Values longer than `maxvaluesize` of
// the `top` stanza in `limits` are cut; a group keeps at most `maxvalues`
// combinations (0: no limit for either); later new combinations are counted
// in the group's total only, and a warning names the fields. Fields no
// row had are named in the usual missing-field warning.
//
// Output: groups in ascending order of their `by` values; within a group the
// combinations by count, largest first for top, smallest first for rare;
// equal counts keep the ascending byte order of their values (for both
// commands, so the order never depends on how the rows were chunked). Each
// group is cut at `limit` (default 10; 0 means the stanza's `maxresultrows`,
// a larger one fails). Columns: the `by` fields, the fields, `count` (unless
// showcount=false) and `percent` = count * 100 / rows counted in the group,
// "%f" (unless showperc=false); countfield= and percentfield= rename them.
//
// The map half writes, per group, one row with the `by` fields and
// `_cvtotal` (rows counted), then one row per combination: the `by` fields,
// the fields and `_cvcount`. The reduce half recognises such a chunk by
// these columns and adds the counts up, so `pretop x | top x` over any
// chunking equals `top x`.
// One thread at a time; the counts live in members between execute_input
// calls.
#pragma once

#include <map>
#include <set>
#include <vector>

#include "search/SearchProcessor.h"

class CommonValueProcessor : public SearchProcessor {
 public:
  explicit CommonValueProcessor(const Str& name);
  static SearchProcessor* create(const Str& name) { return new CommonValueProcessor(name); }

  bool isStreamable() const override { return _pre; }
  bool isTransforming() const override { return true; }
  // "pretop|prerare <field>... [by <field>...]".
  Str getStreamingOp() const override;
  void processArguments() override;
  // The map half: replaces the rows of one chunk by its count rows.
  void execute(SearchResults& results, SearchResultsInfo& info) override;
  void execute_input(SearchResults& results, SearchResultsInfo& info) override;
  void execute_output(SearchResults& results, SearchResultsInfo& info) override;

  unsigned long getLimit() const { return _limit; }

 private:
  typedef std::vector<Str> Key;
  struct Group {
    std::map<Key, unsigned long> counts;
    unsigned long total = 0;
  };
  // Adds the rows of one chunk (plain or map-half rows) to _groups.
  void countRows(SearchResults& results);
  // Adds n to a combination's count (not to the group's total).
  void add(const Key& group, const Key& values, unsigned long n);
  // The value cut to `maxvaluesize`, noting the limit.
  Str cut(const Str& v);
  void writeWarnings(SearchResultsInfo& info);

  bool _pre;
  bool _rare;
  unsigned long _limit = 10;
  bool _showCount = true;
  bool _showPerc = true;
  Str _countField = "count";
  Str _percField = "percent";
  std::vector<Str> _fields;
  std::vector<Str> _by;
  std::map<Key, Group> _groups;
  std::set<Str> _seen;  // fields some chunk knew, for the missing-field warning
  bool _valuesLimited = false;  // maxvalues or maxvaluesize was reached
};
