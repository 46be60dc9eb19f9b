#include "search/dispatch/DispatchCommands.h"

#include "search/SearchFactory.h"
#include "search/dispatch/DispatchCommand.h"

void DispatchCommands::registerAll() { SearchFactory::registerBuiltin("dispatch", &DispatchCommand::create, false); }
