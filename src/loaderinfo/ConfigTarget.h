// ConfigTarget: names the configuration of one processor of one pipeline.
//
// A value; any thread.
#pragma once

#include "util/Str.h"

class ConfigTarget {
 public:
  ConfigTarget(const Str& pipelineName, const Str& processorName)
      : _pipelineName(pipelineName), _processorName(processorName) {}

  const Str& getPipelineName() const { return _pipelineName; }
  const Str& getProcessorName() const { return _processorName; }

 private:
  Str _pipelineName;
  Str _processorName;
};
