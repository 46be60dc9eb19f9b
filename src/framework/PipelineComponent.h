// PipelineComponent: the set of pipelines of a running server, built from
// the `pipeline` elements of the component description.
//
// DESIGN. startAddPipeline() consults the mode pages (the property file
// "<mode>-mode", or "default-mode" when no startup mode was given; a
// stanza "pipeline:<name>" with `disabled` true leaves that pipeline out)
// and constructs the Pipeline, whose thread builds itself at once. The
// result reaches finishAddPipeline() one of two ways: the pipeline's
// report is handed to the main event loop as an InThreadActor when a loop
// is running, or the creator calls finishAddPipeline() itself, which waits
// for the build; whichever comes first does the work, the other finds
// nothing to do. A pipeline that built joins the list; one that failed is
// joined and deleted, and a fatal plug-in failure shuts the service down.
// startPipelines() opens every start gate. A PeriodicTimeout of 1000 ms on
// the main loop runs the registered timer callbacks. The component is the
// registry through which ConfigManager finds running pipelines.
//
// Ownership: owns its pipelines (deleted by joinPipelines() or the
// destructor) and the mode pages' pointer belongs to PropertyPages. The
// comm handler, the event loop and the LoaderInfo are only pointed at and
// must outlive the component.
//
// Threads: construct, add, start, join and destroy on the main thread (the
// event loop's). findPipeline(s), kickAll and the timer callback calls may
// come from any thread; the pipeline list and the callback lists are under
// a mutex. Timer callbacks run on the loop's thread, outside the mutex.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "framework/Pipeline.h"
#include "loaderinfo/MConfigUpdateRegistry.h"
#include "util/Mutex.h"
#include "util/Str.h"
#include "util/xml/XmlNode.h"

class EventLoop;
class LoaderInfo;
class PipelineComponentCommHandler;
class PluginProcessor;
class PropertyPages;
class ShutdownLevel;

class PipelineComponent : public MConfigUpdateRegistry {
 public:
  using Callback = std::function<void()>;

  // Publishes itself in ComponentData, registers with ConfigManager and
  // opens the mode pages. `loop` may be null (no timer, no hand-over);
  // `commHandler` may be null.
  PipelineComponent(const xml::node& component, const xml::node& common,
                    PipelineComponentCommHandler* commHandler, EventLoop* loop, LoaderInfo& loaderInfo);
  // Stops and joins the pipelines still held; withdraws from ComponentData
  // and ConfigManager. REQUIRES: on the loop's thread (or no loop running).
  ~PipelineComponent() override;
  PipelineComponent(const PipelineComponent&) = delete;
  PipelineComponent& operator=(const PipelineComponent&) = delete;

  // The mode name for a startup mode: "default-mode" when it is empty,
  // else "<mode>-mode".
  static Str modeName(const Str& startupMode);

  // Constructs the pipeline of `node` (its thread starts building at once)
  // and returns it, or null when the mode pages disable it. Throws
  // PipelineException "Couldn't find 'name' tag for pipeline".
  Pipeline* startAddPipeline(const xml::node& node, PluginProcessor* plugins);
  // Takes in a pipeline made by startAddPipeline once its build is over
  // (waiting for it): kept when it built, else joined and deleted. Does
  // nothing for a pipeline already taken in.
  void finishAddPipeline(Pipeline* pipeline);
  // Opens the start gate of every pipeline.
  void startPipelines();
  // Stops, joins and deletes every pipeline.
  void joinPipelines();

  // The first running pipeline of that name, or null.
  Pipeline* findPipeline(const Str& name);
  void findPipelines(const Str& name, std::vector<Pipeline*>& out);
  void findPipelines(const Str& name, std::vector<MConfigUpdateTarget*>& out) override;
  std::vector<Pipeline*> pipelines();

  // Runs the kick hooks (input processors register one to rebuild their
  // view of the inputs; none exist yet, so this may do nothing).
  void kickAll();
  int registerKickHook(Callback cb);
  void unregisterKickHook(int id);

  // Callbacks run by the 1000 ms timer; the id unregisters.
  int registerTimerCallback(Callback cb);
  void unregisterTimerCallback(int id);
  // What the timer runs; public so that it can be driven without a loop.
  void runTimerCallbacks();

  // Where fatal plug-in failures go; by default
  // SignalHandler::sendShutdownSignal().
  void setFatalErrorAction(Callback action);
  // The level new pipelines register with; by default shutdownPipelines().
  void setShutdownLevel(ShutdownLevel* level);

  const Str& getMode() const { return _mode; }
  PropertyPages* getModePages() const { return _modePages; }
  PipelineComponentCommHandler* getCommHandler() const { return _commHandler; }
  const xml::node& getComponentNode() const { return _component; }
  const xml::node& getCommonNode() const { return _common; }

 private:
  class TimerTick;
  class ReportActor;

  void reportInit(Pipeline* p);

  xml::node _component;
  xml::node _common;
  PipelineComponentCommHandler* _commHandler;
  EventLoop* _loop;
  Str _mode;
  PropertyPages* _modePages = nullptr;
  ShutdownLevel* _level;
  Callback _fatalAction;
  std::unique_ptr<TimerTick> _timer;

  Mutex _mutex;
  std::vector<Pipeline*> _pipelines;
  std::set<Pipeline*> _pendingInit;  // made, not yet taken in
  std::map<int, Callback> _timerCallbacks;
  std::map<int, Callback> _kickHooks;
  int _nextId = 1;
};
