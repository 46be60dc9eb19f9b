#include "pipeline/analysis/RegexExtractor.h"

#include <exception>

#include "libbundle/PropertyPages.h"
#include "pipeline/analysis/TransformsPatternResolver.h"
#include "util/Logger.h"
#include "util/Regex.h"

static Logger gLogger("regexExtractionProcessor");

namespace {

// The text of a key, as written: an empty value counts as absent. Values are
// not passed through the environment substitution of layeredFind, since
// "$1" in a template must stay what it is.
bool textKey(const PropertiesMap& stanza, const char* key, Str& out) {
  return stanza.get(key, out) && !out.empty();
}

}  // namespace

RegexExtractor::RegexExtractor(const Str& name, const Str& pattern, const Str& templateText)
    : _name(name), _re(pattern), _sourceKey(PipelineData::rawKey), _template(templateText) {}

RegexExtractor* RegexExtractor::instance(Map& map, const Str& name) {
  auto it = map.find(name);
  if (it != map.end()) return it->second.get();
  PropertyPages& pages = PropertyPages::regexInstance();
  std::unique_ptr<RegexExtractor> built;
  if (!pages.propsExist(name)) {
    gLogger.warn("No transforms stanza named %s", name.c_str());
  } else {
    PropertiesMap stanza;
    pages.fillLayers(stanza, name, false);
    built = build(name, stanza, TransformsPatternResolver::instance());
  }
  RegexExtractor* result = built.get();
  map.emplace(name, std::move(built));
  return result;
}

std::unique_ptr<RegexExtractor> RegexExtractor::build(const Str& name, const PropertiesMap& stanza,
                                                      RegexNameResolver& resolver) {
  Str pattern;
  if (!textKey(stanza, "REGEX", pattern)) return nullptr;
  if (Regex::isModularPattern(pattern)) {
    try {
      pattern = Regex::resolveModularPattern(pattern, resolver);
    } catch (const std::exception& e) {
      gLogger.error("Cannot compile RE \"%s\" for %s: %s", pattern.c_str(), name.c_str(), e.what());
      return nullptr;
    }
  }

  Str templateText;
  if (!textKey(stanza, "FORMAT", templateText)) {
    if (textKey(stanza, "PREPEND", templateText))
      templateText += "$1";
    else
      templateText = name + "::$1";
  }

  std::unique_ptr<RegexExtractor> e(new RegexExtractor(name, pattern, templateText));
  if (!e->_re.error().empty()) {
    gLogger.error("Cannot compile RE \"%s\" for %s: %s", pattern.c_str(), name.c_str(), e->_re.error().c_str());
    return nullptr;
  }
  int captures = e->_re.NumberOfCapturingGroups();
  if (e->_template.maxGroup() > static_cast<unsigned>(captures)) {
    gLogger.error("Too few groups in regex: %s; captures: %d, args: %ld", pattern.c_str(), captures,
                  static_cast<long>(e->_template.maxGroup()));
    return nullptr;
  }

  textKey(stanza, "SOURCE_KEY", e->_sourceKey);
  textKey(stanza, "DEST_KEY", e->_destKey);
  e->_hasDefault = textKey(stanza, "DEFAULT_VALUE", e->_defaultValue);
  PropertyPages::layeredFind("WRITE_META", stanza, e->_writeMeta);
  PropertyPages::layeredFind("REPEAT_MATCH", stanza, e->_repeatMatch);
  unsigned long lookahead = 0;
  if (PropertyPages::layeredFind("LOOKAHEAD", stanza, lookahead)) e->_lookahead = lookahead;
  if (!e->_writeMeta && e->_destKey.empty())
    gLogger.warn("REGEX %s has neither DEST_KEY nor WRITE_META; it writes nothing", name.c_str());

  gLogger.info("Established REGEX name: %s, pattern: %s", name.c_str(), pattern.c_str());
  return e;
}

bool RegexExtractor::produce(StringPiece text, Str& out) const {
  // Only the groups the template uses are asked for.
  const unsigned n = _template.maxGroup();
  StringPiece groups[kMaxGroups];
  RE::Arg args[kMaxGroups];
  const RE::Arg* argPointers[kMaxGroups];
  for (unsigned i = 0; i < n; ++i) {
    args[i] = RE::Arg(&groups[i]);
    argPointers[i] = &args[i];
  }

  bool matched = false;
  bool atEndOfMatch = false;  // text starts where the last match ended
  // Each round moves on by at least one byte, so the loop ends.
  for (;;) {
    int consumed = 0;
    if (!_re.DoMatch(text, RE::UNANCHORED, &consumed, argPointers, static_cast<int>(n))) break;
    // An empty match right where the previous one ended is the same place
    // found twice; it adds nothing.
    if (!(consumed == 0 && atEndOfMatch)) {
      if (matched && _writeMeta) out += ' ';
      _template.interpolate(groups, n, out);
      matched = true;
    }
    if (!_repeatMatch) break;
    size_t advance = consumed > 0 ? static_cast<size_t>(consumed) : 1;
    if (advance >= text.size()) break;
    text = StringPiece(text.data() + advance, text.size() - advance);
    atEndOfMatch = consumed > 0;
  }
  if (matched) return true;
  if (!_hasDefault) return false;
  out = _defaultValue;
  return true;
}

bool RegexExtractor::extract(PipelineData& record) const {
  if (!_writeMeta && _destKey.empty()) return false;
  Str out;
  {
    // The source is read in place, and left before the record is written.
    const Str& source = record.getStr(_sourceKey);
    size_t len = source.size();
    if (_lookahead > 0 && _lookahead < len) len = _lookahead;
    if (!produce(StringPiece(source.data(), len), out)) return false;
  }
  if (_writeMeta) {
    if (out.empty()) return false;
    record.append(PipelineData::metaKey, out);
  } else {
    record.put(_destKey, std::move(out));
  }
  return true;
}
