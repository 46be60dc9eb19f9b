#include "framework/rest/HTTPRestDispatcher.h"

#include <cassert>
#include <cstring>
#include <ctime>
#include <exception>
#include <set>

#include "framework/UserManager.h"
#include "framework/http/AtomFeed.h"
#include "framework/http/FdConnectionData.h"
#include "framework/http/HTTPReply.h"
#include "framework/http/HTTPRequest.h"
#include "framework/rest/HTTPAuthManager.h"
#include "framework/rest/MRestHandler.h"
#include "framework/rest/RestMapData.h"
#include "framework/rest/SpecErrors.h"
#include "libbundle/PropertyPages.h"
#include "util/Logger.h"
#include "util/RE.h"
#include "util/xml/XmlInit.h"
#include "util/xml/XmlTreeParser.h"
#include "util/xml/XsltStylesheet.h"

static Logger gLogger("HTTPRestDispatcher");

const char* const HTTPRestDispatcher::kServicesPrefix = "/services";
const char* const HTTPRestDispatcher::kRootListRegex = "^/(\\w+)(\\$|/\\$|/\\?\\$)?$";

namespace {

const char* const kScriptType = "script";
const char* const kLoginPath = "/auth/login";

bool startsWith(const Str& s, const char* prefix) { return s.compare(0, strlen(prefix), prefix) == 0; }

// The path a plain "match" names ("^/search$" -> "/search"); "" when the
// expression is more than a literal path.
Str literalPath(const Str& match) {
  Str m = match;
  if (!m.empty() && m.front() == '^') m.erase(0, 1);
  if (!m.empty() && m.back() == '$') m.pop_back();
  if (m.empty() || m.front() != '/' || m.find_first_of(".*+?()[]{}|\\^$") != Str::npos) return "";
  return m;
}

Str nowRfc3339() {
  time_t t = time(nullptr);
  struct tm tmv;
  gmtime_r(&t, &tmv);
  char buf[32];
  strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &tmv);
  return buf;
}

}  // namespace

HTTPRestDispatcher& HTTPRestDispatcher::instance() {
  static HTTPRestDispatcher* gInstance = new HTTPRestDispatcher(HTTPAuthManager::instance());
  return *gInstance;
}

HTTPRestDispatcher::HTTPRestDispatcher(HTTPAuthManager& auth) : _auth(auth) {}

HTTPRestDispatcher::~HTTPRestDispatcher() = default;

bool HTTPRestDispatcher::matchesRootList(const Str& path) {
  static const RE re(kRootListRegex);
  return re.PartialMatch(path);
}

bool HTTPRestDispatcher::allowGetAuth() const {
  ScopedLock l(_mutex);
  return _allowGetAuth;
}

void HTTPRestDispatcher::Locked_initHandler(const Str& type, MRestHandler* handler) {
  std::map<Str, RestMapData*> mine;
  for (const auto& s : _stanzas)
    if (s->type() == type) mine[s->stanzaName()] = s.get();
  handler->init(mine);
}

void HTTPRestDispatcher::registerHandler(const Str& type, MRestHandler* handler) {
  ScopedLock l(_mutex);
  if (handler == nullptr) {
    _handlers.erase(type);
    return;
  }
  _handlers[type] = handler;
  Locked_initHandler(type, handler);
}

bool HTTPRestDispatcher::loadConfig(const Str& name, PropertyPages* pages) {
  PropertyPages& pp = pages ? *pages : PropertyPages::instance(name);
  std::vector<Pathname> dirs;
  bool exists = false;
  for (PropertiesMapConfig* c : pp.getConfigs()) {
    dirs.push_back(c->getBundlePath());
    exists = exists || c->getPath().exists();
  }
  std::set<Str> names;
  pp.keys(names);
  std::vector<std::shared_ptr<RestMapData>> stanzas;
  bool allowGet = false;
  for (const Str& stanza : names) {
    if (stanza == "default") continue;
    PropertiesMap props;
    pp.fillLayers(props, stanza, false);
    if (stanza == "global") {
      PropertyPages::layeredFind("allowGetAuth", props, allowGet);
      continue;
    }
    Str err;
    std::shared_ptr<RestMapData> d = RestMapData::fromStanza(stanza, props, err);
    if (!d) {
      gLogger.error("%s", err.c_str());
      continue;
    }
    if (!d->spec().empty() && !SpecErrors::checkSpec(d->spec(), err)) {
      gLogger.error("'spec' error for stanza %s = %s", stanza.c_str(), err.c_str());
      continue;
    }
    // A stanza that names a capability declares it, as a component would.
    for (const char* key : {"capability", "capability.get", "capability.post", "capability.put", "capability.delete"}) {
      Str cap;
      if (PropertyPages::layeredFind(key, d->props(), cap)) UserManager::registerCapability("restmap", cap);
    }
    stanzas.push_back(std::move(d));
  }
  if (!exists) gLogger.warn("restmap.conf does not exists");
  _scriptHandler.setScriptDirs(dirs);
  ScopedLock l(_mutex);
  _stanzas = std::move(stanzas);
  _bundleDirs = std::move(dirs);
  _allowGetAuth = allowGet;
  for (const auto& h : _handlers) Locked_initHandler(h.first, h.second);
  return exists;
}

HTTPReply* HTTPRestDispatcher::handleRequest(const FdConnectionData& conn, const HTTPRequest* req) {
  HTTPReply* reply = nullptr;
  try {
    reply = dispatch(conn, req);
  } catch (const std::exception& e) {
    gLogger.error("Request %s %s failed: %s", req->method().c_str(), req->path().c_str(), e.what());
    delete reply;
    reply = HTTPReply::createErrorXMLReply(500, "ERROR", e.what());
  }
  return authAndReply(reply, req);
}

HTTPReply* HTTPRestDispatcher::authAndReply(HTTPReply* reply, const HTTPRequest* /*req*/) {
  if (reply == nullptr) return HTTPReply::createErrorXMLReply(500, "ERROR", "The handler gave no reply");
  if (reply->status() == 401) {
    bool hasChallenge = false;
    for (const auto& h : reply->extraHeaders()) hasChallenge = hasChallenge || h.first == "WWW-Authenticate";
    if (!hasChallenge) reply->addHeader("WWW-Authenticate", _auth.newDigestChallenge());
  }
  return reply;
}

HTTPReply* HTTPRestDispatcher::createListReply(const HTTPRequest* /*req*/) {
  AtomFeed feed;
  feed.title = "services";
  feed.id = kServicesPrefix;
  feed.updated = nowRfc3339();
  feed.links.push_back(AtomLink{kServicesPrefix, "self", ""});
  std::vector<std::shared_ptr<RestMapData>> stanzas;
  {
    ScopedLock l(_mutex);
    stanzas = _stanzas;
  }
  AtomEntry login;
  login.title = "auth/login";
  login.id = Str(kServicesPrefix) + kLoginPath;
  login.updated = feed.updated;
  login.links.push_back(AtomLink{login.id, "alternate", ""});
  feed.entries.push_back(login);
  for (const auto& s : stanzas) {
    AtomEntry e;
    e.title = s->name();
    Str path = literalPath(s->match());
    e.id = path.empty() ? s->stanzaName() : Str(kServicesPrefix) + path;
    e.updated = feed.updated;
    if (!path.empty()) e.links.push_back(AtomLink{Str(kServicesPrefix) + path, "alternate", ""});
    feed.entries.push_back(std::move(e));
  }
  HTTPReply* r = HTTPReply::createAtomReply(feed);
  r->addHeader("Cache-Control", "no-cache");
  return r;
}

HTTPReply* HTTPRestDispatcher::login(const HTTPRequest* req) {
  const HTTPRequest::Params& body = req->postParams();
  auto first = [](const HTTPRequest::Params& p, const char* key) -> const Str* {
    auto it = p.find(key);
    return it == p.end() || it->second.empty() ? nullptr : &it->second.front();
  };
  const Str* user = first(body, "username");
  const Str* password = first(body, "password");
  if ((user == nullptr || password == nullptr) && allowGetAuth()) {
    user = first(req->getParams(), "username");
    password = first(req->getParams(), "password");
  }
  if (user == nullptr || password == nullptr)
    return HTTPReply::createErrorXMLReply(400, "WARN", "Login requires username and password");
  Str key;
  if (!_auth.login(*user, *password, key)) return HTTPReply::createErrorXMLReply(401, "WARN", "Login failed");
  return HTTPReply::createReply(200, "<response>\n<sessionKey>" + key + "</sessionKey>\n</response>", "text/xml",
                                false);
}

HTTPReply* HTTPRestDispatcher::dispatch(const FdConnectionData& conn, const HTTPRequest* req) {
  const Str& full = req->path();
  const size_t plen = strlen(kServicesPrefix);
  if (!startsWith(full, kServicesPrefix) || (full.size() > plen && full[plen] != '/'))
    return matchesRootList(full) ? createListReply(req) : HTTPReply::createNotFoundErrorReply();
  const Str path = full.substr(plen);
  if (path.empty() || path == "/") return createListReply(req);
  if (startsWith(path, kLoginPath)) return login(req);

  std::shared_ptr<RestMapData> rmd;
  MRestHandler* handler = nullptr;
  {
    ScopedLock l(_mutex);
    for (const auto& s : _stanzas) {
      gLogger.debug("path=%s regex=%s", path.c_str(), s->match().c_str());
      if (s->regex().PartialMatch(path)) {
        gLogger.debug("      we have a match...");
        rmd = s;
        break;
      }
    }
    if (!rmd) return HTTPReply::createNotFoundErrorReply();
    if (rmd->type() == kScriptType) {
      handler = &_scriptHandler;
    } else {
      auto it = _handlers.find(rmd->type());
      if (it != _handlers.end()) handler = it->second;
    }
  }
  assert(rmd != nullptr && "pRMD != __null");
  if (handler == nullptr) {
    gLogger.error("Service was not registered but is in restmap.con - %s", rmd->stanzaName().c_str());
    return HTTPReply::createNotFoundErrorReply();
  }

  Str user;
  if (rmd->requireAuthentication()) {
    HTTPReply* refusal = nullptr;
    if (!_auth.authenticate(req, user, refusal)) return refusal;
    req->setUser(user);
  }
  UserContext ctx;
  ctx.user = user;
  if (!user.empty()) ctx.searchFilters = UserManager::getSearchFilters(user);
  UserContext::Scope scope(ctx);

  if (rmd->requireAuthentication()) {
    Str cap = rmd->capabilityFor(req->method());
    // The answerer knows users, not paths: it gets the user, and the path
    // goes to the log as the action refused.
    if (!cap.empty() && !UserManager::checkUserPerms(cap, user)) {
      gLogger.warn("Permission failed for action '%s'", ("REST: " + full).c_str());
      return HTTPReply::createErrorXMLReply(401, "WARN",
                                            "Permission denied: the capability '" + cap + "' is required");
    }
  }

  if (req->method() != "GET" && !rmd->spec().empty()) {
    HTTPRequest::Params all = req->getParams();
    for (const auto& kv : req->postParams()) {
      std::vector<Str>& v = all[kv.first];
      v.insert(v.end(), kv.second.begin(), kv.second.end());
    }
    SpecErrors errors;
    if (!errors.validate(rmd->spec(), all)) return HTTPReply::createReply(500, errors.toXML(), "text/xml", false);
  }

  HTTPReply* reply = handler->handleRequest(conn, req, path, *rmd);
  if (reply != nullptr && !rmd->xsl().empty()) applyXsl(reply, *rmd);
  return reply;
}

Pathname HTTPRestDispatcher::findXsl(const Str& name) {
  if (name.find("..") != Str::npos) return Pathname();
  Pathname p(name);
  if (p.isAbsolute()) return p.exists() ? p : Pathname();
  std::vector<Pathname> dirs;
  {
    ScopedLock l(_mutex);
    dirs = _bundleDirs;
  }
  for (const Pathname& d : dirs) {
    for (const Pathname& c : {d / "xsl" / name, d / name})
      if (c.isFile()) return c;
  }
  return Pathname();
}

void HTTPRestDispatcher::applyXsl(HTTPReply* reply, const RestMapData& rmd) {
  Pathname file = findXsl(rmd.xsl());
  if (file.empty()) {
    gLogger.warn("XSL file not found: %s", rmd.xsl().c_str());
    gLogger.warn("Transform %s did not work or file not found", rmd.xsl().c_str());
    return;
  }
  gLogger.debug("XSL file found: %s", file.c_str());
  gLogger.info("Performing XSL transform using file: %s", file.c_str());
  try {
    xml::init::ensure();
    xml::tree_parser parser(reply->body().data(), reply->body().size(), false);
    std::string out;
    if (!parser.failed()) {
      xslt::stylesheet sheet(file.c_str());
      if (sheet.apply_to_string(parser.get_document(), out)) {
        reply->setBody(out);
        reply->setStatus(200);
        reply->setContentType("text/xml");
        return;
      }
    }
  } catch (const std::exception& e) {
    gLogger.debug("XSL %s: %s", file.c_str(), e.what());
  }
  gLogger.warn("Transform %s did not work or file not found", file.c_str());
}
