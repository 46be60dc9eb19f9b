// SavedVelmorProcessor: the `savedsearch` command (also `savedvelmor` and
// `macro`): runs the stored search of the given name.
//
// The saved search store is not part of this library yet, so every name is
// reported as not found; the usage check on a missing name applies already.
#pragma once

#include "search/SearchProcessor.h"

class SavedVelmorProcessor : public SearchProcessor {
 public:
  explicit SavedVelmorProcessor(const Str& name) : SearchProcessor(name) {}
  static SearchProcessor* create(const Str& name) { return new SavedVelmorProcessor(name); }

  bool isStreamable() const override { return false; }
  // Throws "usage: <command> <name> [options]" without a name, and "Unable
  // to find saved velmor with name = <name>" for a name the store lacks.
  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;
};
