// SearchPipeline: a chain of commands run in turn over one SearchResults.
//
// Itself a SearchProcessor (name "PIPELINE"), so subsearches nest. It owns
// its members. execute() evaluates every member's arguments once, then runs
// each member's execute_dispatch in order, asking SearchCancel between
// commands: a cancelled search ends with its rows freed and no exception.
// Members' failures come out as SearchProcessorException.
// A pipeline belongs to the one thread that runs it.
#pragma once

#include <list>

#include "search/SearchProcessor.h"

class SearchPipeline : public SearchProcessor {
 public:
  SearchPipeline();
  ~SearchPipeline() override;

  virtual const std::list<SearchProcessor*>& getProcessors() const { return processors; }
  // Takes ownership.
  void addProcessor(SearchProcessor* p) { processors.push_back(p); }
  // Inserts before position pos, or appends when pos >= the count.
  void insertProcessor(SearchProcessor* p, unsigned int pos);
  // Hands the members to the caller; the pipeline is left empty.
  std::list<SearchProcessor*> releaseProcessors();

  void evalArgs(SearchResultsInfo& info) override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;
  bool acceptsPartialResults() const override;
  Str toString(unsigned int indent) const override;

  // Evaluates one member's arguments (evalArgs, then processArguments) with
  // "first in pipeline" as given; every failure comes out as
  // SearchProcessorException. Also for drivers that run members themselves.
  static void evaluateMember(SearchProcessor* p, SearchResultsInfo& info, bool first);

  // "name search| name search..." for a list of commands.
  static Str processorListToSearch(const std::list<SearchProcessor*>& procs);

 private:
  std::list<SearchProcessor*> processors;
  bool pipelineArgsEvaluated = false;
};
