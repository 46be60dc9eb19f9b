#include "pipeline/analysis/PassThroughProcessor.h"

const PluginFactory& PassThroughProcessor::regexExtractionFactory() {
  static const SimplePluginFactory<PassThroughProcessor> f("regexextractionprocessor");
  return f;
}

const PluginFactory& PassThroughProcessor::nullFactory() {
  static const SimplePluginFactory<PassThroughProcessor> f("nullprocessor");
  return f;
}
