// PropertyPages: the merged view of one property file across all bundles.
//
// For a name such as "props" it holds one PropertiesMapConfig per bundle that
// has (or may have) props.conf, in precedence order, highest first:
//   1. the bundle "local";
//   2. every other entry of <common>/bundles in byte order of name, skipping
//      names that are empty, begin with ".", contain ".disabled", or are
//      "local", "default" or "learned";
//   3. "default";
//   4. "learned" (so a learned value never overrides a shipped default).
// A bundle is a directory, or a file named "*.bundle" (an archive); anything
// else is passed over. PropertiesMapConfig objects are shared by path between
// all PropertyPages of the process.
//
// Merged lookup: fillLayers(dest, "a|b|c") overlays stanza a from every bundle
// in order, then b, then c, then every bundle's "default" (see
// PropertiesMapConfig::overlay for what overlaying does): name first, bundle
// second, defaults last.
//
// Ownership: instance(name) objects live until exit. Maps returned by get()
// belong to the caller. Threads: every member takes the object's mutex and
// holds it while calling into the bundles (lock order: pages, then file);
// instance() takes a static mutex first.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <vector>

#include "libbundle/PropertiesMap.h"
#include "libbundle/PropertiesMapConfig.h"
#include "libbundle/SettingsMap.h"
#include "util/Mutex.h"
#include "util/Pathname.h"
#include "util/Str.h"

class PropertyPages {
 public:
  // A view of <name>.conf; call updateConfigs() to load it. Most code uses
  // instance(name) instead.
  explicit PropertyPages(const Str& name);
  PropertyPages(const PropertyPages&) = delete;
  PropertyPages& operator=(const PropertyPages&) = delete;

  // The process-wide view of <name>.conf, built and loaded on first use.
  static PropertyPages& instance(const Str& name);
  static PropertyPages& inputInstance() { return instance("inputs"); }
  static PropertyPages& propsInstance() { return instance("props"); }
  static PropertyPages& regexInstance() { return instance("transforms"); }

  const Str& getName() const { return _name; }

  // Rebuilds the list of bundles from <common>/bundles (re-reading files that
  // changed on disk).
  void updateConfigs();
  // The bundles in precedence order (for display; the objects stay owned by
  // the process-wide map).
  std::vector<PropertiesMapConfig*> getConfigs();
  // The bundle name of each entry of getConfigs(), in the same order.
  std::vector<Str> getBundleNames();

  // --- reading --------------------------------------------------------------
  // A copy of the stanza from the first bundle that has it; null if none.
  std::unique_ptr<PropertiesMap> get(const Str& stanza);
  // The merged lookup of a "|"-separated list of stanza names (each at most
  // 2047 bytes; empty names are passed over), defaults last.
  void fillLayers(PropertiesMap& dest, const Str& path, bool useRegex);
  // Overlays one stanza from each bundle in order; logs "loading properties
  // failure: %s" (info) when no bundle has it.
  void pushLayer(PropertiesMap& dest, const Str& stanza, bool useRegex);
  // All stanzas whose name begins with `prefix` ("" for all), merged across
  // bundles, with the merged "default" overlaid into each at the end.
  void propsByPrefix(const Str& prefix, SettingsMap& out);
  // As propsByPrefix, but names pass through ExpandedStanzaName and the raw
  // texts of all layers are kept, each after "# source: <file>\n".
  void propsObjByPrefix(const Str& prefix, SettingsMap& out);
  void keys(std::set<Str>& out);
  bool propsExist(const Str& stanza);

  // The seven lookups in a merged stanza. A missing key and a key with the
  // empty value are the same: null or false (and `out` untouched). The Str
  // form passes the value through substituteEnvs; the number forms need the
  // whole value to be a base-10 number that fits; the bool form is true for
  // "true", "yes" and "1" in any case and false for any other value.
  static const char* layeredFind(const char* key, const PropertiesMap& map);
  static bool layeredFind(const char* key, const PropertiesMap& map, Str& out);
  static bool layeredFind(const char* key, const PropertiesMap& map, unsigned long& out);
  static bool layeredFind(const char* key, const PropertiesMap& map, long& out);
  static bool layeredFind(const char* key, const PropertiesMap& map, unsigned int& out);
  static bool layeredFind(const char* key, const PropertiesMap& map, int& out);
  static bool layeredFind(const char* key, const PropertiesMap& map, bool& out);

  // --- writing --------------------------------------------------------------
  // Writes the stanza to <common>/bundles/<bundle>/<name>.conf (made if need
  // be): `replace` true replaces the stanza (put), false changes the given
  // keys (edit). False if the file cannot be written.
  bool putToFile(const Str& bundle, const Str& stanza, const PropertiesMap& map, bool replace);
  bool putLocal(const Str& stanza, const PropertiesMap& map, bool replace) {
    return putToFile("local", stanza, map, replace);
  }
  bool putDefault(const Str& stanza, const PropertiesMap& map, bool replace) {
    return putToFile("default", stanza, map, replace);
  }
  bool putLearned(const Str& stanza, const PropertiesMap& map, bool replace) {
    return putToFile("learned", stanza, map, replace);
  }
  // Drops from `map` every key whose value equals what the layers below
  // `bundle` give for `stanza` (their stanza, then their defaults), so that
  // only real overrides are written to `bundle`.
  void removeInherited(const Str& stanza, PropertiesMap& map, const Str& bundle = "local");

  // The shared object of <common>/bundles/<name>: a directory as it is, a
  // "*.bundle" file as an archive, null for anything else.
  PropertiesMapConfig* getBundle(const Str& name, bool usePatterns);
  // Saves every bundle's file; false if any failed.
  bool saveAll();
  // Forgets the bundles (until updateConfigs()).
  void clear();

 private:
  PropertiesMapConfig* Locked_getBundle(const Str& name, bool usePatterns);
  void Locked_updateConfigs();
  void Locked_pushLayer(PropertiesMap& dest, const Str& stanza, bool useRegex);
  void Locked_addConfig(const Str& bundleName, PropertiesMapConfig* config);
  void Locked_byPrefix(const Str& prefix, SettingsMap& out, bool withSources);

  Str _name;
  std::map<Str, PropertiesMapConfig*> _configMap;  // by bundle name
  std::vector<PropertiesMapConfig*> _configs;      // precedence order
  std::vector<Str> _bundleNames;                   // same order as _configs
  Mutex _mutex;
};
