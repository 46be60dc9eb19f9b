// BinCommands: registers the report commands bin, bucket, discretize, prebin, timeline
// with SearchFactory. Called once from SearchCommands::registerAll().
#pragma once

namespace BinCommands {
void registerAll();
}
