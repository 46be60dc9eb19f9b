// SearchReplacementProcessor: the `search` command, the front of every
// search over the indexes and the row filter of a pipeline.
//
//   search <terms>
//
// The argument text is kept whole. evalArgs records it as the info's search
// text, expands it (tags, event types, saved searches, time words; the
// warnings go to WARN), builds the SearchEvaluator and simplifies it. An
// expression that can match nothing warns "Search is empty" and gives no
// rows. Otherwise its keywords are added to the info's keyword set.
//
// execute, by position:
//   - later in a pipeline: deletes the rows that do not match;
//   - first, with info.streamingSearch: runs a `newsearch` over the text
//     directly (one chunk per call, see SearchOperator);
//   - first otherwise: the unified search ("newsearch " + text) through
//     UnifiedSearchDispatchThreadManager, for the info's event window
//     (first event -1 means 0; the window holds at most `max_events` of
//     stanza "search", default 10000). A term "queryid::<id>" names the
//     query id (the term itself is taken out of the search); without one
//     an id is made and cancelled after the run.
//     A text starting with "++oldsearch++" runs "oldsearch " + the rest as
//     a nested pipeline when such a command is registered, with its
//     messages as INFO; otherwise it fails naming the missing command.
//
// One search thread owns the command.
#pragma once

#include <memory>

#include "search/SearchProcessor.h"

class SearchEvaluator;
class SearchOperator;

class SearchReplacementProcessor : public SearchProcessor {
 public:
  explicit SearchReplacementProcessor(const Str& name);
  ~SearchReplacementProcessor() override;
  static SearchProcessor* create(const Str& name) { return new SearchReplacementProcessor(name); }

  void parseArguments() override {}
  void evalArgs(SearchResultsInfo& info) override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;
  // Handed on to the `newsearch` of a streaming search (see SearchOperator).
  bool absorbMap(const std::list<SearchProcessor*>& ops) override;

  bool isEmptySearch() const { return !_nonEmpty; }
  const Str& getText() const { return _text; }
  // The `newsearch` run directly in a streaming search, or null.
  SearchOperator* getStreamOperator() const { return _streamOperator.get(); }

  // The id of the first "queryid::<id>" term of `text` (up to the next
  // blank), or empty. `rest`, when given, gets the text without that term.
  static Str findQueryId(const Str& text, Str* rest = nullptr);

 private:
  void runFirst(SearchResults& results, SearchResultsInfo& info);
  void runOldSearch(const Str& rest, SearchResults& results, SearchResultsInfo& info);

  std::unique_ptr<SearchEvaluator> _evaluator;
  std::unique_ptr<SearchOperator> _streamOperator;
  Str _text;     // the argument text without its queryid:: term
  Str _queryId;  // from that term
  bool _nonEmpty = false;
};
