// RegexExtractor: one rule of transforms.conf, compiled once and applied to
// every event that the props rules of its source, host or source type name.
//
// A rule reads one key of the record (SOURCE_KEY, `_raw` by default), looks
// at no more than its first LOOKAHEAD bytes, and on a match writes its
// template (FORMAT; or PREPEND followed by "$1"; or "<stanza>::$1") filled
// with the groups:
//   - with WRITE_META, appended to `_meta` as index terms;
//   - otherwise put under DEST_KEY, replacing what was there. DEST_KEY may be
//     any key of the record: "MetaData:Host" (value "host::<name>") rewrites
//     the host, "_MetaData:Index" (the bare index name) routes the event to
//     another index, "queue" picks the queue.
// With REPEAT_MATCH the search goes on after each match, and every further
// match adds its filled template too: separated by one blank when the
// output is index terms (WRITE_META), joined with nothing otherwise, so that
// a FORMAT such as "$1;" chooses its own separator. When nothing matches,
// DEFAULT_VALUE (if set) is the output; without it the record is left alone.
//
// The groups of a match stand on the stack; applying a rule allocates only
// the output value.
//
// Ownership: the extractors of a processor live in its Map (stanza name ->
// extractor, null for a stanza that gives no rule), which owns them.
// Threads: immutable after build, so extract() may run on any thread; a Map
// belongs to one thread.
#pragma once

#include <cstddef>
#include <map>
#include <memory>

#include "framework/PipelineData.h"
#include "libbundle/PropertiesMap.h"
#include "pipeline/analysis/StringTemplate.h"
#include "util/RE.h"
#include "util/RegexNameResolver.h"
#include "util/Str.h"

class RegexExtractor {
 public:
  using Map = std::map<Str, std::unique_ptr<RegexExtractor>>;

  // Groups a template may refer to ($1 .. $99).
  static constexpr unsigned kMaxGroups = 99;

  // The extractor of transforms stanza `name`: taken from `map`, or built
  // from the merged stanza and entered there. Null, remembered as such, when
  // the stanza does not exist or gives no usable rule.
  static RegexExtractor* instance(Map& map, const Str& name);

  // Builds the rule of stanza `name` from its merged keys. Null, with the
  // reason logged, when there is no REGEX, the pattern does not compile
  // (its [[name]] references are resolved through `resolver` first), or the
  // template asks for more groups than the pattern has.
  static std::unique_ptr<RegexExtractor> build(const Str& name, const PropertiesMap& stanza,
                                               RegexNameResolver& resolver);

  // Applies the rule to `record`; true when it wrote something.
  bool extract(PipelineData& record) const;

  const Str& getName() const { return _name; }
  const std::string& getPattern() const { return _re.pattern(); }
  const Str& getSourceKey() const { return _sourceKey; }
  const Str& getDestKey() const { return _destKey; }
  const StringTemplate& getTemplate() const { return _template; }
  bool writesMeta() const { return _writeMeta; }
  bool repeatsMatch() const { return _repeatMatch; }
  // 0 when the whole source is looked at.
  size_t getLookahead() const { return _lookahead; }

 private:
  RegexExtractor(const Str& name, const Str& pattern, const Str& templateText);

  // Fills `out` with the output for `text`; false when there is none.
  bool produce(StringPiece text, Str& out) const;

  Str _name;
  RE _re;
  Str _sourceKey;
  Str _destKey;
  Str _defaultValue;
  bool _hasDefault = false;
  StringTemplate _template;
  bool _writeMeta = false;
  bool _repeatMatch = false;
  size_t _lookahead = 0;
};
