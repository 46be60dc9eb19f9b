// Processor: one step of an ingestion pipeline. A Pipeline calls execute()
// on each of its processors in order for every record; a source processor
// (the first of its pipeline) makes the records in createPipelineData(),
// blocking there until it has one or a short time has passed.
//
// Life: made by its PluginFactory, then init() with the processor's `config`
// element and the plug-in's global `config`, then postInit() once every
// processor of the pipeline is built; destroyed by the pipeline when it
// stops. Both XML nodes stay valid only for the call of init().
//
// Threads: every member but invokeSOAPCall, loadConfigUpdate and
// executeConfigUpdate runs on its pipeline's thread; those three arrive from
// the main event loop and are the processor's own concern.
#pragma once

#include <memory>

#include "framework/PipelineData.h"
#include "util/Exceptions.h"
#include "util/Str.h"
#include "util/xml/XmlNode.h"

// Thrown by init() to leave this processor out of its pipeline.
class SkipThisProcessorException : public PluginException {
 public:
  using PluginException::PluginException;
};
// Thrown by init() to leave the whole pipeline unbuilt.
class SkipThisPipelineException : public PluginException {
 public:
  using PluginException::PluginException;
};

// Something loaded by name from the XML description.
class MPlugin {
 public:
  virtual ~MPlugin() = default;
};

class Processor : public MPlugin {
 public:
  // execute() results.
  enum Result {
    eOk = 10000,         // on to the next processor
    eDrop = 10001,       // drop this record; back to the first processor
    eContinue = 10002,   // on to the next processor, as eOk
    eExit = 10003,       // leave the pipeline
  };

  ~Processor() override = default;

  // REQUIRES: config and global stay valid only for this call. Throws
  // PluginException (or a Skip*) with a message that names the problem.
  virtual void init(const xml::node& config, const xml::node& global) = 0;
  virtual void postInit() {}
  // A new configuration offered at run time: true when it is taken.
  virtual bool loadConfigUpdate(const xml::node&) { return false; }
  virtual void executeConfigUpdate() {}
  virtual int execute(std::shared_ptr<PipelineData>& record) = 0;
  // A source processor's next record, or null for none yet.
  virtual std::shared_ptr<PipelineData> createPipelineData() { return nullptr; }
  // A management call aimed at this processor; the reply goes to out.
  virtual void invokeSOAPCall(const xml::node&, Str& out) {
    out = "target found, but does not implement soap targeting";
  }

  const Str& getName() const { return _name; }
  void setName(const Str& name) { _name = name; }

 private:
  Str _name;
};
