#include "tools/velmord/VelmordHttp.h"

#include "framework/UserManager.h"
#include "framework/auth/AuthenticationManagerProxy.h"
#include "framework/auth/AuthorizationManagerVelmor.h"
#include "framework/http/HTTPServer.h"
#include "framework/http/HTTPServerConfig.h"
#include "framework/http/StaticFileHandler.h"
#include "framework/rest/HTTPAuthManager.h"
#include "framework/rest/HTTPRestDispatcher.h"
#include "framework/rest/HTTPSessionSweeper.h"
#include "framework/rest/ServerInfoHandler.h"
#include "framework/rest/UsersHandler.h"
#include "loaderinfo/LoaderInfo.h"
#include "pipeline/indexer/search/IndexSearchCommands.h"
#include "search/dispatch/DispatchCommands.h"
#include "search/dispatch/DispatchDirs.h"
#include "search/dispatch/DispatchReaper.h"
#include "search/dispatch/DispatchSearch.h"
#include "search/dispatch/DispatchThread.h"
#include "search/dispatch/LiveTailStream.h"
#include "search/dispatch/SavedSearchScheduler.h"
#include "search/dispatch/SavedSearchesHandler.h"
#include "search/dispatch/StreamedSearch.h"
#include "search/processors/SavedVelmorResolver.h"
#include "search/SearchFactory.h"
#include "search/processors/SearchCommands.h"
#include "search/processors/ToolCommands.h"
#include "util/EventLoop.h"
#include "util/Logger.h"
#include "util/Thread.h"

static Logger gLogger("velmord");

namespace {
// How often finished jobs past their time to live are removed.
constexpr long kReaperPeriodSeconds = 60;
// How long the running jobs get to write their status at shutdown.
constexpr double kJobStopSeconds = 10;
}  // namespace

namespace {
// Stops the server off the loop's thread, which must keep turning meanwhile.
class HttpStopper : public Thread {
 public:
  explicit HttpStopper(VelmordHttp& http) : Thread("HttpStopper"), _http(http) {}
  ~HttpStopper() override { joinEvenIfUnstarted(); }
  void main() override {
    _http.stopAll();
    _http.signalShutdownComplete();
  }

 private:
  VelmordHttp& _http;
};
}  // namespace

VelmordHttp::VelmordHttp(EventLoop& loop, LoaderInfo& loaderInfo) : _loop(loop), _loaderInfo(loaderInfo) {}

VelmordHttp::~VelmordHttp() { join(); }

bool VelmordHttp::start(Str& failure) {
  HTTPServerConfig cfg;
  Str err;
  if (!HTTPServerConfig::fromConf(cfg, err)) {
    failure = "server.conf: " + err;
    return false;
  }
  if (_loaderInfo.managementPortGiven() && !cfg.ports.empty()) cfg.ports[0].port = _loaderInfo.getManagementPort();

  // The back end of every login; the proxy follows authentication.conf.
  AuthenticationManagerProxy& proxy = AuthenticationManagerProxy::instance();
  if (!proxy.reload(err)) gLogger.error("authentication: %s", err.c_str());
  UserManager::instance();
  UserManager::setAuthManager(AuthenticationManagerProxy::instancePtr());
  // Roles and capabilities of authorize.conf answer every permission check.
  _authz = AuthorizationManagerVelmor::install();
  _authz->logBundle();
  HTTPAuthManager& auth = HTTPAuthManager::instance();
  auth.setBackend(AuthenticationManagerProxy::instancePtr());

  // The search side: the commands (the index processor registers those that
  // read it when the pipelines build it), jobs and streamed searches.
  SearchCommands::registerAll();
  DispatchCommands::registerAll();
  ToolCommands::registerAll();
  IndexSearchCommands::install();
  SavedVelmorResolver::installForProcess();  // event types, tags, saved searches
  if (!DispatchDirs::dispatchRoot().mkdir_p()) {
    failure = "Could not make the directory of search jobs " + DispatchDirs::dispatchRoot();
    return false;
  }
  _jobs = std::make_unique<DispatchSearch>();
  _streamed = std::make_unique<StreamedSearch>();
  _tail = std::make_unique<LiveTailStream>();

  HTTPRestDispatcher& rest = HTTPRestDispatcher::instance();
  _serverInfo = std::make_unique<ServerInfoHandler>(ServerInfoHandler::configuredServerName(),
                                                    _loaderInfo.getStartupTime());
  rest.registerHandler("server", _serverInfo.get());
  rest.registerHandler("search", _jobs.get());
  _saved = std::make_unique<SavedSearchesHandler>(*_jobs, DispatchDirs::dispatchRoot());
  rest.registerHandler("saved", _saved.get());
  _users = std::make_unique<UsersHandler>(_authz.get());
  rest.registerHandler("users", _users.get());
  rest.loadConfig();
  HTTPServer* server = HTTPServer::instance();
  // The web page answers every path outside /services, on every port.
  _static = std::make_unique<StaticFileHandler>(StaticFileHandler::configuredRoot(), &rest);
  gLogger.info("web page from %s", _static->root().c_str());
  server->setRequestHandler(_static.get());
  server->registerStreamHandler(StreamedSearch::kPath, _streamed.get());
  server->registerStreamHandler(LiveTailStream::kPath, _tail.get());
  if (!server->init(cfg) || !server->go(&_loop)) {
    failure = "The HTTP server could not listen; see var/log/velmor/velmord.log";
    return false;
  }
  for (size_t i = 0; server->boundPort(i) != 0; ++i)
    gLogger.info("HTTP%s on port %d", server->portIsSSL(i) && server->sslEnabled() ? "S" : "", server->boundPort(i));
  _sweeper = std::make_unique<HTTPSessionSweeper>(auth);
  _loop.add(_sweeper.get(), HTTPSessionSweeper::kIntervalMs);
  _reaper = std::make_unique<DispatchReaper>(kReaperPeriodSeconds);
  _reaper->start();
  // Scheduled saved searches run as jobs through the same starter as posted ones.
  // Its passes wait until the pipelines built the index reader (`search`).
  _scheduler = std::make_unique<SavedSearchScheduler>(
      DispatchDirs::dispatchRoot(), DispatchSearch::threadStarter(), SavedSearchScheduler::Settings::fromLimits(),
      nullptr, nullptr, [] { return SearchFactory::isProcessorRegistered("search", false); });
  _scheduler->start();
  _started = true;
  return true;
}

void VelmordHttp::stopAll() {
  _streamed->stopAll();
  _tail->stopAll();  // each tail ends with its closing chunk
  if (_scheduler) _scheduler->stop();  // no new runs; its running ones are asked to stop
  HTTPServer::instance()->handleShutdown();
  DispatchThread::stopAll(kJobStopSeconds);
  _reaper->stop();
}

bool VelmordHttp::signalShutdown() {
  if (!_started) return true;
  if (_sweeper->isActive()) _loop.remove(_sweeper.get());
  _stopper = std::make_unique<HttpStopper>(*this);
  _stopper->go();
  return false;
}

void VelmordHttp::join() {
  _stopper.reset();
  if (_sweeper && _sweeper->isActive()) _loop.removeFromAnywhere(_sweeper.get());
  if (_started && !isShutdownComplete()) stopAll();
  if (_started) {
    UserManager::setAuthManager(nullptr);
    HTTPRestDispatcher::instance().registerHandler("server", nullptr);
    HTTPRestDispatcher::instance().registerHandler("search", nullptr);
    HTTPRestDispatcher::instance().registerHandler("saved", nullptr);
    HTTPRestDispatcher::instance().registerHandler("users", nullptr);
    UserManager::setPermissions(nullptr);
    HTTPServer::instance()->unregisterStreamHandler(StreamedSearch::kPath);
    HTTPServer::instance()->unregisterStreamHandler(LiveTailStream::kPath);
    HTTPServer::instance()->setRequestHandler(&HTTPRestDispatcher::instance());  // _static goes with us
  }
  _started = false;
}
