// SavedVelmorProcessor: the `savedsearch` command (also `savedvelmor` and
// `macro`): runs the stored search of the given name.
//
//   savedsearch <name> [usecache=<bool>] [nosubstitution=<bool>]
//               [maxage=<minutes>] [<key>=<value>...]
//
// The search is looked up in the saved search store (SavedVelmorManager) as
// the acting user sees it (the thread's UserContext, else the info's user).
// Unless nosubstitution is true, each "$key$" of its text (a letter, then
// letters, digits, "_") is replaced by the value of the option key=value; a
// key with no option fails with "The savedsearch <name> requires the
// field(s) <list>." Options that no "$key$" uses are accepted and ignored.
//
// Running: a text that begins with "|" is run as it is; otherwise "search "
// goes in front. When the commands `typer` and `tags` are registered they
// are put after the first command, so rows carry their event types and
// tags. The search runs once, as a whole, on the command's own results and
// info (messages included): it reads at most the event window of the search
// (limits [search] max_events, 10000 by default), as any search does that
// is not the first command of a streamed one.
//
// usecache and maxage are accepted for compatibility and do not cache: the
// search always runs.
//
// One search thread owns the command.
#pragma once

#include <map>
#include <vector>

#include "search/SearchProcessor.h"

class SavedVelmorProcessor : public SearchProcessor {
 public:
  explicit SavedVelmorProcessor(const Str& name) : SearchProcessor(name) {}
  static SearchProcessor* create(const Str& name) { return new SavedVelmorProcessor(name); }

  bool isStreamable() const override { return false; }
  void evalArgs(SearchResultsInfo& info) override;
  // Throws "usage: <command> <name> [options]" without a name, "Unable to
  // find saved velmor with name = <name>" for a name the store lacks, the
  // substitution failure above, and "Invalid argument: '...'" for leftovers.
  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

  // The text with each $key$ replaced from `values`; the keys it lacks are
  // added to `missing` (each once, in order of appearance).
  static Str substitute(const Str& text, const std::map<Str, Str>& values, std::vector<Str>& missing);
  // The search that runs for a stored text ("search " in front unless it
  // begins with "|").
  static Str searchFor(const Str& text);

  const Str& getSavedText() const { return _text; }

 private:
  Str _user;
  Str _savedName;
  Str _text;
  unsigned long _maxAgeMs = 60 * 60 * 1000;
  bool _useCache = false;
};
