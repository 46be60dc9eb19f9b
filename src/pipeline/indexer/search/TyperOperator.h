// TyperOperator: the `typer` command. Adds the field `eventtype` to each row:
// the names of the event types whose search text matches the row, in the
// order the source lists them, joined by blanks, and as the multi-value
// form of the field when there are several. A row no type matches is left
// as it is. No options.
//
// The event types come from the process's EventTypeSource (the saved-search
// side installs one); with none installed the command leaves every row as
// it is. Each type's text is compiled once per command into a
// SearchEvaluator; a text that does not parse, or that can match nothing,
// is skipped with a warning naming the type.
//
// One search thread owns the command. EventTypeSource::install and
// installed may be called from any thread.
#pragma once

#include <memory>
#include <utility>
#include <vector>

#include "search/SearchProcessor.h"

class SearchEvaluator;

class TyperOperator : public SearchProcessor {
 public:
  // Where the event types and their search texts come from.
  class EventTypeSource {
   public:
    virtual ~EventTypeSource() = default;
    // The (name, search text) pairs `user` may use. Any thread may call.
    virtual void list(const Str& user, std::vector<std::pair<Str, Str>>& out) = 0;

    // Installs the source of this process (null: none). Returns the one it
    // replaced.
    static std::shared_ptr<EventTypeSource> install(std::shared_ptr<EventTypeSource> source);
    static std::shared_ptr<EventTypeSource> installed();
  };

  explicit TyperOperator(const Str& name);
  ~TyperOperator() override;
  static SearchProcessor* create(const Str& name) { return new TyperOperator(name); }

  void processArguments() override { refuseLeftovers(); }
  void execute(SearchResults& results, SearchResultsInfo& info) override;

 private:
  void loadTypes(SearchResultsInfo& info);

  bool _loaded = false;
  std::vector<std::pair<Str, std::unique_ptr<SearchEvaluator>>> _types;
};
