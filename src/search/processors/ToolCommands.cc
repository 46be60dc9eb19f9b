#include "search/processors/ToolCommands.h"

#include "search/SearchFactory.h"
#include "search/processors/CancelPS.h"
#include "search/processors/NoPartial.h"
#include "search/processors/SavedVelmorProcessor.h"
#include "search/processors/SearchPS.h"
#include "search/processors/ShowArgs.h"

void ToolCommands::registerAll() {
  SearchFactory::registerBuiltin("cancelps", &CancelPS::create, false);
  SearchFactory::registerBuiltin("nopartial", &NoPartial::create, false);
  SearchFactory::registerBuiltin("searchps", &SearchPS::create, false);
  SearchFactory::registerBuiltin("showargs", &ShowArgsProcessor::create, false);
  for (const char* n : {"savedvelmor", "savedsearch", "macro"})
    SearchFactory::registerBuiltin(n, &SavedVelmorProcessor::create, false);
}
