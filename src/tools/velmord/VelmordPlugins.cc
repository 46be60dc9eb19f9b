#include "tools/velmord/VelmordPlugins.h"

#include "framework/QueueInputProcessor.h"
#include "framework/QueueOutputProcessor.h"
#include "pipeline/analysis/AggregatorProcessor.h"
#include "pipeline/analysis/NullProcessor.h"
#include "pipeline/analysis/RegexExtractionProcessor.h"
#include "pipeline/indexer/IndexProcessor.h"
#include "pipeline/input/TailingProcessor.h"

const PluginFactory* velmordPluginLookup(const char* name) {
  static const PluginFactory* const table[] = {
      &QueueInputProcessor::factory(),        &QueueOutputProcessor::factory(),
      &TailingProcessor::factory(),           &TailingProcessor::batchFactory(),
      &AggregatorProcessor::factory(),        &RegexExtractionProcessor::factory(),
      &IndexProcessor::factory(),             &NullProcessor::factory(),
  };
  for (const PluginFactory* f : table)
    if (f->matchName(name)) return f;
  return nullptr;
}
