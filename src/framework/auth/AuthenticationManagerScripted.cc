#include "framework/auth/AuthenticationManagerScripted.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "libbundle/PropertiesMap.h"
#include "util/ExternalProcessGroup.h"
#include "util/Logger.h"
#include "util/RE.h"

static Logger gLogger("AuthenticationManagerScripted");

namespace {

const int kScriptSeconds = 30;
const size_t kMaxOutput = 1 << 20;

// "10", "10s", "2m", "1h" as seconds; `def` for anything else.
int parseSeconds(const char* text, int def) {
  if (text == nullptr || *text == '\0') return def;
  char* end = nullptr;
  long n = strtol(text, &end, 10);
  if (end == text || n < 0) return def;
  long mult = 1;
  if (*end == 's') ++end;
  else if (*end == 'm') mult = 60, ++end;
  else if (*end == 'h') mult = 3600, ++end;
  if (*end != '\0' || n > 86400L * 365) return def;
  return static_cast<int>(n * mult);
}

Str quoteArg(const Str& s) { return s.find(' ') == Str::npos ? s : "'" + s + "'"; }

}  // namespace

bool scriptConfig::fromStanzas(const PropertiesMap& settings, const PropertiesMap* cacheTiming, scriptConfig& out,
                               Str& err) {
  out = scriptConfig();
  if (!settings.get("scriptPath", out.scriptPath) || out.scriptPath.empty()) {
    err = "No scriptPath set for scripted authentication";
    return false;
  }
  Str filters;
  if (settings.get("scriptSearchFilters", filters)) out.scriptSearchFilters = filters.toBool(false, false);
  if (cacheTiming) {
    out.getUserInfoTTL = parseSeconds(cacheTiming->get("getUserInfoTTL"), out.getUserInfoTTL);
    out.getUserTypeTTL = parseSeconds(cacheTiming->get("getUserTypeTTL"), out.getUserTypeTTL);
    out.getUsersTTL = parseSeconds(cacheTiming->get("getUsersTTL"), out.getUsersTTL);
    out.checkSessionsTTL = parseSeconds(cacheTiming->get("checkSessionsTTL"), out.checkSessionsTTL);
  }
  return true;
}

AuthenticationManagerScripted::AuthenticationManagerScripted(const scriptConfig& cfg) : _cfg(cfg) {
  gLogger.info("Auth checks will be performed by external script");
}

AuthenticationManagerScripted::Pairs AuthenticationManagerScripted::parseOutput(const Str& text) {
  static const RE re("--([^=]+)=(.*?)(?:$|(?= --))");
  Str flat = text;
  for (char& c : flat)
    if (c == '\n' || c == '\r') c = ' ';
  while (!flat.empty() && flat.back() == ' ') flat.pop_back();
  Pairs out;
  StringPiece input(flat.data(), flat.size());
  std::string key, value;
  for (int guard = 0; guard < 100000 && re.FindAndConsume(&input, &key, &value); ++guard)
    out.emplace_back(Str(key), Str(value));
  return out;
}

AuthenticationManagerScripted::Status AuthenticationManagerScripted::callScript(const Str& call,
                                                                               const std::map<Str, Str>& args,
                                                                               const Str& password, Pairs& out) {
  out.clear();
  std::vector<Str> argv;
  if (_cfg.scriptPath.endswith(".py")) argv.push_back("python3");
  else if (_cfg.scriptPath.endswith(".pl")) argv.push_back("perl");
  argv.push_back(_cfg.scriptPath);
  argv.push_back(call);
  Str shown;
  for (const auto& [k, v] : args) {
    argv.push_back("--" + k + "=" + v);
    shown += (shown.empty() ? "" : " ") + quoteArg(argv.back());
  }
  gLogger.info("Calling script '%s %s' input ( login input omitted )", _cfg.scriptPath.c_str(),
               (call + (shown.empty() ? "" : " ") + shown).c_str());

  int inPipe[2], outPipe[2];
  if (pipe2(inPipe, O_CLOEXEC) != 0) {
    gLogger.error("Unable to make a pipe for script '%s': %m", _cfg.scriptPath.c_str());
    return Status::tmp_fail;
  }
  if (pipe2(outPipe, O_CLOEXEC) != 0) {
    gLogger.error("Unable to make a pipe for script '%s': %m", _cfg.scriptPath.c_str());
    ::close(inPipe[0]);
    ::close(inPipe[1]);
    return Status::tmp_fail;
  }
  // The password fits the pipe's buffer: it is written before the start.
  Str input = password.empty() ? Str() : "--password=" + password + "\n";
  bool wrote = input.size() < 4096 &&
               ::write(inPipe[1], input.data(), input.size()) == static_cast<ssize_t>(input.size());
  ::close(inPipe[1]);
  if (!wrote) {
    ::close(inPipe[0]);
    ::close(outPipe[0]);
    ::close(outPipe[1]);
    return Status::tmp_fail;
  }
  ExternalProcessToken token;
  try {
    ExternalProcessGroup group;
    token = group.startOrSpawn(argv, FileDescriptor(inPipe[0]), FileDescriptor(outPipe[1]));
  } catch (const std::exception& e) {
    gLogger.error("Unable to start script '%s': %s", _cfg.scriptPath.c_str(), e.what());
  }
  ::close(inPipe[0]);
  ::close(outPipe[1]);
  Str text;
  bool timedOut = false;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(kScriptSeconds);
  for (;;) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      timedOut = true;
      break;
    }
    pollfd p{outPipe[0], POLLIN, 0};
    int r = ::poll(&p, 1, static_cast<int>(left.count()));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) continue;
    char buf[4096];
    ssize_t n = ::read(outPipe[0], buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    if (text.size() < kMaxOutput) text.append(buf, static_cast<size_t>(n));
  }
  ::close(outPipe[0]);
  if (!token.valid()) return Status::tmp_fail;
  if (timedOut) {
    gLogger.error("Script '%s' ran past %d seconds and was killed", _cfg.scriptPath.c_str(), kScriptSeconds);
    token.kill(SIGKILL);
  }
  ExternalProcessStatus st = token.getStatus(true);
  if (timedOut) return Status::tmp_fail;
  if (!st.statusOk()) {
    gLogger.warn("Script '%s' ended badly: %s", _cfg.scriptPath.c_str(), st.describeStatus().c_str());
    return Status::tmp_fail;
  }
  Pairs pairs = parseOutput(text);
  if (pairs.empty() || pairs[0].first != "status") {
    gLogger.warn("Script '%s' gave no status for call '%s'", _cfg.scriptPath.c_str(), call.c_str());
    return Status::tmp_fail;
  }
  Str status = pairs[0].second;
  out.assign(pairs.begin() + 1, pairs.end());
  if (status == "success") return Status::success;
  if (status == "auth_fail") return Status::auth_fail;
  if (status != "tmp_fail")
    gLogger.warn("Script '%s' gave an unknown status for call '%s'", _cfg.scriptPath.c_str(), call.c_str());
  return Status::tmp_fail;
}

// --- the cache ----------------------------------------------------------------

bool AuthenticationManagerScripted::checkCache(const Str& user, const Str& call, Pairs& out) {
  ScopedLock l(_cacheMutex);
  auto it = _cache.find({user, call});
  time_t now = time(nullptr);
  if (it == _cache.end() || it->second.expires <= now) {
    if (it != _cache.end()) _cache.erase(it);
    gLogger.debug("No cache entry for user '%s' for call '%s'", user.c_str(), call.c_str());
    return false;
  }
  gLogger.debug("Cached hit for '%s', value is fresh. Value will expire at '%llu', timeout of '%d' seconds",
                user.c_str(), static_cast<unsigned long long>(it->second.expires),
                static_cast<int>(it->second.expires - now));
  out = it->second.values;
  return true;
}

void AuthenticationManagerScripted::updateCache(const Str& user, const Str& call, int ttl, const Pairs& values) {
  if (ttl <= 0) return;
  ScopedLock l(_cacheMutex);
  CacheEntry& e = _cache[{user, call}];
  e.expires = time(nullptr) + ttl;
  e.values = values;
}

void AuthenticationManagerScripted::clearCache() {
  ScopedLock l(_cacheMutex);
  _cache.clear();
}

AuthenticationManagerScripted::Status AuthenticationManagerScripted::cachedCall(const Str& call, const Str& user,
                                                                               int ttl, Pairs& out) {
  if (ttl > 0 && checkCache(user, call, out)) return Status::success;
  std::map<Str, Str> args;
  if (!user.empty()) args["username"] = user;
  Status s = callScript(call, args, Str(), out);
  if (s == Status::success) updateCache(user, call, ttl, out);
  return s;
}

// --- the interface --------------------------------------------------------------

int AuthenticationManagerScripted::userLogin(const Str& user, const Str& password, Str& userId, Str& err) {
  if (user == "harriet") {
    err = "Login forbidden for harriet.";
    return 0;
  }
  if (password.empty()) {
    err = "Authentication Failed";
    return 0;
  }
  Pairs out;
  Status s = callScript("userLogin", {{"username", user}}, password, out);
  if (s == Status::tmp_fail) {
    err = "Authentication script failed, try again later";
    return 0;
  }
  if (s == Status::auth_fail) {
    err = "Authentication Failed";
    return 0;
  }
  userId = user;
  for (const auto& [k, v] : out)
    if (k == "userId" && !v.empty()) userId = v;
  return 1;
}

int AuthenticationManagerScripted::getUserInfoByName(const Str& user, userInformation& info) {
  Pairs out;
  if (cachedCall("getUserInfo", user, _cfg.getUserInfoTTL, out) != Status::success) return 0;
  for (const auto& [k, v] : out) {
    Str err;
    if (k == "userInfo" && userInformation::fromString(v, info, err)) return 1;
  }
  return 0;
}

int AuthenticationManagerScripted::getUserType(const Str& user, std::set<Str>& roles) {
  Pairs out;
  if (cachedCall("getUserType", user, _cfg.getUserTypeTTL, out) != Status::success) return 0;
  for (const auto& [k, v] : out)
    if (k == "role" && !v.empty()) roles.insert(v);
  return 1;
}

int AuthenticationManagerScripted::getUsers(const Str& user, const Str& role, std::vector<userInformation>& list) {
  Pairs out;
  if (cachedCall("getUsers", Str(), _cfg.getUsersTTL, out) != Status::success) return 0;
  for (const auto& [k, v] : out) {
    userInformation info;
    Str err;
    if (k != "userInfo" || !userInformation::fromString(v, info, err)) continue;
    if (!user.empty() && info.username != user) continue;
    if (!role.empty() && std::find(info.roles.begin(), info.roles.end(), role) == info.roles.end()) continue;
    list.push_back(info);
  }
  return 1;
}

int AuthenticationManagerScripted::getSearchFilter(const Str& user, const Str& /*role*/, std::set<Str>& filters) {
  if (!_cfg.scriptSearchFilters) return 1;
  Pairs out;
  if (cachedCall("getSearchFilter", user, _cfg.getUserTypeTTL, out) != Status::success) return 0;
  for (const auto& [k, v] : out)
    if (k == "search_filter" && !v.empty()) filters.insert(v);
  return 1;
}

int AuthenticationManagerScripted::checkSession(const Str& user) {
  Pairs out;
  return cachedCall("checkSessions", user, _cfg.checkSessionsTTL, out) == Status::success ? 1 : 0;
}

int AuthenticationManagerScripted::saveUser(const userInformation&, const Str&, Str& err) {
  err = "Saving users is not permitting in scripted auth";
  return 0;
}

int AuthenticationManagerScripted::deleteUser(const Str&, const Str&, Str& err) {
  err = "Scripted auth does not support deleteUser.";
  return 0;
}
