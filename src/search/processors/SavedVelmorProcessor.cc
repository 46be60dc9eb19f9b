#include "search/processors/SavedVelmorProcessor.h"

#include <algorithm>
#include <memory>

#include "framework/SavedVelmorManager.h"
#include "framework/UserManager.h"
#include "pipeline/indexer/QueryLanguageParser.h"
#include "search/SearchFactory.h"
#include "search/SearchParser.h"
#include "search/SearchPipeline.h"
#include "search/SearchResultsInfo.h"
#include "search/StringArg.h"
#include "util/Logger.h"

static Logger gLogger("SavedVelmorProcessor");

namespace {

bool isKeyStart(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isKeyChar(char c) { return isKeyStart(c) || (c >= '0' && c <= '9') || c == '_'; }

// "a", "a and b", "a, b and c".
Str prettyList(const std::vector<Str>& names) {
  Str out;
  for (size_t i = 0; i < names.size(); ++i) {
    if (i > 0) out += i + 1 == names.size() ? " and " : ", ";
    out += names[i];
  }
  return out;
}

// Restores the info's run flags after the nested run.
struct InfoFlags {
  SearchResultsInfo& info;
  bool streaming, first;
  Str text;
  explicit InfoFlags(SearchResultsInfo& i)
      : info(i), streaming(i.streamingSearch), first(i.firstInPipeline), text(i.searchText) {}
  ~InfoFlags() {
    info.streamingSearch = streaming;
    info.firstInPipeline = first;
    info.searchText = text;
  }
};

}  // namespace

Str SavedVelmorProcessor::substitute(const Str& text, const std::map<Str, Str>& values, std::vector<Str>& missing) {
  Str out;
  size_t i = 0;
  while (i < text.size()) {
    if (text[i] == '$' && i + 1 < text.size() && isKeyStart(text[i + 1])) {
      size_t j = i + 1;
      while (j < text.size() && isKeyChar(text[j])) ++j;
      if (j < text.size() && text[j] == '$') {
        const Str key = text.substr(i + 1, j - i - 1);
        auto it = values.find(key);
        if (it != values.end()) {
          out += it->second;
        } else {
          if (std::find(missing.begin(), missing.end(), key) == missing.end()) missing.push_back(key);
          out.append(text, i, j + 1 - i);
        }
        i = j + 1;
        continue;
      }
    }
    out += text[i++];
  }
  return out;
}

Str SavedVelmorProcessor::searchFor(const Str& text) {
  Str t = text.trim();
  if (t.startswith('|')) return Str(t.substr(1)).trim();
  return "search " + t;
}

void SavedVelmorProcessor::evalArgs(SearchResultsInfo& info) {
  if (argsEvaluated) return;
  SearchProcessor::evalArgs(info);
  const UserContext* ctx = UserContext::current();
  _user = ctx ? ctx->user : info.userContext;
}

void SavedVelmorProcessor::processArguments() {
  if (getNextNonOpt(_savedName, true) == getArguments().size())
    throw SearchProcessorException("usage: %s <name> [options]", getName().c_str());
  bool noSubstitution = false;
  unsigned long maxAge = 60;
  getOption("usecache", _useCache);
  getOption("nosubstitution", noSubstitution);
  getOption("maxage", maxAge);
  _maxAgeMs = maxAge * 60 * 1000;

  SavedVelmor saved;
  if (!SavedVelmorManager::instance().getVelmorByKey(_savedName, "savedsearch", saved, _user))
    throw SearchProcessorException("Unable to find saved velmor with name = %s", _savedName.c_str());
  _text = QueryLanguageParser::savedSearchText(saved.query);

  // The remaining key=value options are the values of $key$.
  std::map<Str, Str> values;
  for (size_t i = 0; i < getArguments().size(); ++i) {
    StringArg* a = unconsumedString(i);
    if (a == nullptr || !a->isOption()) continue;
    values[a->getOptionName()] = a->getOptionValue();
    a->setConsumed();
  }
  if (!noSubstitution) {
    std::vector<Str> missing;
    Str text = substitute(_text, values, missing);
    if (!missing.empty())
      throw SearchProcessorException("The savedsearch %s requires the field%s %s.", _savedName.c_str(),
                                     missing.size() > 1 ? "s" : "", prettyList(missing).c_str());
    _text = text;
  }
  refuseLeftovers();
}

void SavedVelmorProcessor::execute(SearchResults& results, SearchResultsInfo& info) {
  const Str full = searchFor(_text);
  gLogger.debug("Running saved search '%s': %s", _savedName.c_str(), full.c_str());
  std::unique_ptr<SearchProcessor> parsed(SearchParser::parse(full, false));
  auto* pipeline = dynamic_cast<SearchPipeline*>(parsed.get());
  if (pipeline == nullptr) {
    auto wrapped = std::make_unique<SearchPipeline>();
    wrapped->addProcessor(parsed.release());
    parsed = std::move(wrapped);
    pipeline = static_cast<SearchPipeline*>(parsed.get());
  }
  if (!_text.trim().startswith('|') && SearchFactory::isProcessorRegistered("typer", false) &&
      SearchFactory::isProcessorRegistered("tags", false)) {
    pipeline->insertProcessor(SearchFactory::getProcessor("tags", false), 1);
    pipeline->insertProcessor(SearchFactory::getProcessor("typer", false), 1);
  }
  InfoFlags keep(info);
  info.streamingSearch = false;  // the nested search runs as a whole
  pipeline->execute(results, info);
}
