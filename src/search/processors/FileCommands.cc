#include "search/processors/FileCommands.h"

#include "search/SearchFactory.h"
#include "search/processors/ExternProcessor.h"
#include "search/processors/InputCSV.h"
#include "search/processors/IntervelmorIn.h"
#include "search/processors/IntervelmorOut.h"
#include "search/processors/OutputAtom.h"
#include "search/processors/OutputCSV.h"
#include "search/processors/OutputText.h"
#include "search/processors/OutputTransformerNew.h"
#include "search/processors/OutputTransformerRaw.h"
#include "search/processors/OutputTransformerRawr.h"

void FileCommands::registerAll() {
  SearchFactory::registerBuiltin("inputcsv", &InputCSV::create, false);
  SearchFactory::registerBuiltin("internalinputcsv", &InputCSV::create, true);
  SearchFactory::registerBuiltin("outputcsv", &OutputCSV::create, false);
  SearchFactory::registerBuiltin("outputxml", &OutputTransformerNew::create, false);
  SearchFactory::registerBuiltin("outputraw", &OutputTransformerRaw::create, false);
  SearchFactory::registerBuiltin("outputrawr", &OutputTransformerRawr::create, false);
  SearchFactory::registerBuiltin("outputtext", &OutputText::create, false);
  SearchFactory::registerBuiltin("outputatom", &OutputAtom::create, false);
  SearchFactory::registerBuiltin("script", &ExternProcessor::create, false);
  SearchFactory::registerBuiltin("run", &ExternProcessor::create, false);
  SearchFactory::registerBuiltin("load", &IntervelmorIn::create, false);
  SearchFactory::registerBuiltin("save", &IntervelmorOut::create, false);
  SearchFactory::setFallback(&ExternProcessor::createForScriptName);
}
