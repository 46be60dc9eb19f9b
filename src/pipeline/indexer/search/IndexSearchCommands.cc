#include "pipeline/indexer/search/IndexSearchCommands.h"

#include "pipeline/indexer/IndexProcessor.h"
#include "pipeline/indexer/search/FileOperator.h"
#include "pipeline/indexer/search/SearchOperator.h"
#include "pipeline/indexer/search/SearchReplacementProcessor.h"
#include "pipeline/indexer/search/SurroundingDataOperator.h"
#include "pipeline/indexer/search/TyperOperator.h"
#include "search/SearchFactory.h"

void IndexSearchCommands::install() { IndexProcessor::addCommandRegistrar(&registerAll); }

void IndexSearchCommands::registerAll() {
  SearchFactory::registerProcessor("search", &SearchReplacementProcessor::create, false);
  SearchFactory::registerProcessor("newsearch", &SearchOperator::create, false);
  SearchFactory::registerProcessor("file", &FileOperator::create, false);
  SearchFactory::registerProcessor("surrounding", &SurroundingDataOperator::create, false);
  SearchFactory::registerProcessor("typer", &TyperOperator::create, false);
}
