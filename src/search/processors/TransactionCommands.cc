#include "search/processors/TransactionCommands.h"

#include "search/SearchFactory.h"
#include "search/processors/TransamOperator.h"

void TransactionCommands::registerAll() {
  for (const char* n : {"transaction", "transam"})
    SearchFactory::registerBuiltin(n, &TransamOperator::create, false);
}
