// HTTPRestDispatcher: routes requests below "/services" to the handlers of
// restmap.conf's stanzas.
//
// Each stanza "<type>:<name>" has a "match" expression tried (unanchored)
// against the path behind "/services"; stanzas are tried in the byte order of
// their names and the first match wins. The type names the handler
// registered with registerHandler ("script" is built in). Before the handler
// runs, the dispatcher authenticates the request when the stanza has
// "requireAuthentication", checks the capability of the method
// ("capability.get", ... else "capability"; UserManager::checkUserPerms with
// the request's user, which is also the thread's UserContext for the check
// and the handler call; capabilities named here are registered at load)
// and, for any method but GET,
// the stanza's parameter "spec" (see SpecErrors). A stanza's "xsl" style
// sheet, looked for in "xsl" and then at the top of each bundle directory, is
// applied to the handler's reply. "/services/auth/login" opens sessions; the
// stanza "global" holds "allowGetAuth" (credentials in the query string too).
//
// Ownership: handlers belong to whoever registers them; the dispatcher owns
// the stanzas and the script handler. instance() lives until exit and uses
// HTTPAuthManager::instance(); tests build their own with their own manager.
// Threads: handleRequest from many request threads at once; the stanza list
// and handler table are read under the dispatcher's mutex, which is not held
// while a handler runs. loadConfig and registerHandler may run at any time.
#pragma once

#include <map>
#include <memory>
#include <vector>

#include "framework/http/MHttpRequestHandler.h"
#include "framework/rest/HTTPScriptHandler.h"
#include "util/Mutex.h"
#include "util/Pathname.h"
#include "util/Str.h"

class HTTPAuthManager;
class MRestHandler;
class PropertyPages;
class RestMapData;

class HTTPRestDispatcher : public MHttpRequestHandler {
 public:
  static const char* const kServicesPrefix;  // "/services"
  static const char* const kRootListRegex;   // "^/(\\w+)(\\$|/\\$|/\\?\\$)?$"

  static HTTPRestDispatcher& instance();
  explicit HTTPRestDispatcher(HTTPAuthManager& auth);
  ~HTTPRestDispatcher() override;
  HTTPRestDispatcher(const HTTPRestDispatcher&) = delete;
  HTTPRestDispatcher& operator=(const HTTPRestDispatcher&) = delete;

  // Stanzas of type `type` go to `handler` (which may be null to remove).
  void registerHandler(const Str& type, MRestHandler* handler);
  // (Re)reads the stanzas from `pages`, or from PropertyPages::instance(name)
  // when null. Bad stanzas are logged and left out. False when no bundle has
  // the file.
  bool loadConfig(const Str& name = "restmap", PropertyPages* pages = nullptr);

  HTTPReply* handleRequest(const FdConnectionData& conn, const HTTPRequest* req) override;

  // The Atom list of the services, not cached by clients.
  HTTPReply* createListReply(const HTTPRequest* req);
  // Every reply leaves through here: a 401 gets a digest challenge if it has
  // none. Returns `reply` (a 500 when it is null).
  HTTPReply* authAndReply(HTTPReply* reply, const HTTPRequest* req);

  bool allowGetAuth() const;
  // Whether a path outside "/services" gets the list of services.
  static bool matchesRootList(const Str& path);

 private:
  HTTPReply* dispatch(const FdConnectionData& conn, const HTTPRequest* req);
  HTTPReply* login(const HTTPRequest* req);
  void applyXsl(HTTPReply* reply, const RestMapData& rmd);
  Pathname findXsl(const Str& name);
  void Locked_initHandler(const Str& type, MRestHandler* handler);

  HTTPAuthManager& _auth;
  mutable Mutex _mutex;
  std::vector<std::shared_ptr<RestMapData>> _stanzas;  // in the order they are tried
  std::map<Str, MRestHandler*> _handlers;               // by type
  std::vector<Pathname> _bundleDirs;                    // highest precedence first
  bool _allowGetAuth = false;
  HTTPScriptHandler _scriptHandler;
};
