// LayerOrigins: the merged lookup of PropertyPages::fillLayers, redone with a
// note of where each value came from.
//
// For every key of the merged stanza it records the bundles (and stanza
// names) that gave its value: one entry when a layer set it, more when
// values ending in "$+" pulled in the layers below. The merge itself follows
// PropertiesMapConfig::overlay, so the values equal fillLayers' own.
//
// Used by the velmor-conf tool only; one thread.
#pragma once

#include <map>
#include <vector>

#include "libbundle/PropertiesMap.h"
#include "libbundle/PropertyPages.h"
#include "util/Str.h"

class LayerOrigins {
 public:
  // Merges the "|" path of stanza names over every bundle of `pages`, then
  // the bundles' defaults.
  LayerOrigins(PropertyPages& pages, const Str& path, bool useRegex);

  const PropertiesMap& merged() const { return _merged; }
  // "bundle" or "bundle[stanza]" for each layer that gave the key's value.
  const std::vector<Str>& originsOf(const Str& key) const;
  // Did any bundle have one of the named stanzas (not counting defaults)?
  bool anyStanzaFound() const { return _found; }

 private:
  void overlay(const PropertiesMap& src, const Str& origin);

  PropertiesMap _merged;
  std::map<Str, std::vector<Str>> _origins;
  bool _found = false;
};
