// StringSearchExpander: rewrites the text of a search before its tree is
// built. Names that stand for other searches are replaced by what they stand
// for, and time words become `_time` comparisons:
//
//   savedsearch::n  savedvelmor::n (or "=")  the saved search's terms, in
//                   parentheses (its `key` elements when it is the XML form)
//   eventtype::n    (or "=")  the event type's terms, ORed, in parentheses
//   tag::t  tag::field::t  hosttag::t  eventtypetag::t  (or "=")
//                   ( field="value" OR ... ) over what carries the tag
//   sourcetype=x    ( sourcetype="a" OR sourcetype="b" ) when x stands for
//                   other source types; otherwise as it is
//   starttime= endtime= daysago= ... searchtimespanhours= (or "::")
//                   dropped; each parenthesis keeps its own time range and
//                   ends with `_time>=<start> _time<<end>` for the bounds set
//   timeformat=     dropped; the strptime format of later starttime/endtime
//
// The tokens are words, double-quoted runs (a quoted run inside a word stays
// in that word) and parentheses, which are tokens wherever they stand
// outside quotes; any white space separates words. The output is the tokens
// joined by single blanks. The rewrite is repeated on its own output until
// the text stops changing, at most 255 times, so that a tag leading to an
// event type that holds a tag is resolved and a cycle ends. A round that
// would make the text longer than kMaxExpandedBytes is not taken.
//
// Names are resolved through the process's ITagResolver (tags, event types,
// source types) and ISavedSearchSource (saved searches), as seen by the user
// given at construction. A name that cannot be resolved (or everything, when
// nothing is installed) adds a warning and the token stays as it stands; a
// time word that cannot be read does the same. Expansion never throws for
// the user's text. Each distinct warning is added once.
//
// Stateless between calls; one object may be used by one thread at a time
// (the installed resolvers must allow any thread, which they do).
#pragma once

#include <ctime>
#include <vector>

#include "util/Str.h"

class TimeParser;

class StringSearchExpander {
 public:
  static constexpr int kMaxRounds = 255;
  static constexpr size_t kMaxExpandedBytes = 1 << 20;

  // `now` is the clock of the time words; 0 reads the clock at each round.
  explicit StringSearchExpander(const Str& user = Str(), time_t now = 0) : _user(user), _now(now) {}

  // The expanded text. Warnings are appended to `warnings`.
  Str expandSearch(const Str& text, std::vector<Str>& warnings) const;

  // Words, quoted runs and parentheses of `text`, quotes kept.
  static void tokenize(const Str& text, std::vector<Str>& tokens);

 private:
  Str _internalExpandSearch(const Str& text, std::vector<Str>& warnings) const;

  // Each pushes the replacement of one token to `out` and answers true, or
  // adds a warning and answers false (the caller then keeps the token).
  bool _pushbackTokensForTag(const Str& term, std::vector<Str>& out, std::vector<Str>& warnings) const;
  bool _pushbackTokensForSavedVelmorOrEventtype(bool isSavedSearch, const Str& name, std::vector<Str>& out,
                                                std::vector<Str>& warnings) const;
  bool _pushbackTokensForSourceType(const Str& name, std::vector<Str>& out) const;

  // Emits `_time>=` and `_time<` for the bounds `parser` has.
  static void emitTimeConditions(const TimeParser& parser, std::vector<Str>& out);
  // True when `text` pipes into a command other than `search`; otherwise
  // `terms` gets the search terms of all its parts, joined by blanks.
  static bool _doesContainOtherOperators(const Str& text, Str& terms);
  static Str _removeWrappingQuotes(const Str& token);

  Str _user;
  time_t _now;
};
