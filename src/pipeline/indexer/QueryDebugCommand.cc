#include "pipeline/indexer/QueryDebugCommand.h"

#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>

#include "framework/UserManager.h"
#include "pipeline/indexer/CompiledQueryLanguage.h"
#include "pipeline/indexer/GetModule.h"
#include "pipeline/indexer/IPartitionPolicy.h"
#include "pipeline/indexer/Query.h"
#include "pipeline/indexer/QueryCacheManager.h"
#include "util/Exceptions.h"
#include "util/LogConfig.h"
#include "util/Logger.h"

static Logger gLogger("QueryDebugCommand");

namespace {

int32_t clip(int64_t t) { return int32_t(t < INT32_MIN ? INT32_MIN : t > INT32_MAX ? INT32_MAX : t); }

}  // namespace

void QueryDebugCommand::runModule() {
  const Str cmd = getArg("!++cmd++");
  gLogger.info("Running command %s for %s", cmd.c_str(), _query->getUser().c_str());
  Str text = run(cmd, getArg("!++param1++"), getArg("!++param2++"));
  _query->addMessage("INFO", text);
}

int32_t QueryDebugCommand::minTime() { return clip(_query->stateMachine().getTimeParser().getMinTime()); }
int32_t QueryDebugCommand::maxTime() { return clip(_query->stateMachine().getTimeParser().getMaxTime()); }

Str QueryDebugCommand::run(const Str& cmd, const Str& p1, const Str& p2) {
  if (cmd == "roll") {
    return GetModule::policyOf(*_query)->rollHotDb()
               ? "Hot db rolled out to warm."
               : "Hot db was not rolled: it holds no events or its directories are locked.";
  }
  if (cmd == "sync") {
    GetModule::policyOf(*_query)->sync(true);
    return "Hot db sync performed.";
  }
  if (cmd == "rescan") {
    GetModule::policyOf(*_query)->rescanDirectories();
    return "Database directories rescanned.";
  }
  if (cmd == "optimize") {
    GetModule::policyOf(*_query)->optimizeHotDb();
    return "Hot db optimized !";
  }
  if (cmd == "validate") {
    if (!GetModule::policyOf(*_query)->validate()) throw QueryException("Database validation failed.");
    return "Database validated.";
  }
  if (cmd == "clearcache") {
    QueryCacheManager::getInstance().clear();
    return "Event cache cleared !";
  }
  if (cmd == "toggleAdvQueries") {
    CompiledQueryLanguage& lang = CompiledQueryLanguage::getInstance();
    bool on = !lang.getUseAdvancedQuery();
    bool given;
    if (p1.tryToBool(given)) on = given;
    lang.setUseAdvancedQuery(on);
    return on ? "Advanced queries enabled" : "Advanced queries disabled";
  }
  if (cmd == "sleep") return sleep(p1);
  if (cmd == "memhog") return memhog(p1);
  if (cmd == "export") {
    if (p1.empty() || p2.empty()) throw QueryException("Export needs a keyword and a file.");
    long n =
        GetModule::policyOf(*_query)->exportByKeyword({lowercase(StrSegment(p1))}, minTime(), maxTime(), Pathname(p2));
    if (n < 0) throw QueryException(Str("Cannot open for writing ") + p2);
    return Str("exported ") + ToString(n) + " events with the keyword " + p1 + " to file " + p2;
  }
  if (cmd == "delete") {
    if (p1.empty()) throw QueryException("Delete needs a keyword.");
    bool allowed = UserManager::checkUserPerms("delete_by_keyword", _query->getUser()) == 1;
    size_t n;
    try {
      n = GetModule::policyOf(*_query)->deleteByKeyword(p1, minTime(), maxTime(), allowed);
    } catch (const DatabasePartitionPolicyException& e) {
      throw QueryException(e.what());
    }
    return Str("Deleted ") + ToString((unsigned long)n) + " ids from " + p1;
  }
  if (cmd == "logchange") return logchange(p1, p2);
  throw QueryException(Str("Command ") + cmd + " is unsupported");
}

Str QueryDebugCommand::sleep(const Str& p1) {
  long secs;
  if (!p1.tryToLong(secs) || secs < 0) throw QueryException("Sleep time not supplied.");
  for (long i = 0; i < secs; ++i) {
    _query->stateMachine().testQueryCancelled();
    ::sleep(1);
  }
  return Str("Slept ") + ToString(secs) + " seconds.";
}

Str QueryDebugCommand::memhog(const Str& p1) {
  unsigned long n;
  if (!p1.tryToUnsignedLong(n) || n == 0) throw QueryException("Memory size not supplied.");
  // More than the machine has can only fail or bring the out-of-memory
  // killer: refuse it.
  const long pages = sysconf(_SC_PHYS_PAGES);
  const long pageSize = sysconf(_SC_PAGESIZE);
  const bool tooBig = pages > 0 && pageSize > 0 && n / (unsigned long)pageSize >= (unsigned long)pages;
  void* p = tooBig ? nullptr : std::malloc(n);
  if (!p) throw QueryException(Str("Failed to allocate ") + ToString(n) + " bytes.");
  // Touch every page so that the memory is really taken.
  std::memset(p, 0x5a, n);
  std::free(p);
  return Str("Allocated ") + ToString(n) + " bytes.";
}

Str QueryDebugCommand::logchange(const Str& p1, const Str& p2) {
  const bool root = p2.empty() || p1 == "root";
  const Str& levelText = p2.empty() ? p1 : p2;
  int level = LogConfig::parseLevel(levelText);
  if (level < 0) throw QueryException(Str("Priority ") + levelText + " not recognized");
  if (!Logger::setChannelLevel(root ? "" : p1, level)) throw QueryException("Logging is not configured.");
  if (root) return Str("Setting root priority to ") + Logger::levelName(level);
  return Str("Setting priority of ") + p1 + " to " + Logger::levelName(level);
}
