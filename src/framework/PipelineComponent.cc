#include "framework/PipelineComponent.h"

#include <unistd.h>

#include <exception>

#include "framework/ComponentData.h"
#include "framework/ShutdownManager.h"
#include "libbundle/PropertiesMap.h"
#include "libbundle/PropertiesMapConfig.h"
#include "libbundle/PropertyPages.h"
#include "loaderinfo/ConfigManager.h"
#include "loaderinfo/LoaderInfo.h"
#include "util/EventLoop.h"
#include "util/Exceptions.h"
#include "util/InThreadActor.h"
#include "util/Logger.h"
#include "util/SignalHandler.h"
#include "util/Timeout.h"

static Logger gLogger("PipelineComponent");

class PipelineComponent::TimerTick : public PeriodicTimeout {
 public:
  explicit TimerTick(PipelineComponent& c) : _c(c) {}
  void when_expired() override { _c.runTimerCallbacks(); }

 private:
  PipelineComponent& _c;
};

// A pipeline's "build over" report, run on the main loop; deletes itself.
class PipelineComponent::ReportActor : public InThreadActor {
 public:
  ReportActor(PipelineComponent& c, Pipeline* p) : _c(c), _p(p) {}
  void run() override {
    _c.finishAddPipeline(_p);
    delete this;
  }

 private:
  PipelineComponent& _c;
  Pipeline* _p;
};

// Does some bundle hold the property file itself (not only an empty view)?
static bool anyBundleHasFile(PropertyPages& pages) {
  for (PropertiesMapConfig* c : pages.getConfigs()) {
    if (c->isArchive() ? c->size() > 0 : access(c->getPath().c_str(), R_OK) == 0) return true;
  }
  return false;
}

Str PipelineComponent::modeName(const Str& startupMode) {
  if (startupMode.empty()) return "default-mode";
  if (startupMode.size() >= 5 && startupMode.compare(startupMode.size() - 5, 5, "-mode") == 0) return startupMode;
  return startupMode + "-mode";
}

PipelineComponent::PipelineComponent(const xml::node& component, const xml::node& common,
                                     PipelineComponentCommHandler* commHandler, EventLoop* loop,
                                     LoaderInfo& loaderInfo)
    : _component(component),
      _common(common),
      _commHandler(commHandler),
      _loop(loop),
      _level(&shutdownPipelines()),
      _fatalAction([] { SignalHandler::sendShutdownSignal(); }) {
  ComponentData::instance().setPipelineComponent(this);
  ComponentData::instance().setLoaderInfo(&loaderInfo);
  ConfigManager::instance().setUpdateRegistry(this);

  _mode = modeName(loaderInfo.getStartupMode());
  try {
    _modePages = &PropertyPages::instance(_mode);
    if (_mode != "default-mode" && !anyBundleHasFile(*_modePages)) _modePages = nullptr;
  } catch (const std::exception&) {
    _modePages = nullptr;
  }
  if (!_modePages) {
    gLogger.warn("Mode configuration file %s not found, will use default-mode.conf", _mode.c_str());
    _mode = "default-mode";
    _modePages = &PropertyPages::instance(_mode);
  }

  if (_loop) {
    _timer = std::make_unique<TimerTick>(*this);
    _loop->add(_timer.get(), 1000);
  }
}

PipelineComponent::~PipelineComponent() {
  joinPipelines();
  if (_loop && _timer && _timer->isActive()) _loop->remove(_timer.get());
  ConfigManager::instance().setUpdateRegistry(nullptr);
  if (ComponentData::instance().getPipelineComponent() == this) {
    ComponentData::instance().setPipelineComponent(nullptr);
  }
}

// --- adding pipelines ---------------------------------------------------------------

Pipeline* PipelineComponent::startAddPipeline(const xml::node& node, PluginProcessor* plugins) {
  std::string name;
  if (!node.get_attribute("name", name)) throw PipelineException("Couldn't find 'name' tag for pipeline");
  if (_modePages) {
    Str stanza = "pipeline:" + name;
    bool disabled = false;
    if (_modePages->propsExist(stanza)) {
      PropertiesMap settings;
      _modePages->fillLayers(settings, stanza, false);
      PropertyPages::layeredFind("disabled", settings, disabled);
    }
    if (disabled) {
      gLogger.info("Pipeline %s disabled in *mode.conf file", name.c_str());
      return nullptr;
    }
  }
  gLogger.info("Pipeline %s enabled", name.c_str());
  // Pending before the thread can report, so that the report finds it.
  ScopedLock l(_mutex);
  auto* p = new Pipeline(node, plugins, _modePages, [this](Pipeline* built) { reportInit(built); }, _level);
  _pendingInit.insert(p);
  return p;
}

void PipelineComponent::reportInit(Pipeline* p) {
  // On the pipeline's thread. Only a running loop may take the report:
  // otherwise the creator calls finishAddPipeline() itself.
  if (!_loop) return;
  auto* actor = new ReportActor(*this, p);
  if (_loop->runInThreadOrFail(actor, false) == 0) delete actor;
}

void PipelineComponent::finishAddPipeline(Pipeline* pipeline) {
  {
    ScopedLock l(_mutex);
    auto it = _pendingInit.find(pipeline);
    if (it == _pendingInit.end()) return;
    _pendingInit.erase(it);
  }
  Str name = pipeline->getPipelineName();
  try {
    int state = pipeline->finishInit();
    if (state == Pipeline::INIT_RUNNING) {
      ScopedLock l(_mutex);
      _pipelines.push_back(pipeline);
      return;
    }
    if (state != Pipeline::INIT_SKIPPED) {
      gLogger.error("The pipeline %s threw an exception during initialize", name.c_str());
    }
    pipeline->joinEvenIfUnstarted();
    delete pipeline;
    if (state == Pipeline::INIT_FATAL_PLUGIN_EXCEPTION) {
      gLogger.fatal("Shutting down system due to fatal error");
      if (_fatalAction) _fatalAction();
    }
  } catch (const std::exception& e) {
    gLogger.error("The pipeline %s threw an exception during initialize (%s exception)", name.c_str(), e.what());
  } catch (...) {
    gLogger.error("The pipeline %s threw an exception during initialize (unknown exception)", name.c_str());
  }
}

void PipelineComponent::startPipelines() {
  gLogger.info("Launching the pipelines.");
  for (Pipeline* p : pipelines()) p->start();
}

void PipelineComponent::joinPipelines() {
  std::vector<Pipeline*> all;
  std::set<Pipeline*> pending;
  {
    ScopedLock l(_mutex);
    all.swap(_pipelines);
    pending.swap(_pendingInit);
  }
  all.insert(all.end(), pending.begin(), pending.end());
  for (Pipeline* p : all) p->requestStop();
  for (Pipeline* p : all) {
    p->joinEvenIfUnstarted();
    p->stop();
    delete p;
  }
  gLogger.info("All threads terminated");
}

// --- finding -------------------------------------------------------------------------

Pipeline* PipelineComponent::findPipeline(const Str& name) {
  ScopedLock l(_mutex);
  for (Pipeline* p : _pipelines) {
    if (p->getPipelineName() == name) return p;
  }
  return nullptr;
}

void PipelineComponent::findPipelines(const Str& name, std::vector<Pipeline*>& out) {
  ScopedLock l(_mutex);
  for (Pipeline* p : _pipelines) {
    if (p->getPipelineName() == name) out.push_back(p);
  }
}

void PipelineComponent::findPipelines(const Str& name, std::vector<MConfigUpdateTarget*>& out) {
  ScopedLock l(_mutex);
  for (Pipeline* p : _pipelines) {
    if (p->getPipelineName() == name) out.push_back(p);
  }
}

std::vector<Pipeline*> PipelineComponent::pipelines() {
  ScopedLock l(_mutex);
  return _pipelines;
}

// --- hooks and timer -----------------------------------------------------------------

void PipelineComponent::kickAll() {
  std::vector<Callback> hooks;
  {
    ScopedLock l(_mutex);
    for (auto& [id, cb] : _kickHooks) hooks.push_back(cb);
  }
  for (auto& cb : hooks) cb();
}

int PipelineComponent::registerKickHook(Callback cb) {
  ScopedLock l(_mutex);
  int id = _nextId++;
  _kickHooks[id] = std::move(cb);
  return id;
}

void PipelineComponent::unregisterKickHook(int id) {
  ScopedLock l(_mutex);
  _kickHooks.erase(id);
}

int PipelineComponent::registerTimerCallback(Callback cb) {
  ScopedLock l(_mutex);
  int id = _nextId++;
  _timerCallbacks[id] = std::move(cb);
  return id;
}

void PipelineComponent::unregisterTimerCallback(int id) {
  ScopedLock l(_mutex);
  _timerCallbacks.erase(id);
}

void PipelineComponent::runTimerCallbacks() {
  std::vector<Callback> cbs;
  {
    ScopedLock l(_mutex);
    for (auto& [id, cb] : _timerCallbacks) cbs.push_back(cb);
  }
  for (auto& cb : cbs) {
    try {
      cb();
    } catch (const std::exception& e) {
      gLogger.error(e);
    }
  }
}

void PipelineComponent::setFatalErrorAction(Callback action) { _fatalAction = std::move(action); }

void PipelineComponent::setShutdownLevel(ShutdownLevel* level) { _level = level; }
