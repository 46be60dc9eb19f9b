#include "search/dispatch/DispatchCommand.h"

#include <memory>

#include "framework/UserManager.h"
#include "search/ProcessorArg.h"
#include "search/SearchCancel.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "search/dispatch/ProviderQueue.h"
#include "search/dispatch/ResultProvider.h"
#include "util/Logger.h"
#include "util/Timeval.h"

static Logger gLogger("DispatchCommand");

namespace {
const char* const kUsage = "Usage: dispatch [options] [remoteserverlist] '['<subpipeline>']'";
}

SearchProcessor* DispatchCommand::create(const Str& name) { return new DispatchCommand(name); }

DispatchCommand::DispatchCommand(const Str& name) : SearchProcessor(name) {}

void DispatchCommand::setPeerAccess(const PeerList& access) {
  _access = access;
  _accessSet = true;
}

void DispatchCommand::evalArgs(SearchResultsInfo& /*info*/) {
  if (argsEvaluated) return;
  size_t subs = 0;
  for (Arg* a : args) subs += a->type == Arg::PROCESSOR ? 1 : 0;
  if (subs > 1) throw searchError(this, gLogger, "%s", kUsage);
  ArgList kept;
  for (Arg* a : args) {
    if (a->type == Arg::PROCESSOR) {
      SearchProcessor* p = static_cast<ProcessorArg*>(a)->getProcessor();
      _sub = p ? p->getLitSearch() : Str();
      _haveSub = true;
      delete a;
      continue;
    }
    kept.push_back(a);
    if (!searchString.empty()) searchString += ' ';
    searchString += a->toString(0);
  }
  args = kept;
  argsEvaluated = true;
  parseArguments();
}

void DispatchCommand::processArguments() {
  if (!_haveSub) throw searchError(this, gLogger, "%s", kUsage);
  getOption("id", _id);
  getOption("maxtime", _maxTime);
  if (getOption("maxresults", _maxResults) && _maxResults <= 0)
    throw searchError(this, gLogger, "Option 'maxresults' must have value > 0");
  if (getOption("ttl", _ttl) && _ttl <= 0) throw searchError(this, gLogger, "Option 'ttl' must have value > 0");
  for (size_t i = 0; i < args.size(); ++i) {
    StringArg* s = unconsumedString(i);
    if (!s || s->isOption()) continue;
    for (const Str& server : PeerList::splitServers(s->getText())) _servers.push_back(server);
    s->setConsumed();
  }
  refuseLeftovers();
}

void DispatchCommand::execute(SearchResults& results, SearchResultsInfo& info) {
  if (!results.empty()) gLogger.info("Input results into the dispatch command are completely ignored");
  results.free(false);
  if (!_accessSet) _access = PeerList::fromConfig();

  ResultProvider::Request req;
  req.search = _sub;
  req.earliest = info.earliestTime.toDouble();
  req.latest = info.latestTime.toDouble();
  req.queryId = _id.empty() ? info.queryId : _id;
  req.username = _access.username;
  req.password = _access.password;
  req.timeouts = _access.timeouts;
  req.verifyPeer = _access.verifyPeer;
  req.caFile = _access.caFile;
  // The peers search as the configured peer user; the filters of the user
  // here go along so that they narrow what the peers return too.
  const UserContext* ctx = UserContext::current();
  if (ctx) req.searchFilters = ctx->searchFilters;
  Str user = ctx ? ctx->user : info.userContext;
  if (req.searchFilters.empty() && !user.empty() && user != "freeuser") req.searchFilters = UserManager::getSearchFilters(user);
  std::vector<std::unique_ptr<ResultProvider>> peers;
  for (const Str& s : _servers) peers.push_back(std::make_unique<ResultProvider>(s, req));

  ProviderQueue queue(_sub, std::move(peers), info);
  Timeval started = Timeval::now();
  while (SearchCancel::instance()->cont(info.cancelId)) {
    SearchResults batch;
    bool more = queue.fetchResults(batch, info);
    results.takeRows(batch);
    if (_maxResults > 0 && results.size() >= static_cast<size_t>(_maxResults)) {
      while (results.size() > static_cast<size_t>(_maxResults)) {
        delete results.back();
        results.pop_back();
      }
      break;
    }
    if (!more) break;
    if (_maxTime > 0 && Timeval::msecDifference(Timeval::now(), started) > _maxTime * 1000) {
      info.addInfo(Str::fromFormat("Maximum search time limit reached (%lu seconds).  Results may be incomplete.",
                                   static_cast<unsigned long>(_maxTime)));
      break;
    }
  }
  info.resultsComplete = true;
}
