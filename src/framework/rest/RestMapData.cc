#include "framework/rest/RestMapData.h"

#include "libbundle/PropertyPages.h"

std::shared_ptr<RestMapData> RestMapData::fromStanza(const Str& stanzaName, const PropertiesMap& props, Str& err) {
  size_t colon = stanzaName.find(':');
  if (colon == Str::npos) {
    err = Str::fromFormat("invalid stanza name - no colon %s", stanzaName.c_str());
    return nullptr;
  }
  auto d = std::make_shared<RestMapData>();
  d->_stanza = stanzaName;
  d->_type = stanzaName.substr(0, colon);
  d->_name = stanzaName.substr(colon + 1);
  if (!PropertyPages::layeredFind("match", props, d->_match)) {
    err = Str::fromFormat("'match' tag not found in stanza %s", stanzaName.c_str());
    return nullptr;
  }
  d->_re = std::make_unique<RE>(d->_match);
  if (!d->_re->error().empty()) {
    err = Str::fromFormat("'match' regex error for stanza %s = %s", stanzaName.c_str(), d->_match.c_str());
    return nullptr;
  }
  PropertyPages::layeredFind("requireAuthentication", props, d->_requireAuth);
  PropertyPages::layeredFind("xsl", props, d->_xsl);
  PropertyPages::layeredFind("spec", props, d->_spec);
  PropertyPages::layeredFind("script", props, d->_script);
  d->_props.copy(props);
  return d;
}

Str RestMapData::capabilityFor(const Str& method) const {
  Str key = "capability.";
  for (char c : method) key += static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
  Str cap;
  if (PropertyPages::layeredFind(key.c_str(), _props, cap)) return cap;
  if (PropertyPages::layeredFind("capability", _props, cap)) return cap;
  return "";
}
