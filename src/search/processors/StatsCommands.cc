#include "search/processors/StatsCommands.h"

#include "search/SearchFactory.h"
#include "search/processors/StatsProcessor.h"

void StatsCommands::registerAll() {
  SearchFactory::registerBuiltin("stats", &StatsProcessor::create, false);
  SearchFactory::registerBuiltin("statistics", &StatsProcessor::create, false);
  SearchFactory::registerBuiltin("prestats", &StatsProcessor::create, true);
}
