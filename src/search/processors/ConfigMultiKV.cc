#include "search/processors/ConfigMultiKV.h"

#include <set>

#include "libbundle/PropertiesMap.h"
#include "libbundle/PropertyPages.h"

ConfigMultiKV::ConfigMultiKV()
    : _pre(std::make_unique<TableSection>("pre")),
      _header(std::make_unique<TableSection>("header")),
      _body(std::make_unique<TableSection>("body")),
      _post(std::make_unique<TableSection>("post")) {}

ConfigMultiKV::~ConfigMultiKV() = default;

bool ConfigMultiKV::load(const Str& stanza, Str& error) {
  PropertyPages& pages = PropertyPages::instance("multikv");
  std::set<Str> names;
  pages.keys(names);
  if (names.empty()) {
    error = "FAILED to find multikv.conf configuration file!";
    return false;
  }
  std::unique_ptr<PropertiesMap> map = pages.get(stanza);
  Str reason;
  if (map && _pre->load(*map, reason) && _header->load(*map, reason) && _body->load(*map, reason) &&
      _post->load(*map, reason))
    return true;
  error = "FAILED to find valid config for multikv stanza = '" + stanza + "'";
  if (!reason.empty()) error += ": " + reason;
  return false;
}
