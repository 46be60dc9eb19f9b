#include "search/processors/SavedVelmorResolver.h"

#include <ctime>
#include <memory>
#include <set>

#include "framework/SavedVelmorManager.h"
#include "libbundle/PropertyPages.h"
#include "libbundle/SettingsMap.h"
#include "util/Logger.h"
#include "util/Mutex.h"

static Logger gLogger("SavedVelmorResolver");

namespace {

// The values of `field` whose stanza "<field>=<value>" in `tags` has `tag`
// enabled (the first bundle that sets the key decides, as elsewhere).
// The `tags` file as it is on disk, re-read at most once a second.
PropertyPages& tagsFile() {
  static Mutex mutex;
  static time_t lastCheck = 0;
  PropertyPages& pages = PropertyPages::instance("tags");
  const time_t now = ::time(nullptr);
  ScopedLock lock(mutex);
  if (now != lastCheck) {
    lastCheck = now;
    pages.updateConfigs();
  }
  return pages;
}

void valuesTaggedInFile(const Str& field, const Str& tag, std::set<Str>& out) {
  PropertyPages& pages = tagsFile();
  SettingsMap stanzas;
  const Str prefix = field + "=";
  pages.propsByPrefix(prefix, stanzas);
  for (const auto& [stanza, map] : stanzas) {
    if (stanza.size() <= prefix.size() || stanza.compare(0, prefix.size(), prefix) != 0) continue;
    const char* v = map.get(tag);
    if (v != nullptr && Str(v) == "enabled") out.insert(stanza.substr(prefix.size()));
  }
}

}  // namespace

bool SavedVelmorResolver::resolveTag(const Str& field, const Str& tag, const Str& user, std::vector<Str>& terms) {
  if (field.empty() || tag.empty()) return false;
  std::set<Str> values;
  valuesTaggedInFile(field, tag, values);
  if (field == "eventtype" || field == "savedsearch") {
    std::vector<SavedVelmor> carriers;
    SavedVelmorManager::instance().getVelmorsForTag(field, tag, carriers, user);
    for (const SavedVelmor& s : carriers) values.insert(s.name);
  }
  if (values.empty()) return false;
  for (const Str& v : values) terms.push_back(field + "::" + v);
  return true;
}

bool SavedVelmorResolver::resolveHostTag(const Str& tag, const Str& user, std::vector<Str>& terms) {
  return resolveTag("host", tag, user, terms);
}

bool SavedVelmorResolver::resolveEventTypeTag(const Str& tag, const Str& user, std::vector<Str>& terms) {
  return resolveTag("eventtype", tag, user, terms);
}

bool SavedVelmorResolver::resolveEventType(const Str& name, const Str& user, std::vector<Str>& terms) {
  SavedVelmorManager& store = SavedVelmorManager::instance();
  if (!store.gotVelmorByKey(name, "eventtype", user)) return false;
  Str text;
  if (!store.getEventTypeTemplateQuery(name, text)) return false;
  gLogger.debug("Replaced '%s' with '%s'", name.c_str(), text.c_str());
  if (!text.trim().empty()) terms.push_back(text);  // none: the type matches nothing
  return true;
}

bool SavedVelmorResolver::resolveSourceType(const Str&, const Str&, std::vector<Str>&) { return false; }

bool SavedVelmorResolver::lookup(const Str& name, const Str& user, Str& text) {
  SavedVelmor s;
  if (!SavedVelmorManager::instance().getVelmorByKey(name, "savedsearch", s, user)) return false;
  text = s.query;
  return true;
}

void SavedVelmorResolver::installForProcess() {
  auto resolver = std::make_shared<SavedVelmorResolver>();
  ITagResolver::install(resolver);
  ISavedSearchSource::install(resolver);
}
