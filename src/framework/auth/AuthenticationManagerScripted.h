// AuthenticationManagerScripted: a back end that asks an external program.
//
// Each question runs `scriptPath` (".py" through python3, ".pl" through
// perl, anything else directly) with the call name and "--key=value"
// arguments: "userLogin", "getUserType", "getUserInfo", "getUsers",
// "getSearchFilter", "checkSessions". A password goes on standard input as
// "--password=<text>", never on the command line. The program answers on
// standard output with "--key=value" pairs, the first "--status=success",
// "--status=auth_fail" or "--status=tmp_fail":
//   getUserInfo / getUsers: --userInfo=<userId;username;;realname;role:role>
//   getUserType: --role=<role> (repeated)     getSearchFilter: --search_filter=<f>
//   userLogin: --userId=<id> (optional)
// Successful answers stay in a cache by user and call for the lifetime of
// that call (stanza "cacheTiming": getUserInfoTTL, getUserTypeTTL,
// getUsersTTL, checkSessionsTTL, in seconds, "s", "m" or "h" allowed; 0
// turns the cache off). A program that runs past 30 seconds is killed and
// counts as tmp_fail.
//
// Threads: any thread; the cache has its own mutex, held only to read and
// write it (never while the program runs).
#pragma once

#include <ctime>
#include <map>
#include <utility>

#include "framework/auth/MAuthenticationManager.h"
#include "util/Mutex.h"

class PropertiesMap;

struct scriptConfig {
  Str scriptPath;
  bool scriptSearchFilters = false;
  int getUserInfoTTL = 10;
  int getUserTypeTTL = 10;
  int getUsersTTL = 10;
  int checkSessionsTTL = 5;

  // Reads the back end's stanza and (may be null) the "cacheTiming" one.
  // False with `err` when scriptPath is missing.
  static bool fromStanzas(const PropertiesMap& settings, const PropertiesMap* cacheTiming, scriptConfig& out,
                          Str& err);
};

class AuthenticationManagerScripted : public MAuthenticationManager {
 public:
  enum class Status { success, auth_fail, tmp_fail };
  using Pairs = std::vector<std::pair<Str, Str>>;

  explicit AuthenticationManagerScripted(const scriptConfig& cfg);

  int userLogin(const Str& user, const Str& password, Str& userId, Str& err) override;
  int getUserInfoByName(const Str& user, userInformation& out) override;
  int getUserType(const Str& user, std::set<Str>& roles) override;
  int getUsers(const Str& user, const Str& role, std::vector<userInformation>& out) override;
  int getSearchFilter(const Str& user, const Str& role, std::set<Str>& out) override;
  int saveUser(const userInformation& info, const Str& password, Str& err) override;
  int deleteUser(const Str& user, const Str& by, Str& err) override;
  int checkSession(const Str& user) override;
  Str getAuthSystem() const override { return "Scripted"; }

  // Runs the program once (no cache). `out` gets the pairs after the status.
  Status callScript(const Str& call, const std::map<Str, Str>& args, const Str& password, Pairs& out);
  // The "--key=value" pairs of a program's output; the status is the first.
  static Pairs parseOutput(const Str& text);
  void clearCache();

 private:
  struct CacheEntry {
    time_t expires = 0;
    Pairs values;
  };
  // The answer of `call` for `user`, from the cache or a fresh run.
  Status cachedCall(const Str& call, const Str& user, int ttl, Pairs& out);
  bool checkCache(const Str& user, const Str& call, Pairs& out);
  void updateCache(const Str& user, const Str& call, int ttl, const Pairs& values);

  scriptConfig _cfg;
  Mutex _cacheMutex;
  std::map<std::pair<Str, Str>, CacheEntry> _cache;
};
