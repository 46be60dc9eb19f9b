// KVTransformer: the `kv` command (also `extract`): adds to each row the
// fields that the extraction rules of its source give.
//
//   kv [limit=<n>] [maxchars=<n>] [reload=<bool>] [segment=<bool>]
//      [kvdelim=<chars>] [pairdelim=<chars>] [auto | <transform>...]
//
// Rules. For a row, the configuration key is
//   "source::<source>|host::<host>|sourcetype::<sourcetype>"
// and the `props` stanzas are merged in that order: a source stanza
// (patterns allowed) wins over a host stanza, which wins over the source
// type's, and the "default" stanza comes last - the same order the
// ingestion side uses for TRANSFORMS-. Of the merged stanza:
//   KV_MODE   "none": nothing is extracted; a value beginning with "multi"
//             (any case): the event is a table and becomes one row per
//             table line (MultiKVTransformer, under "__auto_mkv__");
//             anything else, or no value: "auto".
//   REPORT*   every key whose name begins with "REPORT", in the byte order
//             of the key names, names `transforms` stanzas (comma-separated)
//             applied in that order: REGEX/FORMAT stanzas become KVRegex
//             rules, DELIMS/FIELDS stanzas KVParser rules; SOURCE_KEY names
//             the field read instead of _raw. A stanza that fails to
//             initialise is logged and left out.
// In mode "auto" the rules run first and the automatic key=value scanner
// (KVScanner: key=value and key="quoted value" at word starts, keys that
// begin with "_" passed over) runs last. Words after the options name
// transforms stanzas to apply instead of the props rules ("auto", the
// default, means the props rules); kvdelim/pairdelim make one KVParser,
// "cmd_delim_kv", which replaces all other rules (pairdelim defaults to
// white space, kvdelim to "="). "segment" is accepted and has no effect:
// rows carry no segmented copy of their text, so the text itself is read.
//
// Per row: a row that has `_kv` is passed over (so `kv | kv` does nothing
// the second time); at most `maxchars` (10240) bytes of each source field
// are read; at most `limit` (50, and never more than "maxcols" of the
// stanza "kv" of `limits`, 512) fields are added, the first ones in rule
// and text order; a field the row has keeps its value; then `_kv` = "1".
// Keys go through cleanKey(). Names that cleaning changed are reported
// once per run, at INFO in the log and in the search's INFO messages.
//
// Rule lists are built once per configuration key and kept in a process-wide
// cache (guarded by a mutex; the lists are immutable and shared), until a
// `kv reload=true` drops the cache and re-reads props and transforms. The
// command itself belongs to one thread. Streamable.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <vector>

#include "search/SearchProcessor.h"
#include "search/SearchResult.h"
#include "util/Str.h"

class KVRegex;
class KVParser;
class MultiKVTransformer;
class PropertiesMap;
class ResultInserter;
class SearchResults;
class SearchResultsInfo;

class KVTransformer : public SearchProcessor {
 public:
  enum Mode { MODE_NONE, MODE_AUTO, MODE_MULTI };

  // One rule: exactly one of the two is set.
  struct Rule {
    std::shared_ptr<const KVRegex> regex;
    std::shared_ptr<const KVParser> parser;
    const Str& sourceKey() const;
    int matchAndInsert(const StrSegment& text, ResultInserter& ins) const;
  };
  struct RuleList {
    Mode mode = MODE_AUTO;
    std::vector<Rule> rules;
  };
  typedef std::shared_ptr<const RuleList> RuleListPtr;

  explicit KVTransformer(const Str& name);
  ~KVTransformer() override;
  static SearchProcessor* create(const Str& name) { return new KVTransformer(name); }

  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

  // Makes a field name of an extracted key (see the steps in the .cc).
  static void cleanKey(Str& key, bool takeLastWord);

  // The configuration key of a row, from its source, host and sourcetype
  // fields (indices may be 0).
  static void getConf(const SearchResult& row, sr_index_t source, sr_index_t host, sr_index_t sourceType,
                      Str& out);
  // The cached rule list of a configuration key; built on first use.
  static RuleListPtr getRules(const Str& conf);
  // The rules of the named transforms stanzas, in order (cached too).
  static RuleListPtr getTransforms(const std::vector<Str>& names);
  // Drops the cache and re-reads props, transforms and multikv.
  static void reload();
  // Runs the rules of `list` over the current row of `ins`, each on at most
  // maxChars bytes of its source field; with `autoScan`, the key=value
  // scanner on _raw last. Returns the fields added.
  static int applyRules(const RuleList& list, ResultInserter& ins, size_t maxChars, bool autoScan);
  // "maxcols" of the stanza "kv" of `limits` (default 512), read once.
  static int maxCols();

 private:
  static void addTransform(const Str& name, RuleList& list);
  void logRenamed(const ResultInserter& ins, SearchResultsInfo& info);

  unsigned long _limit = 50;
  unsigned long _maxChars = 10240;
  bool _reload = false;
  bool _segment = false;
  RuleListPtr _fixed;  // rules of the command line, instead of props
  std::map<Str, RuleListPtr> _local;  // conf -> rules, this command's copy
  std::unique_ptr<MultiKVTransformer> _mkv;
  std::set<Str> _reported;  // renamed keys already told
};
