// ExtractionCommands: registers the field-extraction commands kv, extract,
// rex and multikv with SearchFactory. Called once from
// SearchCommands::registerAll().
#pragma once

namespace ExtractionCommands {
void registerAll();
}
