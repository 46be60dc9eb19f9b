#include "search/processors/BinCommands.h"

#include "search/SearchFactory.h"
#include "search/processors/DiscretizationProcessor.h"
#include "search/processors/TimelineProcessor.h"

void BinCommands::registerAll() {
  SearchFactory::registerBuiltin("bin", &DiscretizationProcessor::create, false);
  SearchFactory::registerBuiltin("bucket", &DiscretizationProcessor::create, false);
  SearchFactory::registerBuiltin("discretize", &DiscretizationProcessor::create, false);
  SearchFactory::registerBuiltin("prebin", &DiscretizationProcessor::create, true);
  SearchFactory::registerBuiltin("prediscretize", &DiscretizationProcessor::create, true);
  SearchFactory::registerBuiltin("timeline", &TimelineProcessor::create, false);
}
