// StatsProcessor: `stats` (also `statistics`) and its map half `prestats`.
//
//   stats [<func>(<field>) [as <name>]]... [by <field>...]
//
// Functions and the default/all sets are those of StatsInclOptions. `count`
// or `c` alone (or with empty parentheses) counts the rows of the group; any
// other function with empty parentheses means `*`. A `*` in a field is a
// wildcard over the columns of the rows (a column whose name starts with
// "_" matches only a pattern that starts with "_"; `by` fields never match)
// and each `*` of a rename takes the text the corresponding wildcard matched.
// A result is named "<func>(<field>)" with the function name as written but
// in lower case ("Avg(x)" gives "avg(x)"), unless renamed. Plain rows that
// carry a `_key` column are taken for intermediate rows (see below).
//
// Groups are the combinations of the `by` values; a row lacking one of them
// is skipped. Output is one row per group in key order: the `by` fields,
// then the results. Without `by` there is always exactly one row, also over
// no rows at all.
//
// Limits, stanza `stats` of the limits file: maxresultrows (groups; falls
// back on the searchresults value), maxvalues, maxvaluesize. Past the group
// limit the groups that come first in key order are kept, whatever the
// arrival order, so the map half and the reduce half agree; a warning says
// so at the end, as does one per field that hit a value limit.
//
// `prestats` (internal) runs on each chunk of the streaming side and writes,
// for every group and field, a block of rows holding the by values and the
// hidden columns `_key` (the field, "" for the row count), `vt` (the entry
// type), `num` and `str`; see StatsKeyInfo::writePrestats. The reduce side
// recognises such rows by their `_key` column and merges them; faults there
// are the "Corrupt information from pre-stats: ..." errors.
//
// State lives in the members between execute_input calls; one thread.
#pragma once

#include <map>
#include <memory>
#include <unordered_map>
#include <vector>

#include "search/SearchProcessor.h"
#include "search/processors/StatsInclOptions.h"
#include "search/processors/StatsKeyInfo.h"

class SearchResult;

class StatsProcessor : public SearchProcessor {
 public:
  explicit StatsProcessor(const Str& name);
  static SearchProcessor* create(const Str& name) { return new StatsProcessor(name); }

  bool isStreamable() const override { return _streaming; }
  bool isTransforming() const override { return true; }
  // "prestats " and the aggregation text and `by` clause as given.
  Str getStreamingOp() const override;
  void processArguments() override;
  // The map half: reduces one chunk into its intermediate rows.
  void execute(SearchResults& results, SearchResultsInfo& info) override;
  void execute_input(SearchResults& results, SearchResultsInfo& info) override;
  void execute_output(SearchResults& results, SearchResultsInfo& info) override;

  // Producers that count events without making rows (the index reader
  // counting by host, source or source type). countsOnly(): every function
  // counts rows (`count` or `c` without a field), so the map half needs the
  // number of rows per group and nothing else.
  bool countsOnly() const;
  // The map half over counted rows: per group, the values of the `by`
  // fields in order and its number of rows. Writes the intermediate rows
  // execute() would write for rows like those, group limit included.
  // REQUIRES: countsOnly() and the streaming form (`prestats`).
  typedef std::vector<std::pair<std::vector<Str>, unsigned long>> GroupCounts;
  void executeCounts(const GroupCounts& counts, SearchResults& results, SearchResultsInfo& info);

  // Whether `results` holds rows written by prestats.
  static bool isPreStatResults(const SearchResults& results);
  // Warn at the end when every `by` field was missing from the input.
  void setWarnMissing(bool on) { _warnMissing = on; }
  const std::vector<Str>& getByFields() const { return _by; }

  // The limits of stanza `stats`, read once; reload re-reads them.
  static StatsLimits getLimits(bool reload = false);
  static size_t getMaxGroups(bool reload = false);

  static const Str KeyField;   // "_key"
  static const Str TypeField;  // "vt"
  static const Str NumField;   // "num"
  static const Str StrField;   // "str"

 private:
  struct Spec {
    Str funcText;  // as written, for the default name
    StatsFunc func = SF_COUNT;
    unsigned perc = 0;
    Str field;  // "" = rows of the group
    Str rename;
    bool argSet = false;
  };
  struct Group {
    std::vector<StatsKeyInfo> keys;  // by slot; slot 0 counts rows
  };
  typedef std::map<std::vector<Str>, Group> GroupMap;
  struct FlatHash {
    size_t operator()(const Str& k) const;
  };

  void parseSpec(const Str& word);
  // The slot of a field (made on first use), or -1 if no spec wants it.
  long slotFor(const Str& field);
  Group* findGroup(const std::vector<Str>& key);
  // The same by the values themselves (no copy unless the group is new).
  Group* findGroup(const std::vector<const Str*>& values);
  // The flat form of a key: each value as its 4-byte length, then its
  // bytes; one string, so that a lookup hashes and compares one buffer.
  static void flatKey(const std::vector<const Str*>& values, Str& out);
  StatsKeyInfo& keyInfo(Group& g, size_t slot);
  void readRows(SearchResults& results);
  void readPrestats(SearchResults& results);
  void writePrestats(SearchResults& results);
  void warnGroupLimit(SearchResultsInfo& info) const;

  bool _streaming;
  bool _warnMissing = true;
  std::vector<Spec> _specs;
  std::vector<Str> _by;
  std::vector<Str> _words;  // the arguments as given, for getStreamingOp

  std::map<Str, long> _slotOf;
  std::vector<Str> _slotField;
  std::vector<StatsInclOptions> _slotOpts;
  GroupMap _groups;  // in key order, for the output
  // The same groups by the hash of their flat keys: the lookup of every row
  // goes here.
  std::unordered_map<Str, GroupMap::iterator, FlatHash> _index;  // by flat key
  Str _flat;                                   // scratch of findGroup
  std::vector<const Str*> _valuePtrs;          // scratch of findGroup
  StatsLimits _limits;
  size_t _maxGroups = 0;
  bool _groupLimitHit = false;
  bool _warnedLimit = false;  // the map half warned already
  bool _sawBy = false;    // some input knew a `by` field
  bool _sawRows = false;  // some input had rows
};
