// ChartCommands: registers the report commands chart, timechart, newseriesfilter
// with SearchFactory. Called once from SearchCommands::registerAll().
#pragma once

namespace ChartCommands {
void registerAll();
}
