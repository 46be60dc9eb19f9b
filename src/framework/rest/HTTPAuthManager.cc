#include "framework/rest/HTTPAuthManager.h"

#include <openssl/rand.h>

#include <stdexcept>

#include "framework/UserManager.h"
#include "framework/auth/MAuthenticationManager.h"
#include "framework/http/HTTPReply.h"
#include "framework/http/HTTPRequest.h"
#include "framework/rest/HTTPDigestAuthenticationImpl.h"
#include "framework/rest/HTTPHeaderAuthenticationImpl.h"
#include "framework/rest/HTTPOldSchoolAuthenticationImpl.h"
#include "framework/rest/HTTPPostAuthenticationImpl.h"
#include "libbundle/PropertyPages.h"
#include "util/Logger.h"

static Logger gLogger("HTTPAuthManager");

const char* const HTTPAuthManager::kRealm = "/velmor";

namespace {
// Enough of a key to tell sessions apart in the log, too little to use one.
Str keyForLog(const Str& key) { return key.size() > 6 ? key.substr(0, 6) + "..." : Str("..."); }
// Bounds the nonce table against clients that fetch challenges and never answer.
const size_t kMaxNonces = 10000;
}  // namespace

HTTPAuthManager& HTTPAuthManager::instance() {
  static HTTPAuthManager* gInstance = [] {
    long timeout = 3600;
    std::unique_ptr<PropertiesMap> general = PropertyPages::instance("server").get("general");
    if (general) {
      long v = 0;
      if (PropertyPages::layeredFind("sessionTimeout", *general, v) && v >= 0) timeout = v;
    }
    return new HTTPAuthManager(timeout);
  }();
  return *gInstance;
}

HTTPAuthManager::HTTPAuthManager(long sessionTimeoutSecs) : _timeout(sessionTimeoutSecs) {
  createAuthString(_opaque);
  _impls.push_back(std::make_unique<HTTPHeaderAuthenticationImpl>(*this));
  _impls.push_back(std::make_unique<HTTPPostAuthenticationImpl>(*this));
  _impls.push_back(std::make_unique<HTTPOldSchoolAuthenticationImpl>(*this));
  _impls.push_back(std::make_unique<HTTPDigestAuthenticationImpl>(*this));
}

HTTPAuthManager::~HTTPAuthManager() = default;

void HTTPAuthManager::setBackend(std::shared_ptr<MAuthenticationManager> backend) {
  ScopedLock l(_mutex);
  _backend = std::move(backend);
  _sessions.clear();
  _nonces.clear();
  gLogger.info("Authentication system initialized, clearing all previous sessions.");
}

std::shared_ptr<MAuthenticationManager> HTTPAuthManager::backend() const {
  ScopedLock l(_mutex);
  return _backend;
}

void HTTPAuthManager::setSessionTimeout(long secs) {
  ScopedLock l(_mutex);
  _timeout = secs;
}

long HTTPAuthManager::sessionTimeout() const {
  ScopedLock l(_mutex);
  return _timeout;
}

void HTTPAuthManager::setClock(Clock clock) {
  ScopedLock l(_mutex);
  _clock = std::move(clock);
}

time_t HTTPAuthManager::now() const {
  ScopedLock l(_mutex);
  return _clock ? _clock() : time(nullptr);
}

bool HTTPAuthManager::Locked_expired(time_t lastUsed, time_t now) const { return now - lastUsed > _timeout; }

void HTTPAuthManager::createAuthString(Str& out) {
  unsigned char buf[16];
  if (RAND_bytes(buf, sizeof buf) != 1) throw std::runtime_error("random source failed");
  static const char* kHex = "0123456789abcdef";
  out.clear();
  for (unsigned char b : buf) {
    out += kHex[b >> 4];
    out += kHex[b & 15];
  }
}

bool HTTPAuthManager::login(const Str& user, const Str& password, Str& key) {
  gLogger.info("login attempt");
  std::shared_ptr<MAuthenticationManager> be = backend();
  Str userId, err;
  if (!be || be->userLogin(user, password, userId, err) != 1) {
    gLogger.warn("login failed");
    return false;
  }
  createAuthString(key);
  gLogger.debug("Generated auth string %s", keyForLog(key).c_str());
  AuthInfo info;
  info.key = key;
  info.user = user;
  info.userId = userId;
  info.created = info.lastUsed = now();
  setAuthInfo(info);
  gLogger.info("login successful");
  return true;
}

bool HTTPAuthManager::isUserSessionValid(const Str& key, AuthInfo* out) {
  time_t t = now();
  AuthInfo info;
  {
    ScopedLock l(_mutex);
    auto it = _sessions.find(key);
    if (it != _sessions.end() && Locked_expired(it->second.lastUsed, t)) {
      _sessions.erase(it);
      it = _sessions.end();
    }
    if (it == _sessions.end()) {
      gLogger.info("isUserSessionValid=false - didn't find in infomap %s", keyForLog(key).c_str());
      return false;
    }
    info = it->second;
  }
  std::shared_ptr<MAuthenticationManager> be = backend();
  if (!be || !be->checkSession(info.user)) {
    gLogger.info("isUserSessionValid=false - didnt pass velmor auth check %s", keyForLog(key).c_str());
    return false;
  }
  {
    ScopedLock l(_mutex);
    auto it = _sessions.find(key);
    if (it == _sessions.end()) return false;  // bounced meanwhile
    it->second.lastUsed = t;
    info = it->second;
  }
  gLogger.debug("isUserSessionValid=true %s ts=%s", keyForLog(key).c_str(),
                Str::fromFormat("%lld", static_cast<long long>(t)).c_str());
  if (out) *out = info;
  return true;
}

bool HTTPAuthManager::getAuthInfo(const Str& key, AuthInfo& out) {
  ScopedLock l(_mutex);
  auto it = _sessions.find(key);
  if (it == _sessions.end()) return false;
  out = it->second;
  return true;
}

void HTTPAuthManager::setAuthInfo(const AuthInfo& info) {
  ScopedLock l(_mutex);
  _sessions[info.key] = info;
}

size_t HTTPAuthManager::sessionCount() const {
  ScopedLock l(_mutex);
  return _sessions.size();
}

int HTTPAuthManager::removeTimedoutAuthInfo() {
  time_t t = now();
  int removed = 0;
  {
    ScopedLock l(_mutex);
    for (auto it = _sessions.begin(); it != _sessions.end();) {
      if (Locked_expired(it->second.lastUsed, t)) {
        it = _sessions.erase(it);
        ++removed;
      } else {
        ++it;
      }
    }
    for (auto it = _nonces.begin(); it != _nonces.end();)
      it = Locked_expired(it->second.lastUsed, t) ? _nonces.erase(it) : std::next(it);
  }
  gLogger.info("Removed %d auth structures", removed);
  return removed;
}

bool HTTPAuthManager::bounce(Str& err) {
  const UserContext* ctx = UserContext::current();
  if (!UserManager::checkUserPerms("bounce_authentication", ctx ? ctx->user : Str())) {
    err = "You do not have permission to bounce user sessions";
    gLogger.warn("%s", err.c_str());
    return false;
  }
  gLogger.info("Bouncing auth system");
  ScopedLock l(_mutex);
  _sessions.clear();
  _nonces.clear();
  return true;
}

Str HTTPAuthManager::newDigestChallenge() {
  Str nonce;
  createAuthString(nonce);
  time_t t = now();
  {
    ScopedLock l(_mutex);
    if (_nonces.size() >= kMaxNonces) {
      auto oldest = _nonces.begin();
      for (auto it = _nonces.begin(); it != _nonces.end(); ++it)
        if (it->second.lastUsed < oldest->second.lastUsed) oldest = it;
      _nonces.erase(oldest);
    }
    _nonces[nonce].lastUsed = t;
  }
  return Str("Digest realm=\"") + kRealm + "\", nonce=\"" + nonce + "\", opaque=\"" + _opaque +
         "\", qop=\"auth\", algorithm=\"MD5\",";
}

HTTPReply* HTTPAuthManager::createRefusal(const Str& text) {
  HTTPReply* r = HTTPReply::createErrorXMLReply(401, "WARN", text);
  r->addHeader("WWW-Authenticate", newDigestChallenge());
  return r;
}

bool HTTPAuthManager::getNonceCount(const Str& nonce, long& last) {
  time_t t = now();
  ScopedLock l(_mutex);
  auto it = _nonces.find(nonce);
  if (it == _nonces.end() || Locked_expired(it->second.lastUsed, t)) return false;
  last = it->second.nc;
  return true;
}

bool HTTPAuthManager::setNonceCount(const Str& nonce, long expected, long nc) {
  time_t t = now();
  ScopedLock l(_mutex);
  auto it = _nonces.find(nonce);
  if (it == _nonces.end() || it->second.nc != expected) return false;
  it->second.nc = nc;
  it->second.lastUsed = t;
  return true;
}

bool HTTPAuthManager::authenticate(const HTTPRequest* req, Str& user, HTTPReply*& reply) {
  reply = nullptr;
  for (const auto& impl : _impls) {
    Str who, reason;
    HTTPReply* r = nullptr;
    EAuthState s = impl->authenticate(req, who, reason, r);
    if (s == AUTH_NOT_APPLICABLE) continue;
    if (s == AUTH_DECIDED) {
      if (r != nullptr) {
        reply = r;
        return false;
      }
      user = who;
      req->setUser(who);
      return true;
    }
    delete r;
    if (s == AUTH_REFUSED) {
      reply = createRefusal(reason);
      return false;
    }
    break;  // AUTH_END
  }
  gLogger.warn("No authentication provided for call. Refusing request");
  reply = createRefusal("No authentication provided for call. Refusing request");
  return false;
}
