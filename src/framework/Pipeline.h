// Pipeline: one named ingestion pipeline, a thread that drives a fixed list
// of processors over PipelineData records.
//
// DESIGN. The constructor only stores its arguments and lets the thread go;
// the build (buildFromConfig) runs on the pipeline's own thread: each
// `processor` child of the pipeline element, in document order, is made by
// the PluginProcessor, unless the mode pages list it in the
// `disabled_processors` of the stanza "pipeline:<name>". The outcome is an
// init state; the creator hears of it through the reporter callback (the
// pipeline component hands it to the main event loop) and may also wait for
// it with finishInit(). A pipeline that built waits at the start gate until
// start(), then loops: take a record (from the back of the injection deque,
// passing over the first processor, or from the first processor's
// createPipelineData()), run it through the processors by their results,
// start again. About one execute() call in 32 per processor is timed with
// clock() to estimate CPU use cheaply. A std::runtime_error from a
// processor ends the pipeline; any other exception costs only the record.
//
// Shutdown: the pipeline registers with its shutdown level (by default the
// process-wide "Pipelines"); signalShutdown() only raises a flag and
// returns false, and the loop, seeing it, stops the processors and reports
// completion. requestStop()/stop() end it from another thread.
//
// Ownership: the creator (PipelineComponent) owns the Pipeline; the
// Pipeline owns its processors and deletes them in stop() or its
// destructor, which joins the thread. The PluginProcessor, the mode pages
// and the shutdown level must outlive the build (the level: the Pipeline).
//
// Threads: processors run only on the pipeline's thread, except the config
// update calls (MConfigUpdateTarget), which come from the caller's thread
// under the processor-list mutex. injectPipelineData,
// isDataInjectionQueueFull, metrics, signalShutdown, requestStop, start and
// finishInit may be called from any thread. The injection deque, the start
// gate, the init state and the counters each have their own guard.
#pragma once

#include <atomic>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "framework/MShutdownHandler.h"
#include "framework/PipelineData.h"
#include "framework/Processor.h"
#include "loaderinfo/MConfigUpdateTarget.h"
#include "util/ConditionBaseClass.h"
#include "util/Mutex.h"
#include "util/Str.h"
#include "util/Thread.h"
#include "util/xml/XmlNode.h"

struct metric;
class PluginProcessor;
class PropertyPages;
class ShutdownLevel;

class Pipeline : public Thread, public MShutdownHandler, public MConfigUpdateTarget {
 public:
  enum InitState {
    NOT_STARTED_YET = 0,
    INIT_RUNNING = 1,                // building, and built without a failure
    INIT_SKIPPED = 2,                // a processor threw SkipThisPipelineException
    INIT_EXCEPTION = 3,              // any other failure
    INIT_PLUGIN_EXCEPTION = 4,       // a PluginException
    INIT_FATAL_PLUGIN_EXCEPTION = 5  // a PluginException with the fatal flag
  };

  // The counters of one processor.
  struct ProcessorMetrics {
    Str name;
    unsigned long executeCount = 0;   // execute() calls since the last metrics report
    unsigned long cumulativeHits = 0; // records seen since the start
    double cpuSeconds = 0;            // CPU time of the sampled calls
    unsigned long samples = 0;        // calls that were timed
  };

  // Called once on the pipeline's thread when the build is over.
  using InitReporter = std::function<void(Pipeline*)>;

  // Stores the arguments and starts the thread, which builds the pipeline.
  // `modePages` may be null (nothing disabled); `level` null means no
  // shutdown registration, otherwise it is the level to register with.
  Pipeline(const xml::node& node, PluginProcessor* plugins, PropertyPages* modePages,
           InitReporter reporter, ShutdownLevel* level);
  // Stops the thread if need be, joins it and deletes the processors.
  ~Pipeline() override;

  void main() override;

  // Waits until the build is over and returns the init state: INIT_RUNNING
  // when the pipeline built, else the failure.
  int finishInit();
  // The message of the exception that failed the build, if any.
  Str initError();

  // Opens the start gate.
  void start();

  // Queues a record for the second processor on. Returns true, and takes
  // nothing, when the deque has reached its limit (`diqSize`, unlimited
  // when absent or not above 0); false when queued.
  bool injectPipelineData(const std::shared_ptr<PipelineData>& record);
  bool isDataInjectionQueueFull();

  bool signalShutdown() override;
  // Asks the loop to leave, from any thread; does not wait.
  void requestStop();
  // Asks the loop to leave, waits (at most 2 s, in 1 s steps) for it when
  // called from another thread, then deletes the processors (when the loop
  // has left) and logs "Pipeline shut down".
  void stop();
  // The loop has left (or the thread ended without running it).
  bool isFinished();

  const Str& getPipelineName() const { return _name; }
  long getDiqSize() const { return _diqSize; }
  // Names of the processors in the order they run.
  std::vector<Str> processorNames();
  // A snapshot of every processor's counters, in order.
  std::vector<ProcessorMetrics> metrics() const;
  // The metrics report of the running loop (registered with MetricsManager
  // as "Pipeline:<name>"): per processor "processor", "executes" (since the
  // last report, which restarts that count), "cumulative hits", "cpu
  // seconds".
  void addMetrics(metric* m);
  // Calls invokeSOAPCall on the named processor; false if there is none.
  bool invokeProcessorCall(const Str& processorName, const xml::node& call, Str& out);

  // MConfigUpdateTarget
  bool hasProcessor(const Str& processorName) const override;
  bool loadConfigUpdate(const Str& processorName, const xml::node& config) override;
  void executeConfigUpdate(const Str& processorName) override;

 private:
  struct Record {
    std::unique_ptr<Processor> processor;
    Str name;
    std::atomic<unsigned long> executeCount{0};
    std::atomic<unsigned long> cumulativeHits{0};
    std::atomic<double> cpuSeconds{0};
    std::atomic<unsigned long> samples{0};
    uint32_t sampler = 0;
  };

  void buildFromConfig();
  void addProcessor(std::unique_ptr<Processor> p, const Str& name);
  void runLoop();
  // Blocks a short while for an injected record or a stop.
  void idleWait();
  void setInitState(int state, const Str& error, bool over);
  void markFinished();
  void unregisterShutdown();
  bool stopRequested();
  Processor* Locked_find(const Str& name) const;

  Str _name;
  xml::node _node;
  PluginProcessor* _plugins;
  PropertyPages* _modePages;
  InitReporter _reporter;
  ShutdownLevel* _level;

  // Processor list: built before the report, changed after that only by
  // stop(); read by the loop without the lock (it is the only deleter).
  mutable Mutex _procMutex;
  std::vector<std::unique_ptr<Record>> _procs;
  std::map<Str, size_t> _procIndex;

  Mutex _diqMutex;
  ConditionBaseClass _diqCond;
  std::deque<std::shared_ptr<PipelineData>> _diq;
  long _diqSize = 0;

  // Init state, start gate, stop and finish flags.
  Mutex _stateMutex;
  ConditionBaseClass _stateCond;
  int _initState = NOT_STARTED_YET;
  bool _initOver = false;
  Str _initError;
  bool _startGate = false;
  bool _finished = false;
  std::atomic<bool> _stopFlag{false};
  std::atomic<bool> _shutdownFlag{false};
};
