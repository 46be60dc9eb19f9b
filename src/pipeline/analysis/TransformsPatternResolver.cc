#include "pipeline/analysis/TransformsPatternResolver.h"

#include "libbundle/PropertyPages.h"

TransformsPatternResolver& TransformsPatternResolver::instance() {
  static TransformsPatternResolver resolver;
  return resolver;
}

Str TransformsPatternResolver::resolve(const Str& name) {
  std::unique_ptr<PropertiesMap> stanza = PropertyPages::regexInstance().get(name);
  if (!stanza) return Str();
  Str pattern;
  stanza->get("REGEX", pattern);
  return pattern;
}
