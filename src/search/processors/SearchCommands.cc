#include "search/processors/SearchCommands.h"

#include "search/SearchFactory.h"
#include "search/processors/AbstractOperator.h"
#include "search/processors/BinCommands.h"
#include "search/processors/ChartCommands.h"
#include "search/processors/CommonValueCommands.h"
#include "search/processors/ConversionProcessor.h"
#include "search/processors/DedupOperator.h"
#include "search/processors/EvalOperator.h"
#include "search/processors/ExtractionCommands.h"
#include "search/processors/FileCommands.h"
#include "search/processors/FillNullProcessor.h"
#include "search/processors/FormatResultsProcessor.h"
#include "search/processors/HeadProcessor.h"
#include "search/processors/HighlightCommand.h"
#include "search/processors/LocalizeOperator.h"
#include "search/processors/MapOperator.h"
#include "search/processors/PageOperator.h"
#include "search/processors/RegexOperator.h"
#include "search/processors/RenameOperator.h"
#include "search/processors/ReplaceProcessor.h"
#include "search/processors/SelectOperator.h"
#include "search/processors/SetProcessor.h"
#include "search/processors/SortProcessor.h"
#include "search/processors/StatsCommands.h"
#include "search/processors/StringConcatProcessor.h"
#include "search/processors/TotalsProcessor.h"
#include "search/processors/TransactionCommands.h"
#include "search/processors/WhereOperator.h"

void SearchCommands::registerAll() {
  SearchFactory::registerBuiltin("sort", &SortProcessor::create, false);
  SearchFactory::registerBuiltin("presort", &SortProcessor::create, true);
  SearchFactory::registerBuiltin("head", &HeadProcessor::create, false);
  SearchFactory::registerBuiltin("tail", &HeadProcessor::create, false);
  SearchFactory::registerBuiltin("reverse", &HeadProcessor::create, false);
  SearchFactory::registerBuiltin("prehead", &HeadProcessor::create, true);
  SearchFactory::registerBuiltin("dedup", &DedupOperator::create, false);
  SearchFactory::registerBuiltin("prededup", &DedupOperator::create, true);
  SearchFactory::registerBuiltin("where", &WhereOperator::create, false);
  SearchFactory::registerBuiltin("eval", &EvalOperator::create, false);
  SearchFactory::registerBuiltin("fields", &SelectOperator::create, false);
  SearchFactory::registerBuiltin("rename", &RenameOperator::create, false);
  SearchFactory::registerBuiltin("fillnull", &FillNullProcessor::create, false);
  SearchFactory::registerBuiltin("regex", &RegexOperator::create, false);
  SearchFactory::registerBuiltin("convert", &ConversionProcessor::create, false);
  SearchFactory::registerBuiltin("replace", &ReplaceProcessor::create, false);
  SearchFactory::registerBuiltin("strcat", &StringConcatProcessor::create, false);
  SearchFactory::registerBuiltin("addtotals", &TotalsProcessor::create, false);
  for (const char* n : {"abstract", "excerpt"})
    SearchFactory::registerBuiltin(n, &AbstractOperator::create, false);
  for (const char* n : {"highlight", "hilite"})
    SearchFactory::registerBuiltin(n, &HighlightCommand::create, false);
  SearchFactory::registerBuiltin("format", &FormatResultsProcessor::create, false);
  SearchFactory::registerBuiltin("set", &SetProcessor::create, false);
  SearchFactory::registerBuiltin("map", &MapOperator::create, false);
  SearchFactory::registerBuiltin("page", &PageOperator::create, false);
  SearchFactory::registerBuiltin("localize", &LocalizeOperator::create, false);
  FileCommands::registerAll();
  StatsCommands::registerAll();
  CommonValueCommands::registerAll();
  BinCommands::registerAll();
  ChartCommands::registerAll();
  ExtractionCommands::registerAll();
  TransactionCommands::registerAll();
}
