#include "search/processors/ToolCommands.h"

#include "search/SearchFactory.h"
#include "search/processors/CancelPS.h"
#include "search/processors/CollapseOperator.h"
#include "search/processors/EditInfo.h"
#include "search/processors/FileDeleteProcessor.h"
#include "search/processors/FolderizeOperator.h"
#include "search/processors/NoKV.h"
#include "search/processors/NoPartial.h"
#include "search/processors/SavedVelmorProcessor.h"
#include "search/processors/SearchPS.h"
#include "search/processors/ShowArgs.h"
#include "search/processors/TagsAnnotateProcessor.h"
#include "search/processors/TagsGenerateProcessor.h"

void ToolCommands::registerAll() {
  SearchFactory::registerBuiltin("cancelps", &CancelPS::create, false);
  SearchFactory::registerBuiltin("nopartial", &NoPartial::create, false);
  SearchFactory::registerBuiltin("searchps", &SearchPS::create, false);
  SearchFactory::registerBuiltin("showargs", &ShowArgsProcessor::create, false);
  SearchFactory::registerBuiltin("folderize", &FolderizeOperator::create, false);
  SearchFactory::registerBuiltin("delete", &FileDeleteProcessor::create, false);
  SearchFactory::registerBuiltin("nokv", &NoKV::create, false);
  SearchFactory::registerBuiltin("tags", &TagsAnnotateProcessor::create, false);
  for (const char* n : {"tagcreate", "tagdelete", "tagset"})
    SearchFactory::registerBuiltin(n, &TagsGenerateProcessor::create, false);
  SearchFactory::registerBuiltin("editinfo", &EditInfo::create, true);
  SearchFactory::registerBuiltin("collapse", &CollapseOperator::create, true);
  for (const char* n : {"savedvelmor", "savedsearch", "macro"})
    SearchFactory::registerBuiltin(n, &SavedVelmorProcessor::create, false);
}
