#include "tools/velmord/Velmord.h"

#include <pthread.h>
#include <signal.h>

#include <functional>

#include "framework/FileInputTracker.h"
#include "framework/MetricsManager.h"
#include "framework/ProducerConsumerQueue.h"
#include "framework/Pipeline.h"
#include "framework/PipelineComponent.h"
#include "framework/PipelineComponentCommHandler.h"
#include "framework/PluginProcessor.h"
#include "framework/QueueManager.h"
#include "framework/ShutdownLevel.h"
#include "framework/ShutdownManager.h"
#include "loaderinfo/ConfigXML.h"
#include "loaderinfo/LoaderInfo.h"
#include "tools/velmord/VelmordHttp.h"
#include "tools/velmord/VelmordPlugins.h"
#include "util/EventLoop.h"
#include "util/Logger.h"
#include "util/SignalHandler.h"

static Logger gLogger("velmord");
static Logger gMetrics("metrics");

namespace {
constexpr int kMetricsEveryTicks = 30;  // of the component's one-second timer
}  // namespace

Velmord::Velmord(EventLoop& loop, LoaderInfo& loaderInfo) : _loop(loop), _loaderInfo(loaderInfo) {}

Velmord::~Velmord() {
  SignalHandler::instance().unregisterSignalHandler(this, SIGINT);
  SignalHandler::instance().unregisterSignalHandler(this, SIGTERM);
}

void Velmord::handleSignal(int sig) const {
  gLogger.info("Received signal %d", sig);
  ShutdownManager::instance().handleShutdown();
}

int Velmord::run(const std::function<void(const Str& failure)>& started) {
  try {
    if (!getConfigXML(_component, _loaderInfo)) {
      started("Error getting component configuration data");
      return 1;
    }
  } catch (const std::exception& e) {
    started(e.what());
    return 1;
  }
  ShutdownManager& shutdown = ShutdownManager::instance();
  shutdown.setEventLoop(&_loop);
  shutdown.setCompletionCallback([this] { _loop.terminate(0); });
  // The queues save what they hold once everything before them stopped.
  if (ShutdownLevel* q = shutdown.findLevel("Queue")) q->registerHandler(&QueueManager::instance(), "QueueManager");
  // Lines saved in a queue at the last shutdown are not read again from
  // their files: the tracker learns how far they reach as they come back.
  ProducerConsumerQueue::setRestoreObserver(
      [](const PipelineData& record) { FileInputTracker::instance().notePosition(record); });

  _http = std::make_unique<VelmordHttp>(_loop, _loaderInfo);
  Str failure;
  if (!_http->start(failure)) {
    gLogger.error("%s", failure.c_str());
    started(failure);
    return 1;
  }
  // Requests stop first, before the inputs.
  if (ShutdownLevel* apis = shutdown.findLevel("APIs")) apis->registerHandler(_http.get(), "HTTPServer");

  _comm = std::make_unique<PipelineComponentCommHandler>();
  _pipelines = std::make_unique<PipelineComponent>(_component, _loaderInfo.getCommonComponentNode(), _comm.get(),
                                                   &_loop, _loaderInfo);
  _plugins = std::make_unique<PluginProcessor>(gLogger, _component, &velmordPluginLookup);
  try {
    _plugins->loadOnlyPlugins();
  } catch (const std::exception& e) {
    gLogger.error("%s", e.what());
    started(e.what());
    stopHttp();
    return 1;
  }
  std::vector<Pipeline*> made;
  for (const xml::node& p : _component.elements("pipeline")) {
    try {
      if (Pipeline* pipeline = _pipelines->startAddPipeline(p, _plugins.get())) made.push_back(pipeline);
    } catch (const std::exception& e) {
      gLogger.error("%s", e.what());
    }
  }
  for (Pipeline* p : made) _pipelines->finishAddPipeline(p);
  if (_pipelines->pipelines().empty()) {
    started("No pipeline could be built; see var/log/velmor/velmord.log");
    _pipelines->joinPipelines();
    stopHttp();
    return 1;
  }
  _pipelines->startPipelines();

  int ticks = 0;
  _pipelines->registerTimerCallback([&ticks] {
    if (++ticks % kMetricsEveryTicks) return;
    for (const Str& line : MetricsManager::instance().collect()) gMetrics.info("%s", line.c_str());
  });
  SignalHandler::instance().registerSignalHandler(this, SIGINT);
  SignalHandler::instance().registerSignalHandler(this, SIGTERM);
  SignalHandler::instance().routeToEventLoop(&_loop, SIGINT);
  SignalHandler::instance().routeToEventLoop(&_loop, SIGTERM);
  // Blocked since main() began (and so in every other thread): from now on
  // this thread takes them, one that came meanwhile at once.
  sigset_t stops;
  sigemptyset(&stops);
  sigaddset(&stops, SIGINT);
  sigaddset(&stops, SIGTERM);
  pthread_sigmask(SIG_UNBLOCK, &stops, nullptr);
  gLogger.info("velmord started: %lu pipelines running", (unsigned long)_pipelines->pipelines().size());
  started(Str());

  _loop.run();

  // The loop is over: a late signal must neither kill the unwinding nor
  // find a handler gone.
  pthread_sigmask(SIG_BLOCK, &stops, nullptr);
  SignalHandler::instance().unrouteAll();
  _pipelines->joinPipelines();
  _pipelines.reset();
  stopHttp();
  return 0;
}

void Velmord::stopHttp() {
  if (!_http) return;
  if (ShutdownLevel* apis = ShutdownManager::instance().findLevel("APIs")) apis->unregisterHandler(_http.get());
  _http->join();
  _http.reset();
}
