#include "search/processors/ExtractionCommands.h"

#include "search/SearchFactory.h"
#include "search/processors/KVTransformer.h"
#include "search/processors/MultiKVTransformer.h"
#include "search/processors/RexCommand.h"

void ExtractionCommands::registerAll() {
  for (const char* n : {"kv", "extract"}) SearchFactory::registerBuiltin(n, &KVTransformer::create, false);
  SearchFactory::registerBuiltin("rex", &RexCommand::create, false);
  SearchFactory::registerBuiltin("multikv", &MultiKVTransformer::create, false);
}
