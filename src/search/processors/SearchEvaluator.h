// SearchEvaluator: the boolean expression of a search's terms, built from
// its text, reduced to the terms an index can answer, and checked against
// rows that already exist.
//
// Building: RETokenizer cuts the text; "(" and ")" open and close AND
// groups, "AND" is dropped, "OR" and "NOT" (upper case only; "and", "or" and
// "not" are words) become directives, an operator becomes a comparison and
// everything else a term. ParseNodeGROUP::associate then gives the tree its
// shape. Terms are segmented by the `search` stanza of `segmenters` (a star
// stays part of a term there, it is a wildcard); events by the `default`
// stanza.
//
// Checking a row (isMatch): the values of the tree are reset, the row's
// _raw is segmented through the SearchTermCallback so that only terms whose
// prefix a token has are tried, and terms that no token matched become
// false. If the root is still open, the terms that need the whole raw text
// are matched against it; then the comparisons are evaluated. A row matches
// only when the root is known and true.
//
// Ownership: owns the tree, the cleaners and the callback. The evaluation
// state lives in the nodes, so one evaluator belongs to one search thread.
#pragma once

#include <memory>
#include <set>
#include <vector>

#include "search/SearchResult.h"
#include "util/Str.h"
#include "util/StringPiece.h"
#include "util/Timeval.h"

class GenericCleaner;
class ParseNode;
class ParseNodeGROUP;
class SearchResults;
class SearchTermCallback;

class SearchEvaluator {
 public:
  // Builds the tree. Throws SearchParsingException with the grammar fault.
  explicit SearchEvaluator(const StringPiece& text);
  ~SearchEvaluator();
  SearchEvaluator(const SearchEvaluator&) = delete;
  SearchEvaluator& operator=(const SearchEvaluator&) = delete;

  // Simplifies the tree. False when the expression can match nothing.
  bool optimize();

  // The words the search looks for (the tokens of its positive terms).
  void getKeywords(std::set<Str>& out) const;

  // The terms for the index: all of `andTerms`, none of `notTerms`, and one
  // of `orTerms` when that is not empty; [start, end] narrowed by `_time`
  // comparisons. True when the index's answer is exactly the matching
  // events; otherwise the answer is a superset that filter() must cut.
  // Throws SearchParsingException "empty search: start=%d > end=%d".
  bool getQuery(std::set<Str>& andTerms, std::set<Str>& notTerms, std::set<Str>& orTerms, Timeval& start,
                Timeval& end);
  // getQuery as one text: "exact|" or "inexact|", start "|" end, then
  // "|AND:", "|NOT:" and "|OR:" each followed by its terms, each with "|"
  // in front. Whole seconds; the bounds default to 0 and 2147483647.
  Str toIndexString();

  // Deletes the rows that do not match. With keysKnown false, initKeys
  // runs first.
  void filter(SearchResults& results, bool keysKnown);
  // REQUIRES: initKeys on the row's results.
  bool isMatch(SearchResult* row);
  // Interns the keys of the comparisons, and "_raw" if any term needs it.
  void initKeys(SearchResults& results);

  Str toString() const;
  const Str& getText() const { return _text; }

 private:
  void rebuildLeaves();

  Str _text;
  std::unique_ptr<GenericCleaner> _cleaner;
  std::unique_ptr<SearchTermCallback> _callback;
  std::unique_ptr<ParseNodeGROUP> _root;
  std::vector<ParseNode*> _leaves;
  sr_index_t _rawKey = 0;
  Str _lowerRaw;  // reused across rows
};
