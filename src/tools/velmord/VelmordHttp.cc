#include "tools/velmord/VelmordHttp.h"

#include "framework/UserManager.h"
#include "framework/auth/AuthenticationManagerProxy.h"
#include "framework/http/HTTPServer.h"
#include "framework/http/HTTPServerConfig.h"
#include "framework/rest/HTTPAuthManager.h"
#include "framework/rest/HTTPRestDispatcher.h"
#include "framework/rest/HTTPSessionSweeper.h"
#include "framework/rest/ServerInfoHandler.h"
#include "loaderinfo/LoaderInfo.h"
#include "util/EventLoop.h"
#include "util/Logger.h"
#include "util/Thread.h"

static Logger gLogger("velmord");

namespace {
// Stops the server off the loop's thread, which must keep turning meanwhile.
class HttpStopper : public Thread {
 public:
  explicit HttpStopper(MShutdownHandler& done) : Thread("HttpStopper"), _done(done) {}
  ~HttpStopper() override { joinEvenIfUnstarted(); }
  void main() override {
    HTTPServer::instance()->handleShutdown();
    _done.signalShutdownComplete();
  }

 private:
  MShutdownHandler& _done;
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
  HTTPAuthManager& auth = HTTPAuthManager::instance();
  auth.setBackend(AuthenticationManagerProxy::instancePtr());

  HTTPRestDispatcher& rest = HTTPRestDispatcher::instance();
  _serverInfo = std::make_unique<ServerInfoHandler>(ServerInfoHandler::configuredServerName(),
                                                    _loaderInfo.getStartupTime());
  rest.registerHandler("server", _serverInfo.get());
  rest.loadConfig();
  HTTPServer* server = HTTPServer::instance();
  server->setRequestHandler(&rest);
  if (!server->init(cfg) || !server->go(&_loop)) {
    failure = "The HTTP server could not listen; see var/log/velmor/velmord.log";
    return false;
  }
  for (size_t i = 0; server->boundPort(i) != 0; ++i)
    gLogger.info("HTTP%s on port %d", server->portIsSSL(i) && server->sslEnabled() ? "S" : "", server->boundPort(i));
  _sweeper = std::make_unique<HTTPSessionSweeper>(auth);
  _loop.add(_sweeper.get(), HTTPSessionSweeper::kIntervalMs);
  _started = true;
  return true;
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
  if (_started && !isShutdownComplete()) HTTPServer::instance()->handleShutdown();
  if (_started) {
    UserManager::setAuthManager(nullptr);
    HTTPRestDispatcher::instance().registerHandler("server", nullptr);
  }
  _started = false;
}
