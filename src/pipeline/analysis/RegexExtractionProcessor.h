// RegexExtractionProcessor: applies the rules of transforms.conf to every
// event, so that events can be rewritten (host, source type, any key),
// routed (index, queue) and given index terms at ingestion.
//
// Which rules apply comes from props.conf: the merged stanzas of the
// event's `_conf` path (source, host, source type; pattern stanzas such as
// [source::/var/log/.../*.log] count) give every key named TRANSFORM or
// starting with it (TRANSFORMS-routing, ...), each a comma-separated list of
// transforms stanza names. Rules run in this order: keys in byte order of
// their names (so TRANSFORM, then TRANSFORMS-a before TRANSFORMS-b), names
// in list order within a key; a name given twice runs once, at its first
// place. A later rule sees what earlier ones wrote.
//
// The rule list of a path and the extractor of a stanza are built once and
// cached, so no property lookup is made per event. The caches are thrown
// away together once more than kMaxCachedPaths paths have been seen, which
// is also when changes to props and transforms (after the property pages
// reload) reach this processor. The stream markers `_done` and `_shutdown`
// pass untouched, and no record is ever dropped.
//
// Threads: its pipeline's thread only; PropertyPages guards itself.
#pragma once

#include <memory>
#include <unordered_map>
#include <vector>

#include "framework/PluginFactory.h"
#include "framework/Processor.h"
#include "pipeline/analysis/RegexExtractor.h"
#include "util/Str.h"

class RegexExtractionProcessor : public Processor {
 public:
  // Paths cached before the caches are cleared.
  static constexpr size_t kMaxCachedPaths = 1000;

  // The factory under the plug-in name "regexextractionprocessor".
  static const PluginFactory& factory();

  // Logs "Initializing"; there is nothing to configure.
  void init(const xml::node& config, const xml::node& global) override;
  // Applies the rules of the record's path. Always eOk.
  int execute(std::shared_ptr<PipelineData>& record) override;

  // Fills `names` (cleared first) with the rule names that props gives for
  // `path`, in the order described above.
  static void buildRegexList(const Str& path, std::vector<Str>& names);

  // Forgets the rule lists and the extractors.
  void clear();
  size_t cachedPaths() const { return _rulesByPath.size(); }

 private:
  RegexExtractor::Map _extractors;
  // Path -> its rules in order, pointing into _extractors (cleared together).
  std::unordered_map<Str, std::vector<RegexExtractor*>> _rulesByPath;
};

using RegexExtractionProcessorPluginFactory = SimplePluginFactory<RegexExtractionProcessor>;
