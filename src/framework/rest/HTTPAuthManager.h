// HTTPAuthManager: turns credentials into sessions and requests into users.
//
// login() asks the authentication back end (MAuthenticationManager) and, on
// success, opens a session under a new random key (128 bits, hex). A session
// lives while it is used: each valid use stamps it, and one idle longer than
// the session timeout is gone (server.conf [general] sessionTimeout, in
// seconds, default 3600). removeTimedoutAuthInfo() sweeps idle sessions and
// digest nonces; the service calls it on a timer.
//
// authenticate() asks, in this order, the header, post, old-school and digest
// forms (see HTTPAuthManagerBase) and refuses a request none of them accepts
// with a 401 that carries a digest challenge, so that clients that speak
// digest (browsers, curl --digest) can answer it.
//
// Ownership: instance() lives until exit; tests build their own. The back end
// is shared with whoever else uses it. Threads: every member may be called
// from any request thread at once; sessions and nonces sit behind one mutex,
// which is never held while calling the back end.
#pragma once

#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "framework/rest/HTTPAuthManagerBase.h"
#include "util/Mutex.h"
#include "util/Str.h"

class MAuthenticationManager;

struct AuthInfo {
  Str key;       // the session key
  Str user;
  Str userId;
  time_t created = 0;
  time_t lastUsed = 0;
};

class HTTPAuthManager {
 public:
  using Clock = std::function<time_t()>;
  static const char* const kRealm;  // "/velmor"

  // The process-wide manager, its timeout read from server.conf at first use.
  static HTTPAuthManager& instance();
  // A manager of its own with no back end (login refuses until setBackend).
  explicit HTTPAuthManager(long sessionTimeoutSecs = 3600);
  ~HTTPAuthManager();
  HTTPAuthManager(const HTTPAuthManager&) = delete;
  HTTPAuthManager& operator=(const HTTPAuthManager&) = delete;

  // Installs the back end; every open session is dropped.
  void setBackend(std::shared_ptr<MAuthenticationManager> backend);
  std::shared_ptr<MAuthenticationManager> backend() const;
  void setSessionTimeout(long secs);
  long sessionTimeout() const;
  // The time source (seconds); the default is time(2). For tests.
  void setClock(Clock clock);
  time_t now() const;

  // True and a new session key in `key` when the back end accepts the pair.
  bool login(const Str& user, const Str& password, Str& key);
  // True when `key` names a live session whose user the back end still
  // accepts; stamps it and copies it into `info` when given.
  bool isUserSessionValid(const Str& key, AuthInfo* info = nullptr);
  // 32 hex digits from RAND_bytes; throws std::runtime_error if the random
  // source fails.
  static void createAuthString(Str& out);
  bool getAuthInfo(const Str& key, AuthInfo& out);
  void setAuthInfo(const AuthInfo& info);
  size_t sessionCount() const;
  // Drops sessions and nonces idle longer than the timeout; logs and returns
  // how many sessions went.
  int removeTimedoutAuthInfo();
  // Drops every session and nonce. Needs the capability
  // "bounce_authentication" for the calling thread's user; false with the
  // reason in `err` without it.
  bool bounce(Str& err);

  // True with the user in `user` (and in the request) when the request
  // carries valid credentials; false with a reply made with new otherwise.
  bool authenticate(const HTTPRequest* req, Str& user, HTTPReply*& reply);

  // --- digest ---------------------------------------------------------------
  // The WWW-Authenticate value of a challenge with a fresh nonce.
  Str newDigestChallenge();
  // A 401 "WARN" with `text` and a fresh digest challenge.
  HTTPReply* createRefusal(const Str& text);
  const Str& digestOpaque() const { return _opaque; }
  // The last count used with a nonce we gave out (0 before its first use).
  bool getNonceCount(const Str& nonce, long& last);
  // Sets the count to `nc` if it is still `expected`; false if it moved.
  bool setNonceCount(const Str& nonce, long expected, long nc);

 private:
  struct NonceInfo {
    long nc = 0;
    time_t lastUsed = 0;
  };
  bool Locked_expired(time_t lastUsed, time_t now) const;

  mutable Mutex _mutex;
  std::map<Str, AuthInfo> _sessions;  // by key
  std::map<Str, NonceInfo> _nonces;
  std::shared_ptr<MAuthenticationManager> _backend;
  long _timeout;
  Clock _clock;
  Str _opaque;
  std::vector<std::unique_ptr<HTTPAuthManagerBase>> _impls;  // in the order they are asked
};
