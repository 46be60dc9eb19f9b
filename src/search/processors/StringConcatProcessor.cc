#include "search/processors/StringConcatProcessor.h"

#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "util/Logger.h"

namespace {
Logger gLogger("strcat");
}

void StringConcatProcessor::processArguments() {
  getOption("allrequired", _allRequired);
  std::vector<StringArg*> words;
  for (size_t i = 0; i < args.size(); ++i) {
    StringArg* a = unconsumedString(i);
    if (a == nullptr) continue;
    if (a->isOption()) throw searchError(this, gLogger, "Invalid option '%s'", a->getText().c_str());
    words.push_back(a);
    a->setConsumed();
  }
  if (words.size() < 2)
    throw searchError(this, gLogger, "Not enough fields, USAGE: %s srcfield1 srcfield2 ... srcfieldn dest_field",
                      name.c_str());
  for (StringArg* a : words)
    if (a->getText().empty()) throw searchError(this, gLogger, "Fields cannot be empty string");
  if (words.back()->isQuoted()) throw searchError(this, gLogger, "Last field must be the destination field name");
  _dest = words.back()->getText();
  for (size_t i = 0; i + 1 < words.size(); ++i) {
    _srcs.push_back(words[i]->getText());
    _literal.push_back(words[i]->isQuoted());
  }
}

void StringConcatProcessor::execute(SearchResults& results, SearchResultsInfo&) {
  std::vector<sr_index_t> inds(_srcs.size(), SearchResults::nkeyindex);
  for (size_t i = 0; i < _srcs.size(); ++i)
    if (!_literal[i]) inds[i] = results.keyIndex(_srcs[i]);
  sr_index_t dest = results.keyIndex(_dest, true);
  Str out;
  for (SearchResult* r : results) {
    out.clear();
    bool complete = true;
    for (size_t i = 0; i < _srcs.size(); ++i) {
      if (_literal[i]) {
        out += _srcs[i];
      } else if (const Str* v = r->getValuePtr(inds[i])) {
        out += *v;
      } else {
        complete = false;
      }
    }
    if (complete || !_allRequired) r->setValue(dest, out);
  }
}
