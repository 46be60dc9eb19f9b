#include "framework/Pipeline.h"

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>

#include "framework/MetricsManager.h"
#include "framework/PluginProcessor.h"
#include "framework/ShutdownLevel.h"
#include "libbundle/PropertiesMap.h"
#include "libbundle/PropertyPages.h"
#include "loaderinfo/ConfigXML.h"
#include "loaderinfo/XMLAndStringUtil.h"
#include "util/Exceptions.h"
#include "util/Logger.h"
#include "util/xml/XmlDocument.h"

static Logger gLogger("Pipeline");
static Logger gStatLogger("StatLogger");

namespace {

// How long an idle loop (no injected record, no record from the source)
// waits before asking the source again.
constexpr double kIdleWaitSeconds = 0.05;

// A `disabled_processors` value: names separated by commas and blanks.
std::vector<Str> tokenizeList(const Str& text) {
  std::vector<Str> out;
  Str cur;
  for (char c : text) {
    if (c == ',' || c == ' ' || c == '\t' || c == '\n' || c == '\r') {
      if (!cur.empty()) out.push_back(cur);
      cur.clear();
    } else {
      cur.push_back(c);
    }
  }
  if (!cur.empty()) out.push_back(cur);
  return out;
}

// The sampler: a linear congruential step; a value below the threshold
// (about one in 32) marks a call to be timed.
inline bool advanceSampler(uint32_t& s) {
  s = (s * 1103515245u + 12345u) & 0x7FFFFFFFu;
  return s < 0x3FFFFFFu;
}

Str attribute(const xml::node& n, const char* name, bool& found) {
  std::string v;
  found = n.get_attribute(name, v);
  return Str(v);
}

}  // namespace

Pipeline::Pipeline(const xml::node& node, PluginProcessor* plugins, PropertyPages* modePages,
                   InitReporter reporter, ShutdownLevel* level)
    : Thread("pipeline-%s", node.get_attribute("name").c_str()),
      _name(node.get_attribute("name")),
      _node(node),
      _plugins(plugins),
      _modePages(modePages),
      _reporter(std::move(reporter)),
      _level(level) {
  go();
}

Pipeline::~Pipeline() {
  requestStop();
  joinEvenIfUnstarted();
  unregisterShutdown();
  ScopedLock l(_procMutex);
  _procs.clear();
}

// --- the build ---------------------------------------------------------------------

void Pipeline::main() {
  if (_level) _level->registerHandler(this, _name);
  setInitState(INIT_RUNNING, Str(), false);
  int state = INIT_RUNNING;
  Str error;
  try {
    buildFromConfig();
  } catch (const SkipThisPipelineException& e) {
    state = INIT_SKIPPED;
    error = e.what();
    gLogger.info(e);
  } catch (const PluginException& e) {
    state = e.isFatal() ? INIT_FATAL_PLUGIN_EXCEPTION : INIT_PLUGIN_EXCEPTION;
    error = e.what();
    gLogger.error(e);
  } catch (const std::exception& e) {
    state = INIT_EXCEPTION;
    error = e.what();
    gLogger.error(e);
  } catch (...) {
    state = INIT_EXCEPTION;
    error = "unknown exception";
    gLogger.error("Unknown exception while building pipeline %s", _name.c_str());
  }
  bool failed = state != INIT_RUNNING;
  if (failed) {
    // The creator may join this thread as soon as it hears of the failure:
    // leave nothing to do after the report but returning.
    unregisterShutdown();
    markFinished();
  }
  setInitState(state, error, true);
  if (_reporter) _reporter(this);
  if (failed) return;

  {
    ScopedLock l(_stateMutex);
    while (!_startGate && !stopRequested()) _stateCond.wait(_stateMutex);
  }
  if (_stopFlag.load()) {
    markFinished();
    unregisterShutdown();
    return;
  }
  runLoop();
}

void Pipeline::buildFromConfig() {
  std::vector<Str> disabled;
  Str stanza = "pipeline:" + _name;
  if (_modePages && _modePages->propsExist(stanza)) {
    PropertiesMap settings;
    _modePages->fillLayers(settings, stanza, false);
    Str list;
    if (PropertyPages::layeredFind("disabled_processors", settings, list)) disabled = tokenizeList(list);
  }
  long diq = 0;
  if (XMLAndStringUtil::fetchValue(_node, "diqSize", diq)) {
    ScopedLock l(_diqMutex);
    _diqSize = diq;
  }

  for (const xml::node& pnode : _node.elements("processor")) {
    bool found;
    Str name = attribute(pnode, "name", found);
    if (!found) throw PipelineException("Couldn't find 'name' tag for processor");
    if (std::find(disabled.begin(), disabled.end(), name) != disabled.end()) {
      gLogger.info("Processor %s in pipeline %s has been disabled *mode.conf", name.c_str(), _name.c_str());
      continue;
    }
    Str plugin = attribute(pnode, "plugin", found);
    if (!found) throw PipelineException("Couldn't find 'plugin' tag for processor: " + name);

    xml::node config = pnode.find("config");
    xml::document referenced;  // keeps a referenced file's tree alive for init()
    if (config.empty()) {
      Str ref = attribute(pnode, "configReference", found);
      if (found) {
        if (access(ref.c_str(), R_OK) != 0) throw PipelineException("Couldn't load config file from '" + ref + "'");
        Str why;
        if (!ConfigXML::readXmlFile(Pathname(ref), referenced, why)) {
          throw PipelineException("Couldn't parse xml from " + ref);
        }
        xml::node root = referenced.get_root_node();
        config = Str(root.get_name()) == "config" ? root : root.find("config");
      }
    }
    if (config.empty()) throw PipelineException("Couldn't find 'config' tag for processor: " + name);

    std::unique_ptr<Processor> p;
    try {
      p = _plugins->createPlugin(plugin, config, name);
    } catch (const SkipThisProcessorException& e) {
      gLogger.info("Processor %s skipped: %s", name.c_str(), e.what());
      continue;
    } catch (const SkipThisPipelineException&) {
      gLogger.info("Processor %s threw SkipThisPipelineException.  Pipeline %s has not been loaded.", name.c_str(),
                   _name.c_str());
      throw;
    }
    addProcessor(std::move(p), name);
  }
  for (auto& r : _procs) r->processor->postInit();
}

void Pipeline::addProcessor(std::unique_ptr<Processor> p, const Str& name) {
  auto r = std::make_unique<Record>();
  r->processor = std::move(p);
  r->name = name;
  // A seed of its own per processor, so that samples do not fall on the
  // same records for all of them.
  uint32_t seed = 5381;
  for (unsigned char c : name) seed = seed * 33 + c;
  r->sampler = (seed + static_cast<uint32_t>(_procs.size()) * 2654435761u) & 0x7FFFFFFFu;
  ScopedLock l(_procMutex);
  _procIndex[name] = _procs.size();
  _procs.push_back(std::move(r));
}

void Pipeline::setInitState(int state, const Str& error, bool over) {
  ScopedLock l(_stateMutex);
  _initState = state;
  _initError = error;
  _initOver = over;
  _stateCond.internal_wake_all();
}

int Pipeline::finishInit() {
  ScopedLock l(_stateMutex);
  while (!_initOver) _stateCond.wait(_stateMutex);
  return _initState;
}

Str Pipeline::initError() {
  ScopedLock l(_stateMutex);
  return _initError;
}

// --- the loop ----------------------------------------------------------------------

void Pipeline::start() {
  ScopedLock l(_stateMutex);
  _startGate = true;
  _stateCond.internal_wake_all();
}

bool Pipeline::stopRequested() { return _stopFlag.load() || _shutdownFlag.load(); }

void Pipeline::runLoop() {
  if (_procs.empty()) {
    gLogger.info("Empty pipeline (no processors): %s, exiting pipeline", _name.c_str());
    markFinished();
    unregisterShutdown();
    return;
  }
  Str metricsName = "Pipeline:" + _name;
  gLogger.info("Registering metrics callback for: %s", metricsName.c_str());
  TFunctor* metricsCallback = MetricsManager::instance().registerCallback(
      metricsName, std::make_unique<Functor<Pipeline>>(this, &Pipeline::addMetrics));
  // Every way out: the metrics report goes before anyone can see the
  // pipeline finished.
  auto leave = [&] {
    MetricsManager::instance().unregisterCallback(metricsName, metricsCallback);
    markFinished();
    unregisterShutdown();
  };

  const size_t count = _procs.size();
  size_t i = 0;
  std::shared_ptr<PipelineData> record;
  for (;;) {
    if (_stopFlag.load()) break;
    if (_shutdownFlag.load()) {
      MetricsManager::instance().unregisterCallback(metricsName, metricsCallback);
      stop();
      markFinished();
      signalShutdownComplete();
      unregisterShutdown();
      return;
    }
    if (i == 0) {
      record.reset();
      {
        ScopedLock l(_diqMutex);
        if (!_diq.empty()) {
          record = std::move(_diq.back());
          _diq.pop_back();
          i = 1;
        }
      }
      if (!record) {
        record = _procs[0]->processor->createPipelineData();
        if (!record) {
          idleWait();
          continue;
        }
      }
      if (i >= count) {
        i = 0;
        continue;
      }
    }

    Record& r = *_procs[i];
    bool sample = advanceSampler(r.sampler);
    clock_t before = sample ? clock() : 0;
    int result;
    try {
      result = r.processor->execute(record);
    } catch (const std::runtime_error& e) {
      gLogger.error("Runtime exception in pipeline: %s, processor: %s, error: %s", _name.c_str(), r.name.c_str(),
                    e.what());
      leave();
      return;
    } catch (...) {
      gStatLogger.error("Uncaught exception in pipeline execution (%s) - getting next event", r.name.c_str());
      i = 0;
      continue;
    }
    r.cumulativeHits.fetch_add(1, std::memory_order_relaxed);
    r.executeCount.fetch_add(1, std::memory_order_relaxed);
    if (sample) {
      double secs = double(clock() - before) / 1e6;
      r.cpuSeconds.store(r.cpuSeconds.load(std::memory_order_relaxed) + secs, std::memory_order_relaxed);
      r.samples.fetch_add(1, std::memory_order_relaxed);
    }

    switch (result) {
      case Processor::eOk:
      case Processor::eContinue:
        if (++i < count) continue;
        break;
      case Processor::eExit:
        gLogger.info("Exiting pipeline - eExit");
        leave();
        return;
      default:
        break;
    }
    i = 0;
  }
  leave();
}

void Pipeline::idleWait() {
  ScopedLock l(_diqMutex);
  if (_diq.empty() && !stopRequested()) _diqCond.wait(_diqMutex, kIdleWaitSeconds);
}

bool Pipeline::injectPipelineData(const std::shared_ptr<PipelineData>& record) {
  ScopedLock l(_diqMutex);
  if (_diqSize > 0 && long(_diq.size()) >= _diqSize) return true;
  _diq.push_front(record);
  _diqCond.internal_wake_all();
  return false;
}

bool Pipeline::isDataInjectionQueueFull() {
  ScopedLock l(_diqMutex);
  return _diqSize > 0 && long(_diq.size()) >= _diqSize;
}

// --- stopping ----------------------------------------------------------------------

bool Pipeline::signalShutdown() {
  _shutdownFlag.store(true);
  ScopedLock l(_stateMutex);
  _stateCond.internal_wake_all();
  ScopedLock d(_diqMutex);
  _diqCond.internal_wake_all();
  return false;
}

void Pipeline::requestStop() {
  _stopFlag.store(true);
  {
    ScopedLock l(_stateMutex);
    _stateCond.internal_wake_all();
  }
  ScopedLock d(_diqMutex);
  _diqCond.internal_wake_all();
}

void Pipeline::stop() {
  requestStop();
  bool finished = true;
  if (!isCurrent()) {
    ScopedLock l(_stateMutex);
    for (int waited = 0; !_finished && waited < 2; ++waited) {
      gLogger.info("Waiting for pipeline '%s' to shut down...", _name.c_str());
      _stateCond.wait(_stateMutex, 1.0);
    }
    finished = _finished;
  }
  ScopedLock l(_procMutex);
  for (auto& r : _procs) {
    gLogger.debug("processor %s cumulative hits = %ld", r->name.c_str(), long(r->cumulativeHits.load()));
  }
  // A loop still running keeps its processors; the destructor deletes them
  // after the join.
  if (!finished) return;
  for (auto& r : _procs) {
    if (!r->processor) continue;
    gLogger.info("Shutting down processor -> %s", r->name.c_str());
    r->processor.reset();
  }
  gLogger.info("Pipeline shut down");
}

void Pipeline::markFinished() {
  ScopedLock l(_stateMutex);
  _finished = true;
  _stateCond.internal_wake_all();
}

bool Pipeline::isFinished() {
  ScopedLock l(_stateMutex);
  return _finished;
}

void Pipeline::unregisterShutdown() {
  if (_level) _level->unregisterHandler(this);
}

// --- inspection --------------------------------------------------------------------

std::vector<Str> Pipeline::processorNames() {
  ScopedLock l(_procMutex);
  std::vector<Str> out;
  for (auto& r : _procs) out.push_back(r->name);
  return out;
}

std::vector<Pipeline::ProcessorMetrics> Pipeline::metrics() const {
  ScopedLock l(_procMutex);
  std::vector<ProcessorMetrics> out;
  for (auto& r : _procs) {
    ProcessorMetrics m;
    m.name = r->name;
    m.executeCount = r->executeCount.load();
    m.cumulativeHits = r->cumulativeHits.load();
    m.cpuSeconds = r->cpuSeconds.load();
    m.samples = r->samples.load();
    out.push_back(m);
  }
  return out;
}

void Pipeline::addMetrics(metric* m) {
  ScopedLock l(_procMutex);
  for (auto& r : _procs) {
    m->add("processor", r->name);
    m->add("executes", static_cast<unsigned long long>(r->executeCount.exchange(0)));
    m->add("cumulative hits", static_cast<unsigned long long>(r->cumulativeHits.load()));
    m->add("cpu seconds", Str::fromFormat("%.6f", r->cpuSeconds.load()));
  }
}

Processor* Pipeline::Locked_find(const Str& name) const {
  auto it = _procIndex.find(name);
  if (it == _procIndex.end()) return nullptr;
  return _procs[it->second]->processor.get();
}

bool Pipeline::invokeProcessorCall(const Str& processorName, const xml::node& call, Str& out) {
  ScopedLock l(_procMutex);
  Processor* p = Locked_find(processorName);
  if (!p) return false;
  p->invokeSOAPCall(call, out);
  return true;
}

bool Pipeline::hasProcessor(const Str& processorName) const {
  ScopedLock l(_procMutex);
  return Locked_find(processorName) != nullptr;
}

bool Pipeline::loadConfigUpdate(const Str& processorName, const xml::node& config) {
  ScopedLock l(_procMutex);
  Processor* p = Locked_find(processorName);
  return p && p->loadConfigUpdate(config);
}

void Pipeline::executeConfigUpdate(const Str& processorName) {
  ScopedLock l(_procMutex);
  if (Processor* p = Locked_find(processorName)) p->executeConfigUpdate();
}
