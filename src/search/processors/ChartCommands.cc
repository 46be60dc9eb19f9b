#include "search/processors/ChartCommands.h"

#include "search/SearchFactory.h"
#include "search/processors/NewChartProcessor.h"
#include "search/processors/NewSeriesFilterProcessor.h"

void ChartCommands::registerAll() {
  SearchFactory::registerBuiltin("chart", &NewChartProcessor::create, false);
  SearchFactory::registerBuiltin("timechart", &NewChartProcessor::create, false);
  SearchFactory::registerBuiltin("newseriesfilter", &NewSeriesFilterProcessor::create, true);
}
