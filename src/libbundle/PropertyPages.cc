#include "libbundle/PropertyPages.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <climits>
#include <cstring>

#include "libbundle/BundlePaths.h"
#include "libbundle/ExpandedStanzaName.h"
#include "libbundle/SubstituteEnvs.h"
#include "util/Logger.h"

static Logger gLogger("PropertyPages");

namespace {

// Longest stanza name taken from a "|" path; longer names are cut.
constexpr size_t kMaxLayerName = 2047;

const char kLocal[] = "local";
const char kDefault[] = "default";
const char kLearned[] = "learned";

// PropertiesMapConfig objects shared by every PropertyPages, by file path.
struct SharedConfigs {
  Mutex mutex;
  std::map<Str, std::unique_ptr<PropertiesMapConfig>> byPath;
};

SharedConfigs& sharedConfigs() {
  static SharedConfigs shared;
  return shared;
}

PropertiesMapConfig* sharedConfig(const Pathname& bundlePath, const Str& name, bool usePatterns) {
  SharedConfigs& shared = sharedConfigs();
  Str key = bundlePath / (name + ".conf");
  if (!usePatterns) key += "\n(no patterns)";
  ScopedLock lock(shared.mutex);
  auto it = shared.byPath.find(key);
  if (it != shared.byPath.end()) return it->second.get();
  auto* config = new PropertiesMapConfig(bundlePath, name, usePatterns);
  shared.byPath[key].reset(config);
  return config;
}

// Is this entry of <common>/bundles one of the "other" bundles?
bool isOtherBundle(const char* name) {
  if (name[0] == '\0' || name[0] == '.') return false;
  if (strstr(name, ".disabled") != nullptr) return false;
  return strcmp(name, kLocal) != 0 && strcmp(name, kDefault) != 0 && strcmp(name, kLearned) != 0;
}

bool endsWith(const Str& s, const char* suffix) {
  size_t n = strlen(suffix);
  return s.size() >= n && s.compare(s.size() - n, n, suffix) == 0;
}

struct PagesRegistry {
  Mutex mutex;
  std::map<Str, std::unique_ptr<PropertyPages>> byName;
};

PagesRegistry& pagesRegistry() {
  static PagesRegistry registry;
  return registry;
}

}  // namespace

PropertyPages::PropertyPages(const Str& name) : _name(name) {}

PropertyPages& PropertyPages::instance(const Str& name) {
  PagesRegistry& registry = pagesRegistry();
  ScopedLock lock(registry.mutex);
  auto it = registry.byName.find(name);
  if (it != registry.byName.end()) return *it->second;
  auto* pages = new PropertyPages(name);
  registry.byName[name].reset(pages);
  pages->updateConfigs();
  return *pages;
}

// --- the list of bundles -----------------------------------------------------

PropertiesMapConfig* PropertyPages::Locked_getBundle(const Str& name, bool usePatterns) {
  Pathname path = get_bundles_path() / name;
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return nullptr;
  if (S_ISDIR(st.st_mode) || (S_ISREG(st.st_mode) && endsWith(name, ".bundle"))) {
    return sharedConfig(path, _name, usePatterns);
  }
  return nullptr;
}

PropertiesMapConfig* PropertyPages::getBundle(const Str& name, bool usePatterns) {
  ScopedLock lock(_mutex);
  return Locked_getBundle(name, usePatterns);
}

void PropertyPages::Locked_addConfig(const Str& bundleName, PropertiesMapConfig* config) {
  if (config == nullptr) return;
  config->reloadIfChanged();
  _configs.push_back(config);
  _bundleNames.push_back(bundleName);
  _configMap[bundleName] = config;
}

void PropertyPages::Locked_updateConfigs() {
  _configs.clear();
  _bundleNames.clear();
  _configMap.clear();

  Locked_addConfig(kLocal, Locked_getBundle(kLocal, true));

  std::vector<Str> others;
  Pathname root = get_bundles_path();
  if (DIR* dir = opendir(root.c_str())) {
    while (struct dirent* e = readdir(dir)) {
      if (isOtherBundle(e->d_name)) others.emplace_back(e->d_name);
    }
    closedir(dir);
  }
  std::sort(others.begin(), others.end());
  for (const Str& name : others) Locked_addConfig(name, Locked_getBundle(name, true));

  Locked_addConfig(kDefault, Locked_getBundle(kDefault, true));
  Locked_addConfig(kLearned, Locked_getBundle(kLearned, true));
}

void PropertyPages::updateConfigs() {
  ScopedLock lock(_mutex);
  Locked_updateConfigs();
}

std::vector<PropertiesMapConfig*> PropertyPages::getConfigs() {
  ScopedLock lock(_mutex);
  return _configs;
}

std::vector<Str> PropertyPages::getBundleNames() {
  ScopedLock lock(_mutex);
  return _bundleNames;
}

void PropertyPages::clear() {
  ScopedLock lock(_mutex);
  _configs.clear();
  _bundleNames.clear();
  _configMap.clear();
}

// --- reading -----------------------------------------------------------------

std::unique_ptr<PropertiesMap> PropertyPages::get(const Str& stanza) {
  ScopedLock lock(_mutex);
  auto copy = std::make_unique<PropertiesMap>();
  for (PropertiesMapConfig* c : _configs) {
    if (c->getCopy(stanza, false, *copy)) return copy;
  }
  return nullptr;
}

void PropertyPages::Locked_pushLayer(PropertiesMap& dest, const Str& stanza, bool useRegex) {
  bool found = false;
  for (PropertiesMapConfig* c : _configs) {
    if (c->overlay(dest, stanza, false, useRegex)) found = true;
  }
  if (!found) gLogger.info("loading properties failure: %s", stanza.c_str());
}

void PropertyPages::pushLayer(PropertiesMap& dest, const Str& stanza, bool useRegex) {
  ScopedLock lock(_mutex);
  Locked_pushLayer(dest, stanza, useRegex);
}

void PropertyPages::fillLayers(PropertiesMap& dest, const Str& path, bool useRegex) {
  ScopedLock lock(_mutex);
  size_t from = 0;
  while (from <= path.size()) {
    size_t bar = path.find('|', from);
    size_t end = bar == Str::npos ? path.size() : bar;
    if (end > from) {
      Str name = path.substr(from, std::min(end - from, kMaxLayerName));
      Locked_pushLayer(dest, name, useRegex);
    }
    if (bar == Str::npos) break;
    from = bar + 1;
  }
  for (PropertiesMapConfig* c : _configs) c->overlay(dest, kDefault, false);
}

void PropertyPages::Locked_byPrefix(const Str& prefix, SettingsMap& out, bool withSources) {
  PropertiesMap mergedDefault;
  for (PropertiesMapConfig* c : _configs) {
    SettingsMap mine;
    c->propsObjByPrefix(prefix, mine);
    for (auto& [name, stanza] : mine) {
      if (withSources) {
        Str raw = Str::fromFormat("# source: %s\n", c->getPath().c_str());
        const char* own = stanza.get(PropertiesMap::RAW_KEY);
        if (own != nullptr) raw += own;
        stanza.put(PropertiesMap::RAW_KEY, raw);
        PropertiesMapConfig::overlay(out[ExpandedStanzaName(name, c->getBundlePath())], stanza, true);
      } else {
        PropertiesMapConfig::overlay(out[name], stanza, false);
      }
    }
    PropertiesMap def;
    if (c->getCopy(kDefault, false, def)) PropertiesMapConfig::overlay(mergedDefault, def, false);
  }
  for (auto& [name, stanza] : out) PropertiesMapConfig::overlay(stanza, mergedDefault, false);
}

void PropertyPages::propsByPrefix(const Str& prefix, SettingsMap& out) {
  ScopedLock lock(_mutex);
  Locked_byPrefix(prefix, out, false);
}

void PropertyPages::propsObjByPrefix(const Str& prefix, SettingsMap& out) {
  ScopedLock lock(_mutex);
  Locked_byPrefix(prefix, out, true);
}

void PropertyPages::keys(std::set<Str>& out) {
  ScopedLock lock(_mutex);
  for (PropertiesMapConfig* c : _configs) c->keys(out);
}

bool PropertyPages::propsExist(const Str& stanza) {
  ScopedLock lock(_mutex);
  for (PropertiesMapConfig* c : _configs) {
    if (c->propsExist(stanza)) return true;
  }
  return false;
}

// --- layeredFind -------------------------------------------------------------

const char* PropertyPages::layeredFind(const char* key, const PropertiesMap& map) {
  const char* v = map.get(key);
  return v == nullptr || *v == '\0' ? nullptr : v;
}

bool PropertyPages::layeredFind(const char* key, const PropertiesMap& map, Str& out) {
  const char* v = layeredFind(key, map);
  if (v == nullptr) return false;
  out = substituteEnvs(Str(v));
  return true;
}

bool PropertyPages::layeredFind(const char* key, const PropertiesMap& map, unsigned long& out) {
  const char* v = layeredFind(key, map);
  unsigned long n;
  if (v == nullptr || *v == '-' || !Str(v).tryToUnsignedLong(n)) return false;
  out = n;
  return true;
}

bool PropertyPages::layeredFind(const char* key, const PropertiesMap& map, long& out) {
  const char* v = layeredFind(key, map);
  long n;
  if (v == nullptr || !Str(v).tryToLong(n)) return false;
  out = n;
  return true;
}

bool PropertyPages::layeredFind(const char* key, const PropertiesMap& map, unsigned int& out) {
  unsigned long n;
  if (!layeredFind(key, map, n) || n > UINT_MAX) return false;
  out = (unsigned int)n;
  return true;
}

bool PropertyPages::layeredFind(const char* key, const PropertiesMap& map, int& out) {
  long n;
  if (!layeredFind(key, map, n) || n < INT_MIN || n > INT_MAX) return false;
  out = (int)n;
  return true;
}

bool PropertyPages::layeredFind(const char* key, const PropertiesMap& map, bool& out) {
  const char* v = layeredFind(key, map);
  if (v == nullptr) return false;
  out = strcasecmp(v, "true") == 0 || strcasecmp(v, "yes") == 0 || strcmp(v, "1") == 0;
  return true;
}

// --- writing -----------------------------------------------------------------

bool PropertyPages::putToFile(const Str& bundle, const Str& stanza, const PropertiesMap& map, bool replace) {
  ScopedLock lock(_mutex);
  PropertiesMapConfig* c = Locked_getBundle(bundle, true);
  if (c == nullptr) {
    // No such bundle yet: its directory is made when the file is saved.
    c = sharedConfig(get_bundles_path() / bundle, _name, true);
  }
  if (replace) {
    c->put(stanza, map);
  } else {
    c->edit(stanza, map);
  }
  bool ok = c->save();
  if (_configMap.find(bundle) == _configMap.end()) Locked_updateConfigs();
  return ok;
}

void PropertyPages::removeInherited(const Str& stanza, PropertiesMap& map, const Str& bundle) {
  ScopedLock lock(_mutex);
  size_t first = 0;
  for (size_t i = 0; i < _bundleNames.size(); ++i) {
    if (_bundleNames[i] == bundle) {
      first = i + 1;
      break;
    }
  }
  PropertiesMap below;
  for (size_t i = first; i < _configs.size(); ++i) _configs[i]->overlay(below, stanza, false);
  for (size_t i = first; i < _configs.size(); ++i) _configs[i]->overlay(below, kDefault, false);
  std::vector<Str> drop;
  for (const auto& [key, value] : map) {
    if (key == PropertiesMap::RAW_KEY) continue;
    const char* inherited = below.get(key);
    if (inherited != nullptr && value == inherited) drop.push_back(key);
  }
  for (const Str& key : drop) map.erase(key);
}

bool PropertyPages::saveAll() {
  ScopedLock lock(_mutex);
  bool ok = true;
  for (PropertiesMapConfig* c : _configs) {
    // Archives cannot be written, and a bundle without the file gets one only
    // when something was put into it.
    if (c->isArchive()) continue;
    if (!c->getPath().exists() && c->size() <= 1) {
      const PropertiesMap* def = c->getDefault();
      const char* raw = def->get(PropertiesMap::RAW_KEY);
      if (def->size() <= (raw ? 1u : 0u) && (raw == nullptr || *raw == '\0')) continue;
    }
    if (!c->save()) ok = false;
  }
  return ok;
}
