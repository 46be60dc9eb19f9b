#include "tools/velmord/VelmordPlugins.h"

#include "framework/QueueInputProcessor.h"
#include "framework/QueueOutputProcessor.h"
#include "pipeline/analysis/LinePassThroughProcessor.h"
#include "pipeline/analysis/PassThroughProcessor.h"
#include "pipeline/indexer/IndexProcessor.h"
#include "pipeline/input/TailingProcessor.h"

const PluginFactory* velmordPluginLookup(const char* name) {
  static const PluginFactory* const table[] = {
      &QueueInputProcessor::factory(),        &QueueOutputProcessor::factory(),
      &TailingProcessor::factory(),           &TailingProcessor::batchFactory(),
      &LinePassThroughProcessor::factory(),   &PassThroughProcessor::regexExtractionFactory(),
      &IndexProcessor::factory(),             &PassThroughProcessor::nullFactory(),
  };
  for (const PluginFactory* f : table)
    if (f->matchName(name)) return f;
  return nullptr;
}
