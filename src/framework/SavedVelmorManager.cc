#include "framework/SavedVelmorManager.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <set>

#include "framework/CronInterval.h"
#include "framework/UserManager.h"
#include "libbundle/BundlePaths.h"
#include "libbundle/PropertiesMapConfig.h"
#include "libbundle/PropertyPages.h"
#include "libbundle/SettingsMap.h"
#include "util/Logger.h"
#include "util/xml/XmlNode.h"

static Logger gLogger("SavedVelmorManager");

const char* const SavedVelmorManager::kCapEditEventtype = "edit_eventtype";
const char* const SavedVelmorManager::kCapEditLocalSearch = "edit_local_search";
const char* const SavedVelmorManager::kCapEditRoleSearch = "edit_role_search";
const char* const SavedVelmorManager::kCapEditUserSearches = "edit_user_searches";
const char* const SavedVelmorManager::kCapScheduleSearch = "schedule_search";

namespace {

const char kClass[] = "SavedVelmorManager";
const char kSaveFailedPrefix[] = "Unable to save search: '";


// Stanza names that the files cannot hold or that mean something else.
bool isStorableName(const Str& name) {
  if (name == SettingsMap::DEFAULT_STANZA) return false;
  for (char c : name)
    if (c == '[' || c == ']' || c == '\n' || c == '\r' || c == '\0') return false;
  return name.find_first_not_of(" \t") != Str::npos && name.front() != ' ' && name.back() != ' ';
}

Str errorXml(const Str& text) {
  Str out = "<error>";
  SavedVelmor::appendXmlEscaped(out, text);
  out += "</error>";
  return out;
}

// The <savedVelmor> element of a management call: the call's element itself
// or its child of that name.
xml::node savedVelmorNode(const xml::node& args) {
  if (args.empty()) return args;
  const char* n = args.get_name();
  if (n != nullptr && Str(n) == "savedVelmor") return args;
  return args.find("savedVelmor");
}

Str childText(const xml::node& n, const char* name) {
  std::string v;
  if (!n.empty() && n.child_content(name, v)) return Str(v);
  return Str();
}

// True when `text` has a "|" outside double quotes.
bool hasPipe(const Str& text) {
  bool inQuote = false;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '"' && (i == 0 || text[i - 1] != '\\')) inQuote = !inQuote;
    if (text[i] == '|' && !inQuote) return true;
  }
  return false;
}

bool isTemplateChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-';
}

}  // namespace

SavedVelmorManager& SavedVelmorManager::instance() {
  static SavedVelmorManager* manager = [] {
    gLogger.debug("SavedVelmorManager::instance: savedvelmormanager instance() called");
    return new SavedVelmorManager();
  }();
  return *manager;
}

SavedVelmorManager::SavedVelmorManager() {
  for (const char* cap :
       {kCapEditEventtype, kCapEditLocalSearch, kCapEditRoleSearch, kCapEditUserSearches, kCapScheduleSearch})
    UserManager::registerCapability(kClass, cap);
}

PropertyPages& SavedVelmorManager::getVelmorConf(ConfigTypeEnum type) {
  return PropertyPages::instance(type == ConfigTypeEnum::eventtypes ? "eventtypes" : "savedsearches");
}

bool SavedVelmorManager::typeFromName(const Str& type, bool& isEventType) {
  if (type == "eventtype" || type == "eventtypes") {
    isEventType = true;
    return true;
  }
  if (type == "savedsearch" || type == "savedsearches" || type == "savedvelmor") {
    isEventType = false;
    return true;
  }
  return false;
}

bool SavedVelmorManager::canSee(const SavedVelmor& s, const Str& user) {
  return user.empty() || s.global() || s.userid.empty() || s.userid == user;
}

// --- loading -------------------------------------------------------------------

void SavedVelmorManager::reload() {
  ScopedLock lock(_mutex);
  Locked_refresh(true);
}

void SavedVelmorManager::Locked_refresh(bool force) {
  const time_t now = ::time(nullptr);
  if (!force && _loaded && now == _lastCheck) return;
  _lastCheck = now;
  Locked_populateMap(false, force || !_loaded);
  Locked_populateMap(true, force || !_loaded);
  _loaded = true;
}

void SavedVelmorManager::Locked_populateMap(bool isEventType, bool force) {
  PropertyPages& pages = getVelmorConf(isEventType ? ConfigTypeEnum::eventtypes : ConfigTypeEnum::savedsearches);
  pages.updateConfigs();  // re-reads files changed on disk
  std::vector<Str> signature;
  for (PropertiesMapConfig* c : pages.getConfigs()) {
    struct stat st;
    Str sig = c->getPath();
    if (::stat(c->isArchive() ? c->getBundlePath().c_str() : c->getPath().c_str(), &st) == 0)
      sig.appendFormat("|%lld|%ld|%lld|%lu", (long long)st.st_size, (long)st.st_mtim.tv_sec,
                       (long long)st.st_mtim.tv_nsec, (unsigned long)st.st_ino);
    signature.push_back(sig);
  }
  Store& store = getSSMap(isEventType);
  if (!force && signature == store.fileSignature) return;
  store.fileSignature = std::move(signature);

  gLogger.debug("populating maps with search type='%s'", isEventType ? "eventtype" : "savedsearch");
  SettingsMap settings;
  pages.propsByPrefix("", settings);
  store.byName.clear();
  store.tags.clear();
  for (const auto& [name, map] : settings) {
    if (name == SettingsMap::DEFAULT_STANZA) continue;
    SavedVelmor s;
    s.name = name;
    s.fromPropMap(&map);
    s.isEventType = isEventType ? "true" : "false";
    if (store.byName.count(name)) {
      gLogger.error("Error: failed to load saved search='%s': possible saved search with the same stanza name",
                    name.c_str());
      continue;
    }
    store.byName[name] = s;
    for (const Str& t : s.tagList()) store.tags.add(t, name);
  }
}

// --- changing --------------------------------------------------------------------

bool SavedVelmorManager::Locked_canEditSavedSearch(const Str& action, const SavedVelmor& s,
                                                   const SavedVelmor* existing, const Str& user, Str& err) {
  if (user.empty()) return true;  // the process itself
  auto refuse = [&](const Str& why, const char* cap) {
    err = why;
    gLogger.warn("%s::%s: Failed to check user permissions for saved search='%s' with action='%s': %s", kClass,
                 "canEditSavedSearch", s.name.c_str(), action.c_str(),
                 cap ? (Str("missing capability ") + cap).c_str() : why.c_str());
    return false;
  };
  const Str denied = "You don't have permission  to " + action + " the saved search '" + s.name + "'";
  if (s.eventType()) {
    if (!UserManager::checkUserPerms(kCapEditEventtype, user)) return refuse(denied, kCapEditEventtype);
  } else {
    const bool global = s.global() || (existing && existing->global());
    const Str owner = existing ? existing->userid : s.userid;
    if (global) {
      if (!UserManager::checkUserPerms(kCapEditLocalSearch, user)) return refuse(denied, kCapEditLocalSearch);
    } else {
      if (!owner.empty() && owner != user) return refuse(denied + " belongs to another user", nullptr);
      if (!UserManager::checkUserPerms(kCapEditUserSearches, user)) return refuse(denied, kCapEditUserSearches);
    }
    const bool role = !s.role.empty() || (existing && !existing->role.empty());
    if (role && !UserManager::checkUserPerms(kCapEditRoleSearch, user)) return refuse(denied, kCapEditRoleSearch);
  }
  if (action == "save") {
    const bool scheduleChanged = existing ? (existing->schedule != s.schedule || existing->enableSched != s.enableSched)
                                          : (!s.schedule.empty() || s.scheduled());
    if (scheduleChanged && !UserManager::checkUserPerms(kCapScheduleSearch, user))
      return refuse("You do not have sufficient privileges to change search schedules.", kCapScheduleSearch);
  }
  return true;
}

bool SavedVelmorManager::save(SavedVelmor& s, BundleType where, const Str& user, Str& err) {
  ScopedLock lock(_mutex);
  Locked_refresh(true);
  if (s.name.empty()) {
    err = "No name specified";
    return false;
  }
  if (s.isEventType.empty()) {
    err = "No isEventType specified";
    return false;
  }
  const Store& store = getSSMap(s.eventType());
  auto it = store.byName.find(s.name);
  const SavedVelmor* existing = it == store.byName.end() ? nullptr : &it->second;
  if (where == BundleType::global) {
    s.isGlobal = "true";
  } else {
    s.isGlobal = "false";
    if (existing && !existing->userid.empty()) {
      s.userid = existing->userid;
    } else if (s.userid.empty()) {
      s.userid = user;
    }
  }
  return Locked_save(s, user, err);
}

bool SavedVelmorManager::Locked_save(SavedVelmor& s, const Str& user, Str& err) {
  if (!isStorableName(s.name)) {
    err = "Unable to save search: '" + s.name + "'.  It was not saved.";
    gLogger.error("%s::%s: %s", kClass, "save", "a name may not be 'default', hold '[', ']' or line breaks");
    return false;
  }
  const bool isEventType = s.eventType();
  s.isEventType = isEventType ? "true" : "false";
  Store& store = getSSMap(isEventType);
  auto it = store.byName.find(s.name);
  const SavedVelmor* existing = it == store.byName.end() ? nullptr : &it->second;
  if (!Locked_canEditSavedSearch("save", s, existing, user, err)) return false;
  if (existing) {
    gLogger.info("Search='%s' previously existed", s.name.c_str());
    gLogger.debug("Replacing ss with new ss: '%s'", s.name.c_str());
    store.tags.removeName(s.name);
  } else {
    gLogger.info("No search='%s' previously existed", s.name.c_str());
    gLogger.debug("Saving new ss: '%s'", s.name.c_str());
  }
  if (!saveSSToFile(s, existing)) {
    err = kSaveFailedPrefix + s.name + "'.  It was not saved.";
    gLogger.error("%s::%s: %s", kClass, "save", err.c_str());
    if (existing) cacheVelmorTags(*existing);
    return false;
  }
  saveSSToMng(s);
  cacheVelmorTags(s);
  return true;
}

bool SavedVelmorManager::saveSSToFile(const SavedVelmor& s, const SavedVelmor* existing) {
  PropertiesMap map;
  s.toPropMap(&map);
  // A field cleared over a lower bundle's value is written empty, which
  // hides that value.
  if (existing) {
    for (size_t i = 0; i < SavedVelmor::kFieldCount; ++i) {
      const char* f = SavedVelmor::kFieldNames[i];
      if (!strcmp(f, "name") || !strcmp(f, "isEventType")) continue;
      if (s.field(f)->empty() && !existing->field(f)->empty()) map.put(Str(f), Str());
    }
  }
  PropertyPages& pages = getVelmorConf(s.eventType() ? ConfigTypeEnum::eventtypes : ConfigTypeEnum::savedsearches);
  pages.updateConfigs();  // the other processes' saves first
  PropertiesMapConfig* local = pages.getBundle("local", true);
  if (local == nullptr) {
    get_bundles_local_path().mkdir_p();
    local = pages.getBundle("local", true);
    if (local == nullptr) {
      gLogger.error("%s::%s: the bundle %s is not a directory", kClass, "saveSSToFile",
                    get_bundles_local_path().c_str());
      return false;
    }
  }
  local->put(s.name, map);
  if (!local->save()) {
    local->reset();  // what the file holds, without the stanza that failed
    return false;
  }
  pages.updateConfigs();  // a bundle made just now joins the layers
  return true;
}

void SavedVelmorManager::saveSSToMng(const SavedVelmor& s) { getSSMap(s.eventType()).byName[s.name] = s; }

void SavedVelmorManager::cacheVelmorTags(const SavedVelmor& s) {
  TagCache& cache = getCacheBySSType(s.eventType());
  for (const Str& t : s.tagList()) cache.add(t, s.name);
}

bool SavedVelmorManager::remove(const Str& name, bool isEventType, const Str& user, Str& err) {
  ScopedLock lock(_mutex);
  Locked_refresh(true);
  return Locked_remove(name, isEventType, user, true, err);
}

bool SavedVelmorManager::Locked_remove(const Str& name, bool isEventType, const Str& user, bool checkPerms,
                                       Str& err) {
  if (name.empty()) {
    err = "No name specified";
    return false;
  }
  Store& store = getSSMap(isEventType);
  auto it = store.byName.find(name);
  if (it == store.byName.end() || !canSee(it->second, user)) {
    err = Str::fromFormat("Could not find search='%s' to delete", name.c_str());
    return false;
  }
  if (checkPerms && !Locked_canEditSavedSearch("delete", it->second, &it->second, user, err)) return false;

  PropertyPages& pages = getVelmorConf(isEventType ? ConfigTypeEnum::eventtypes : ConfigTypeEnum::savedsearches);
  pages.updateConfigs();
  PropertiesMapConfig* local = pages.getBundle("local", true);
  if (local == nullptr || !local->propsExist(name)) {
    err = Str::fromFormat("The search='%s' is shipped with the system and cannot be deleted", name.c_str());
    gLogger.warn("%s::%s: %s", kClass, "remove", err.c_str());
    return false;
  }
  SettingsMap settings;
  local->getSettings(settings);
  settings.erase(name);
  local->setSettings(settings);
  if (!local->save()) {
    local->reset();
    err = Str::fromFormat("Unable to delete search='%s'", name.c_str());
    gLogger.error("%s::%s: %s", kClass, "remove", err.c_str());
    return false;
  }
  gLogger.info("Deleted search='%s'", name.c_str());
  // A lower bundle may still hold the name: read the store again.
  Locked_populateMap(isEventType, true);
  return true;
}

bool SavedVelmorManager::rename(const Str& name, const Str& newName, bool isEventType, const Str& user,
                                Str& err) {
  ScopedLock lock(_mutex);
  Locked_refresh(true);
  if (name.empty() || newName.empty()) {
    err = "No name specified";
    return false;
  }
  Store& store = getSSMap(isEventType);
  if (store.byName.count(newName)) {
    err = "Saved search with name '" + newName + "' already exists, failed to rename search";
    gLogger.warn("%s::%s: %s", kClass, "rename", err.c_str());
    return false;
  }
  auto it = store.byName.find(name);
  if (it == store.byName.end() || !canSee(it->second, user)) {
    err = Str::fromFormat("Could not find search='%s' to rename", name.c_str());
    gLogger.warn("%s::%s: %s", kClass, "rename", err.c_str());
    return false;
  }
  SavedVelmor old = it->second;
  if (!Locked_canEditSavedSearch("rename", old, &old, user, err)) return false;
  SavedVelmor moved = old;
  moved.name = newName;
  if (!Locked_save(moved, user, err)) return false;
  if (!Locked_remove(name, isEventType, user, false, err)) {
    // The old one stays (say, shipped in a lower bundle): undo the copy.
    Str ignored;
    Locked_remove(newName, isEventType, user, false, ignored);
    return false;
  }
  return true;
}

int SavedVelmorManager::deleteVelmorsByUserId(const Str& type, const Str& userid) {
  bool isEventType;
  if (userid.empty() || !typeFromName(type, isEventType)) return 0;
  ScopedLock lock(_mutex);
  Locked_refresh(true);
  std::vector<Str> names;
  for (const auto& [name, s] : getSSMap(isEventType).byName)
    if (s.userid == userid) names.push_back(name);
  int removed = 0;
  for (const Str& name : names) {
    Str err;
    if (Locked_remove(name, isEventType, Str(), false, err)) {
      ++removed;
    } else {
      gLogger.warn("%s::%s: %s", kClass, "deleteVelmorsByUserId", err.c_str());
    }
  }
  return removed;
}

// --- reading ---------------------------------------------------------------------

bool SavedVelmorManager::getVelmorByKey(const Str& name, const Str& type, SavedVelmor& out, const Str& user) {
  bool isEventType;
  if (!typeFromName(type, isEventType)) return false;
  ScopedLock lock(_mutex);
  Locked_refresh(false);
  const Store& store = getSSMap(isEventType);
  auto it = store.byName.find(name);
  if (it == store.byName.end() || !canSee(it->second, user)) return false;
  out = it->second;
  return true;
}

bool SavedVelmorManager::gotVelmorByKey(const Str& name, const Str& type, const Str& user) {
  SavedVelmor ignored;
  return getVelmorByKey(name, type, ignored, user);
}

void SavedVelmorManager::getAllVelmors(const Str& type, std::vector<SavedVelmor>& out, const Str& user) {
  getAllVelmors(type, out, user, false);
}

void SavedVelmorManager::getAllVelmors(const Str& type, std::vector<SavedVelmor>& out, const Str& user,
                                       bool scheduledOnly) {
  bool isEventType;
  if (!typeFromName(type, isEventType)) return;
  ScopedLock lock(_mutex);
  Locked_refresh(false);
  for (const auto& [name, s] : getSSMap(isEventType).byName) {
    if (!canSee(s, user)) continue;
    if (scheduledOnly && (!s.scheduled() || s.schedule.empty())) continue;
    out.push_back(s);
  }
}

void SavedVelmorManager::getVelmorNames(const Str& type, std::list<Str>& out, const Str& user) {
  std::vector<SavedVelmor> all;
  getAllVelmors(type, all, user);
  for (const SavedVelmor& s : all) out.push_back(s.name);
}

void SavedVelmorManager::getByExample(const SavedVelmor& example, std::vector<SavedVelmor>& out, const Str& user) {
  ScopedLock lock(_mutex);
  Locked_refresh(false);
  for (bool isEventType : {false, true}) {
    if (!example.isEventType.empty() && example.eventType() != isEventType) continue;
    for (const auto& [name, s] : getSSMap(isEventType).byName) {
      if (!canSee(s, user)) continue;
      bool match = true;
      for (size_t i = 0; i < SavedVelmor::kFieldCount && match; ++i) {
        const char* f = SavedVelmor::kFieldNames[i];
        if (!strcmp(f, "isEventType")) continue;
        const Str& want = *example.field(f);
        if (!want.empty() && want != *s.field(f)) match = false;
      }
      if (match) out.push_back(s);
    }
  }
}

void SavedVelmorManager::getVelmorsForTag(const Str& type, const Str& tag, std::vector<SavedVelmor>& out,
                                          const Str& user) {
  bool isEventType;
  if (!typeFromName(type, isEventType)) return;
  ScopedLock lock(_mutex);
  Locked_refresh(false);
  Store& store = getSSMap(isEventType);
  for (const Str& name : store.tags.namesFor(tag)) {
    auto it = store.byName.find(name);
    if (it != store.byName.end() && canSee(it->second, user)) out.push_back(it->second);
  }
}

std::vector<Str> SavedVelmorManager::getAllTags(const Str& type, const Str& user) {
  bool isEventType;
  if (!typeFromName(type, isEventType)) return {};
  ScopedLock lock(_mutex);
  Locked_refresh(false);
  std::set<Str> tags;
  for (const auto& [name, s] : getSSMap(isEventType).byName) {
    if (!canSee(s, user)) continue;
    for (const Str& t : s.tagList()) tags.insert(t);
  }
  return std::vector<Str>(tags.begin(), tags.end());
}

// --- event type templates -----------------------------------------------------------

bool SavedVelmorManager::getEventTypeTemplateQuery(const Str& name, Str& out) {
  Str err;
  return getEventTypeTemplateQuery(name, out, err);
}

bool SavedVelmorManager::getEventTypeTemplateQuery(const Str& name, Str& out, Str& err) {
  ScopedLock lock(_mutex);
  Locked_refresh(false);
  std::vector<Str> path;
  Str text;
  if (!Locked_templateQuery(name, path, text, err)) {
    gLogger.warn("%s::%s: %s", kClass, "getEventTypeTemplateQuery", err.c_str());
    return false;
  }
  out = text;
  return true;
}

bool SavedVelmorManager::Locked_templateQuery(const Str& name, std::vector<Str>& path, Str& out, Str& err) {
  const Store& store = _eventTypes;
  auto it = store.byName.find(name);
  if (it == store.byName.end()) {
    err = "Unable to find eventtype " + name;
    return false;
  }
  if (std::find(path.begin(), path.end(), name) != path.end()) {
    err = "The eventtype '" + path.front() + "' refers to itself through '" + name + "'";
    return false;
  }
  const Str& text = it->second.query;
  if (hasPipe(text)) {
    err = "The eventtype's 'search' field has unsupported syntax: " + text;
    return false;
  }
  path.push_back(name);
  Str result;
  size_t i = 0;
  while (i < text.size()) {
    if (text[i] != '%') {
      result += text[i++];
      continue;
    }
    size_t j = i + 1;
    while (j < text.size() && isTemplateChar(text[j])) ++j;
    if (j == i + 1 || j >= text.size() || text[j] != '%') {
      result += text[i++];
      continue;
    }
    const Str ref = text.substr(i + 1, j - i - 1);
    if (store.byName.count(ref) == 0) {
      gLogger.warn("Unable to find eventtype %s referenced by eventtype %s", ref.c_str(), name.c_str());
      result.append(text, i, j + 1 - i);
    } else {
      Str sub;
      if (!Locked_templateQuery(ref, path, sub, err)) return false;
      gLogger.debug("Replaced '%s' with '%s'", ref.c_str(), sub.c_str());
      result += "(" + sub + ")";
    }
    i = j + 1;
  }
  path.pop_back();
  out = result;
  return true;
}

// --- schedules ------------------------------------------------------------------------

time_t SavedVelmorManager::getNextRun(const SavedVelmor& s, time_t now) {
  if (s.schedule.empty()) return 0;
  if (!CronInterval(s.schedule).isValid()) {
    gLogger.warn("%s::%s: %s", kClass, "getNextRun", CronInterval(s.schedule).error().c_str());
    return 0;
  }
  if (now == 0) now = ::time(nullptr);
  const time_t next = static_cast<time_t>(CronInterval::nextCronInterval(s.schedule, static_cast<long>(now)));
  struct tm tm;
  localtime_r(&next, &tm);
  char buf[64];
  strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &tm);
  gLogger.debug("[now=%lu] based on schedule=%s is nextrun='%s'", (unsigned long)now, s.schedule.c_str(), buf);
  return next;
}

void SavedVelmorManager::getHTTPPort(Str& out) {
  out = "8000";
  std::unique_ptr<PropertiesMap> settings = PropertyPages::instance("web").get("settings");
  Str port;
  if (settings && settings->get("httpport", port) && !port.empty()) out = port;
}

// --- management calls -------------------------------------------------------------------

bool SavedVelmorManager::handleSoapCall(const Str& callName, const xml::node& args, const Str& user, Str& reply) {
  if (callName == "saveVelmor") {
    reply = saveVelmor(args, user);
  } else if (callName == "deleteVelmor") {
    reply = deleteVelmor(args, user);
  } else if (callName == "renameVelmor") {
    reply = renameVelmor(args, user);
  } else if (callName == "getUserVelmor") {
    reply = getUserVelmor(args, user);
  } else if (callName == "getUserVelmors") {
    reply = getUserVelmors(args, user);
  } else if (callName == "getAllTags") {
    Str type = childText(args, "type");
    if (type.empty()) type = "savedsearch";
    const Str tag = childText(args, "tag");
    bool isEventType;
    if (!typeFromName(type, isEventType)) {
      reply = errorXml("Unknown type '" + type + "'");
    } else {
      TagCache visible;
      std::vector<SavedVelmor> all;
      getAllVelmors(type, all, user);
      for (const SavedVelmor& s : all)
        for (const Str& t : s.tagList()) visible.add(t, s.name);
      reply = "<savedVelmorRet>" + visible.xml(type, tag) + "</savedVelmorRet>";
    }
  } else if (callName == "getByExample") {
    SavedVelmor example;
    xml::node n = savedVelmorNode(args);
    if (!n.empty()) example.fromxml(n);
    std::vector<SavedVelmor> found;
    getByExample(example, found, user);
    reply = "<savedVelmorRet>";
    for (const SavedVelmor& s : found) {
      Str x;
      s.toxml(x);
      reply += x;
    }
    reply += "</savedVelmorRet>";
  } else {
    Str text = Str::fromFormat("%s::%s: No soap api call for %s", kClass, "handleSoapCall", callName.c_str());
    gLogger.warn("%s", text.c_str());
    reply = errorXml(text);
    return false;
  }
  return reply.compare(0, 7, "<error>") != 0;
}

Str SavedVelmorManager::saveVelmor(const xml::node& args, const Str& user) {
  xml::node n = savedVelmorNode(args);
  SavedVelmor s;
  if (!n.empty()) s.fromxml(n);
  if (s.name.empty()) return errorXml("No name specified");
  if (s.isEventType.empty()) return errorXml("No isEventType specified");
  Str err;
  if (!save(s, s.global() ? BundleType::global : BundleType::user, user, err)) {
    if (err.compare(0, strlen(kSaveFailedPrefix), kSaveFailedPrefix) == 0) return errorXml("Unable to save velmor");
    return errorXml(err);
  }
  Str x;
  s.toxml(x);
  return "<savedVelmorRet>" + x + "</savedVelmorRet>";
}

Str SavedVelmorManager::deleteVelmor(const xml::node& args, const Str& user) {
  xml::node n = savedVelmorNode(args);
  if (n.empty()) n = args;
  const Str name = childText(n, "name");
  const Str isEventType = childText(n, "isEventType");
  if (name.empty()) return errorXml("No name specified");
  if (isEventType.empty()) return errorXml("No isEventType specified");
  Str err;
  if (!remove(name, SavedVelmor::isTrue(isEventType), user, err)) return errorXml(err);
  Str out = "<savedVelmorRet><name>";
  SavedVelmor::appendXmlEscaped(out, name);
  return out + "</name></savedVelmorRet>";
}

Str SavedVelmorManager::renameVelmor(const xml::node& args, const Str& user) {
  xml::node n = savedVelmorNode(args);
  if (n.empty()) n = args;
  const Str name = childText(n, "name");
  Str newName = childText(args, "newName");
  if (newName.empty()) newName = childText(n, "newName");
  const Str isEventType = childText(n, "isEventType");
  if (name.empty() || newName.empty()) return errorXml("No name specified");
  if (isEventType.empty()) return errorXml("No isEventType specified");
  Str err;
  if (!rename(name, newName, SavedVelmor::isTrue(isEventType), user, err)) return errorXml(err);
  Str out = "<savedVelmorRet><name>";
  SavedVelmor::appendXmlEscaped(out, newName);
  return out + "</name></savedVelmorRet>";
}

Str SavedVelmorManager::getUserVelmor(const xml::node& args, const Str& user) {
  xml::node n = savedVelmorNode(args);
  if (n.empty()) n = args;
  const Str name = childText(n, "name");
  if (name.empty()) return errorXml("No name specified");
  const Str isEventType = childText(n, "isEventType");
  SavedVelmor s;
  if (!getVelmorByKey(name, SavedVelmor::isTrue(isEventType) ? "eventtype" : "savedsearch", s, user))
    return errorXml(Str::fromFormat("Unable to find saved velmor with name = %s", name.c_str()));
  Str x;
  s.toxml(x);
  return "<savedVelmorRet>" + x + "</savedVelmorRet>";
}

Str SavedVelmorManager::getUserVelmors(const xml::node& args, const Str& user) {
  xml::node n = savedVelmorNode(args);
  if (n.empty()) n = args;
  const Str isEventType = childText(n, "isEventType");
  std::vector<SavedVelmor> all;
  getAllVelmors(SavedVelmor::isTrue(isEventType) ? "eventtype" : "savedsearch", all, user);
  Str out = "<savedVelmorRet>";
  for (const SavedVelmor& s : all) {
    Str x;
    s.toxml(x);
    out += x;
  }
  return out + "</savedVelmorRet>";
}
