// PassThroughProcessor: a step that changes nothing. It holds the place of
// the regex rewriting of host, source, source type and index, so that the
// shipped pipeline description keeps its shape until those rules run there.
//
// Threads: its pipeline's thread only.
#pragma once

#include "framework/PluginFactory.h"
#include "framework/Processor.h"

class PassThroughProcessor : public Processor {
 public:
  // The factory under the plug-in name "regexextractionprocessor".
  static const PluginFactory& regexExtractionFactory();
  // The factory under the plug-in name "nullprocessor".
  static const PluginFactory& nullFactory();

  void init(const xml::node&, const xml::node&) override {}
  int execute(std::shared_ptr<PipelineData>&) override { return eOk; }
};
