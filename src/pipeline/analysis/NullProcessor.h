// NullProcessor: the plug-in "nullprocessor", a step that changes nothing and
// passes every record on. A pipeline description uses it to keep a place
// for a step that a site has switched off.
//
// Threads: its pipeline's thread only.
#pragma once

#include "framework/PluginFactory.h"
#include "framework/Processor.h"

class NullProcessor : public Processor {
 public:
  static const PluginFactory& factory();

  void init(const xml::node&, const xml::node&) override {}
  int execute(std::shared_ptr<PipelineData>&) override { return eOk; }
};
