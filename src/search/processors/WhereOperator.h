// WhereOperator: `where <expression>` keeps the rows for which the
// expression (evaluated by Evaluation) is neither NULL, empty nor "0".
// The argument text is taken whole, not cut into words.
//
// Field names rewrite. A field whose name the expression could not read as
// one word (it holds bytes other than letters, digits, "_", "." and ":",
// as in "bytes-in") may be written as it is: before the rows of a chunk are
// evaluated, each such name of the chunk's dictionary found in the text is
// replaced by an alias word that the Evaluation maps back to the field.
// Quoted text must come through that rewrite untouched, so it is first
// wrapped in markers: "XxX\"" ... "\"YyY" around double-quoted text and
// "XxX" ... "YyY" around single-quoted text; the rewrite skips what lies
// between them, and the markers are removed again before the Evaluation is
// built. A name, once found in a chunk's dictionary, is rewritten in every
// later chunk too. Until a chunk has such a name, the expression built in
// processArguments() is used as it is.
// One thread at a time.
#pragma once

#include <memory>
#include <vector>

#include "search/SearchProcessor.h"
#include "search/processors/Evaluation.h"

class WhereOperator : public SearchProcessor {
 public:
  explicit WhereOperator(const Str& name) : SearchProcessor(name) {}
  static SearchProcessor* create(const Str& name) { return new WhereOperator(name); }

  void parseArguments() override {}
  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

  // The whole argument text of a command that reads its arguments unparsed
  // (every string argument, consumed, joined by blanks).
  static Str wholeText(SearchProcessor& proc, const ArgList& args);

  // Wraps every quoted run of `text` in the markers.
  static Str protectQuoted(const Str& text);
  // Removes the markers that protectQuoted() added (and only those).
  static Str unprotectQuoted(const Str& text);
  // Replaces, outside the markers, every whole occurrence of names[k] by
  // "__where_f<k>"; answers whether anything was replaced.
  // REQUIRES: `text` came from protectQuoted().
  static bool rewriteFieldNames(Str& text, const std::vector<Str>& names);

 private:
  // The Evaluation for this chunk's dictionary.
  Evaluation& evaluationFor(SearchResults& results);

  Str _text;
  // The names rewritten so far. A name stays a field for the rest of the
  // search once a chunk knew it, so that a later chunk whose rows lack it
  // reads it as a missing field, as the whole set in memory would.
  std::vector<Str> _names;
  std::unique_ptr<Evaluation> _eval;     // of the text as written
  std::unique_ptr<Evaluation> _rewritten;  // of the last rewritten text
  Str _rewrittenText;
};
