// Velmord: one run of the service, from the composed description to the
// last pipeline joined.
//
// DESIGN. run() builds in this order: the main event loop (owned by the
// EventLoopMainThread made in main()), the composed component description,
// the HTTP server on the management port (VelmordHttp; a port that cannot be
// bound stops the start), the PipelineComponent, the plug-ins, every pipeline (each builds on its
// own thread; a pipeline that fails is left out and the others run), then
// opens the start gates and turns the main loop. SIGINT and SIGTERM reach
// the loop through the signal pipe and start the shutdown by levels; a
// second signal while it runs is logged and ignored. The shutdown's last
// level stops the loop; run() then joins the pipelines (which deletes their
// processors, the indexes closing last) and returns. Every 30 seconds the
// loop logs the metrics of pipelines and queues.
//
// Ownership: Velmord owns the component, the comm handler and the plug-in
// table; the loop belongs to the caller's main thread object.
//
// Threads: construct, run and destroy on the main thread.
#pragma once

#include <functional>
#include <memory>

#include "util/MSignalHandler.h"
#include "util/Str.h"
#include "util/xml/XmlNode.h"

class EventLoop;
class LoaderInfo;
class PipelineComponent;
class PipelineComponentCommHandler;
class PluginProcessor;
class VelmordHttp;

class Velmord : public MSignalHandler {
 public:
  Velmord(EventLoop& loop, LoaderInfo& loaderInfo);
  ~Velmord() override;
  Velmord(const Velmord&) = delete;
  Velmord& operator=(const Velmord&) = delete;

  // Builds, starts and runs until shut down. 0 on an orderly shutdown; 1
  // when the description cannot be read or no pipeline could be built.
  // `started` runs once the pipelines run (the daemon's parent is told).
  int run(const std::function<void(const Str& failure)>& started);

  // SIGINT / SIGTERM, on the loop's thread.
  void handleSignal(int sig) const override;

 private:
  // Unregisters the HTTP side from the shutdown and stops it if it runs.
  void stopHttp();

  EventLoop& _loop;
  LoaderInfo& _loaderInfo;
  xml::node _component;
  std::unique_ptr<PipelineComponentCommHandler> _comm;
  std::unique_ptr<PipelineComponent> _pipelines;
  std::unique_ptr<PluginProcessor> _plugins;
  std::unique_ptr<VelmordHttp> _http;
};
