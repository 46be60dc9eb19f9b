// SavedVelmorManager: the saved search store. Users keep named searches and
// event types (both SavedVelmor objects) in property files; the store holds
// them in memory by name, keeps a TagCache per store, checks who may change
// what, and answers the management calls.
//
// Where things live. Saved searches are the stanzas of savedsearches.conf,
// event types those of eventtypes.conf, one stanza per name, across the
// bundles in their usual precedence (local first, default last). Writes go
// to the bundle "local" through the property-file layer: there are no
// per-user bundles, so a user's own search is written there too and carries
// its "userid" (BundleType::user), while a global one has isGlobal = true
// (BundleType::global). Names are one space per store, whoever owns them.
// A stanza that only a lower bundle (say "default") holds cannot be removed.
//
// Who sees what. `user` is who acts; the empty user is the process itself
// (internal jobs, tests) and sees and may change everything: callers acting
// for a person (REST, management calls) must pass that person's name. Others see the
// global searches, those with no "userid", and their own.
//
// Who may change what, through UserManager::checkUserPerms(capability,
// user): event types need "edit_eventtype"; global searches
// "edit_local_search"; searches with a "role" "edit_role_search"; a user's
// own searches "edit_user_searches"; another user's non-global search can't
// be changed ("You don't have permission  to ..."). Changing "schedule" or
// "enableSched" needs "schedule_search" as well. instance() registers these
// capabilities.
//
// Freshness. The maps are read from the files at first use and re-read when
// a file of either store changed on disk (size, mtime or inode of any
// bundle's file). The check runs at most once a second (reload() forces it),
// so a velmord and a command-line tool see each other's saves within about
// a second; the store's own writes are seen at once.
//
// DESIGN. One mutex guards the maps, the tag caches and the writes, so a
// save's check, file write and map update are one step. It is taken before
// the property-file locks (lock order: SavedVelmorManager, PropertyPages,
// PropertiesMapConfig) and is held while UserManager answers a permission
// check, which takes only UserManager's own lock and never calls back.
//
// Threads: every public member may be called from any thread.
#pragma once

#include <ctime>
#include <list>
#include <map>
#include <memory>
#include <vector>

#include "framework/SavedVelmor.h"
#include "framework/TagCache.h"
#include "util/Mutex.h"
#include "util/Str.h"

class PropertyPages;
namespace xml {
class node;
}

class SavedVelmorManager {
 public:
  // The capabilities this store checks.
  static const char* const kCapEditEventtype;     // "edit_eventtype"
  static const char* const kCapEditLocalSearch;   // "edit_local_search"
  static const char* const kCapEditRoleSearch;    // "edit_role_search"
  static const char* const kCapEditUserSearches;  // "edit_user_searches"
  static const char* const kCapScheduleSearch;    // "schedule_search"

  // The store of the process ("SavedVelmorManager::instance: savedvelmormanager
  // instance() called" at debug level on first use).
  static SavedVelmorManager& instance();

  // --- changing ---------------------------------------------------------------
  // Each returns false with the message in `err`; `user` is who acts.
  // Insert or replace. `where` sets isGlobal ("true" for global) and, for a
  // user's search, "userid" to `user` when it is empty. A replaced search's
  // owner stays its owner.
  bool save(SavedVelmor& s, BundleType where, const Str& user, Str& err);
  bool remove(const Str& name, bool isEventType, const Str& user, Str& err);
  // A save under `newName` and a remove of `name`.
  bool rename(const Str& name, const Str& newName, bool isEventType, const Str& user, Str& err);
  // Removes every search of the store `type` owned by `userid` (when a user
  // goes); the count removed.
  int deleteVelmorsByUserId(const Str& type, const Str& userid);

  // --- reading ----------------------------------------------------------------
  // `type` is "savedsearch" or "eventtype" (an unknown type finds nothing).
  bool getVelmorByKey(const Str& name, const Str& type, SavedVelmor& out, const Str& user);
  bool gotVelmorByKey(const Str& name, const Str& type, const Str& user);
  // Sorted by name. With `scheduledOnly`, those with enableSched true and a
  // schedule.
  void getAllVelmors(const Str& type, std::vector<SavedVelmor>& out, const Str& user);
  void getAllVelmors(const Str& type, std::vector<SavedVelmor>& out, const Str& user, bool scheduledOnly);
  void getVelmorNames(const Str& type, std::list<Str>& out, const Str& user);
  // The searches (of the store the example's isEventType names, both when it
  // is unset) whose every field set in `example` equals the example's.
  void getByExample(const SavedVelmor& example, std::vector<SavedVelmor>& out, const Str& user);
  void getVelmorsForTag(const Str& type, const Str& tag, std::vector<SavedVelmor>& out, const Str& user);
  // Every tag of the store `type` carried by a search `user` sees, sorted.
  std::vector<Str> getAllTags(const Str& type, const Str& user);

  // The text of event type `name` (its "query"), with each "%other%" token
  // replaced by "(" + other's text + ")", recursively. The logical words pass
  // through. False (reason in `err`, also logged) for an unknown name, a
  // reference cycle, or a text with a pipe ("The eventtype's 'search' field
  // has unsupported syntax: "). An unknown "%other%" stays as it is written.
  bool getEventTypeTemplateQuery(const Str& name, Str& out);
  bool getEventTypeTemplateQuery(const Str& name, Str& out, Str& err);

  // The next run of `s` after `now` (0: now) from its "schedule"; 0 when it
  // has none or it does not parse. Logs "[now=%lu] based on schedule=%s is
  // nextrun='%s'".
  time_t getNextRun(const SavedVelmor& s, time_t now);
  // "httpport" of the "settings" stanza of web.conf, "8000" by default.
  void getHTTPPort(Str& out);

  // --- management calls ---------------------------------------------------------
  // Routes "saveVelmor", "deleteVelmor", "renameVelmor", "getUserVelmor",
  // "getUserVelmors", "getAllTags", "getByExample"; any other name answers
  // false with `reply` "<error>%s::%s: No soap api call for %s</error>".
  // `args` is the call's element: a <savedVelmor> (or one as its child) plus,
  // for renames, <newName>; for tags, <type> and optional <tag>.
  bool handleSoapCall(const Str& callName, const xml::node& args, const Str& user, Str& reply);
  // Each answers an XML reply: <error>...</error> on failure, else
  // <savedVelmorRet>...</savedVelmorRet>.
  Str saveVelmor(const xml::node& args, const Str& user);
  Str deleteVelmor(const xml::node& args, const Str& user);
  Str renameVelmor(const xml::node& args, const Str& user);
  Str getUserVelmor(const xml::node& args, const Str& user);
  Str getUserVelmors(const xml::node& args, const Str& user);

  // --- plumbing -------------------------------------------------------------------
  // Re-reads both stores from the files now.
  void reload();
  // The property files of a store.
  static PropertyPages& getVelmorConf(ConfigTypeEnum type);
  static bool typeFromName(const Str& type, bool& isEventType);
  // May `user` see `s`?
  static bool canSee(const SavedVelmor& s, const Str& user);

 private:
  SavedVelmorManager();

  struct Store {
    std::map<Str, SavedVelmor> byName;
    TagCache tags;
    std::vector<Str> fileSignature;  // what the files looked like when read
  };

  Store& getSSMap(bool isEventType) { return isEventType ? _eventTypes : _savedSearches; }
  TagCache& getCacheBySSType(bool isEventType) { return getSSMap(isEventType).tags; }

  void Locked_refresh(bool force);
  void Locked_populateMap(bool isEventType, bool force);
  bool Locked_canEditSavedSearch(const Str& action, const SavedVelmor& s, const SavedVelmor* existing,
                                 const Str& user, Str& err);
  bool Locked_save(SavedVelmor& s, const Str& user, Str& err);
  bool Locked_remove(const Str& name, bool isEventType, const Str& user, bool checkPerms, Str& err);
  bool saveSSToFile(const SavedVelmor& s, const SavedVelmor* existing);
  void saveSSToMng(const SavedVelmor& s);
  void cacheVelmorTags(const SavedVelmor& s);
  bool Locked_templateQuery(const Str& name, std::vector<Str>& path, Str& out, Str& err);

  Mutex _mutex;
  Store _savedSearches;
  Store _eventTypes;
  time_t _lastCheck = 0;
  bool _loaded = false;
};
