// StatsCommands: registers the report commands stats, statistics, prestats
// with SearchFactory. Called once from SearchCommands::registerAll().
#pragma once

namespace StatsCommands {
void registerAll();
}
