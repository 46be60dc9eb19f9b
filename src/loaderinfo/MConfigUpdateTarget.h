// MConfigUpdateTarget: a running pipeline as configuration updates see it.
//
// A pipeline implements this so that ConfigManager::update can hand a new
// processor configuration to the running processor. Calls come from the
// thread that runs the update; the implementation synchronises with its own
// pipeline thread.
#pragma once

#include "util/Str.h"
#include "util/xml/XmlNode.h"

class MConfigUpdateTarget {
 public:
  virtual ~MConfigUpdateTarget() = default;

  // Does the pipeline run a processor of this name?
  virtual bool hasProcessor(const Str& processorName) const = 0;
  // Offers `config` to the processor (Processor::loadConfigUpdate); true if
  // it accepts it. May throw.
  virtual bool loadConfigUpdate(const Str& processorName, const xml::node& config) = 0;
  // Puts the accepted configuration into effect
  // (Processor::executeConfigUpdate). May throw.
  virtual void executeConfigUpdate(const Str& processorName) = 0;
};
