#include "pipeline/indexer/search/SearchReplacementProcessor.h"

#include "framework/UserManager.h"
#include "pipeline/indexer/search/SearchOperator.h"
#include "pipeline/indexer/search/UnifiedSearchDispatchThreadManager.h"
#include "search/IdProvider.h"
#include "search/SLLimits.h"
#include "search/SearchCancel.h"
#include "search/SearchFactory.h"
#include "search/SearchParser.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "search/processors/SearchEvaluator.h"
#include "search/processors/StringSearchExpander.h"
#include "util/Exceptions.h"
#include "util/Logger.h"

static Logger gLogger("SearchReplacementProcessor");

namespace {
const char kOldSearchMark[] = "++oldsearch++";
constexpr size_t kOldSearchMarkLen = 14;  // the mark and the blank after it
}  // namespace

SearchReplacementProcessor::SearchReplacementProcessor(const Str& n) : SearchProcessor(n) {}
SearchReplacementProcessor::~SearchReplacementProcessor() = default;

Str SearchReplacementProcessor::findQueryId(const Str& text, Str* rest) {
  static const char kKey[] = "queryid::";
  for (size_t at = text.find(kKey); at != Str::npos; at = text.find(kKey, at + 1)) {
    if (at != 0 && text[at - 1] != ' ') continue;
    size_t from = at + sizeof(kKey) - 1;
    size_t end = text.find(' ', from);
    if (end == Str::npos) end = text.size();
    if (rest) {
      size_t cutFrom = at, cutTo = end;
      if (cutTo < text.size())
        ++cutTo;  // the blank after the term
      else if (cutFrom > 0)
        --cutFrom;  // the blank before a last term
      *rest = text.substr(0, cutFrom) + text.substr(cutTo);
    }
    return text.substr(from, end - from);
  }
  if (rest) *rest = text;
  return Str();
}

void SearchReplacementProcessor::evalArgs(SearchResultsInfo& info) {
  if (argsEvaluated) return;
  SearchProcessor::evalArgs(info);
  Str text;
  for (Arg* a : args) {
    if (!a || a->type != Arg::STRING || a->isConsumed()) continue;
    if (!text.empty()) text += ' ';
    text += static_cast<StringArg*>(a)->getText();
    a->setConsumed();
  }
  info.searchText = text;
  _queryId = findQueryId(text, &_text);
  text = _text;

  const UserContext* ctx = UserContext::current();
  std::vector<Str> warnings;
  Str expanded = StringSearchExpander(ctx ? ctx->user : info.userContext).expandSearch(text, warnings);
  for (const Str& w : warnings) info.addWarning(w);
  gLogger.debug("Actual search that was run = %s", expanded.c_str());

  try {
    _evaluator = std::make_unique<SearchEvaluator>(expanded);
  } catch (const SearchParsingException& e) {
    throw SearchProcessorException(e.what());
  }
  _nonEmpty = _evaluator->optimize();
  if (!_nonEmpty) {
    info.addWarning("Search is empty");
  } else {
    _evaluator->getKeywords(info.keywords);
  }

  // Only the first command reads the index; a filter later on needs none.
  if (info.streamingSearch && info.firstInPipeline) {
    _streamOperator = std::make_unique<SearchOperator>("search");
    _streamOperator->addArgument(new StringArg(text, false, true));
    _streamOperator->evalArgs(info);
    _streamOperator->processArguments();
    searchString = _streamOperator->getSearchString();
  }
}

void SearchReplacementProcessor::execute(SearchResults& results, SearchResultsInfo& info) {
  if (!_nonEmpty) {
    results.free(false);
    info.resultsComplete = true;
    return;
  }
  if (!info.firstInPipeline) {
    _evaluator->filter(results, false);
    return;
  }
  if (_streamOperator) {
    _streamOperator->execute(results, info);
    return;
  }
  runFirst(results, info);
}

bool SearchReplacementProcessor::absorbMap(const std::list<SearchProcessor*>& ops) {
  return _nonEmpty && _streamOperator && _streamOperator->absorbMap(ops);
}

void SearchReplacementProcessor::runFirst(SearchResults& results, SearchResultsInfo& info) {
  gLogger.debug("Executing: replacementsearch with query=\"%s\"", _text.c_str());
  if (!_queryId.empty()) info.queryId = _queryId;
  bool madeId = info.queryId.empty();
  if (madeId) info.queryId = IdProvider::getNextId();
  results.free(false);

  struct StopMadeId {
    bool made;
    const Str& id;
    ~StopMadeId() {
      if (made) SearchCancel::instance()->stop(id);
    }
  } stopper{madeId, info.queryId};

  if (_text.startswith(kOldSearchMark)) {
    runOldSearch(_text.size() > kOldSearchMarkLen ? _text.substr(kOldSearchMarkLen) : Str(), results, info);
    return;
  }

  if (info.firstEvent < 0) info.firstEvent = 0;
  if (info.maxEvents < 0) {
    unsigned long maxEvents = 10000;
    SL::getLimit("search", "max_events", maxEvents);
    info.maxEvents = int(std::min<unsigned long>(maxEvents, 0x7fffffff));
  }
  if (info.lastEvent < 0 || info.lastEvent >= info.maxEvents) info.lastEvent = info.maxEvents - 1;
  unsigned long first = (unsigned long)info.firstEvent;
  unsigned long count = info.lastEvent >= info.firstEvent ? (unsigned long)(info.lastEvent - info.firstEvent + 1) : 0;
  Timeval earliest = info.earliestTime, latest = info.latestTime;
  info.resultsComplete = UnifiedSearchDispatchThreadManager::instance()->getResults(
      "newsearch " + _text, info.queryId, first, count, results, earliest, latest, info);
  info.earliestTime = earliest;
  info.latestTime = latest;
}

void SearchReplacementProcessor::runOldSearch(const Str& rest, SearchResults& results, SearchResultsInfo& info) {
  if (!SearchFactory::isProcessorRegistered("oldsearch", true))
    throw searchError(this, gLogger, "Cannot run '%s': no command 'oldsearch' is registered", kOldSearchMark);
  std::unique_ptr<SearchProcessor> nested(SearchParser::parse("oldsearch " + rest, true));
  SearchResultsInfo nestedInfo = info;
  nestedInfo.messages.clear();
  try {
    nested->execute(results, nestedInfo);
  } catch (const SearchProcessorException& e) {
    info.addInfo(e.what());
  }
  for (const auto& [type, texts] : nestedInfo.messages)
    for (const Str& t : texts) info.addInfo(t);
  info.resultsComplete = nestedInfo.resultsComplete;
}
