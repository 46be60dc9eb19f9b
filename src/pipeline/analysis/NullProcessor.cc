#include "pipeline/analysis/NullProcessor.h"

const PluginFactory& NullProcessor::factory() {
  static const SimplePluginFactory<NullProcessor> f("nullprocessor");
  return f;
}
