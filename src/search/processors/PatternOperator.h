// PatternOperator: cuts transactions out of a candidate by a pattern of
// event types (`transaction aliases=... pattern=...`).
//
// Each alias names an event type and gets a letter ('A'..'Z', then
// 'a'..'z'); an event's letter is that of the first alias whose event type
// is among the event's `eventtype` values, or '_' when there is none. The
// letters of a candidate's events make its event-type stream, and the
// pattern, converted by PatternBuilder, is matched over it from the left:
// each match becomes a new candidate, from the event of its first letter to
// that of its last, without the events that filled the gaps of an ordered
// pair ("A B": the events between A and B are left out). Events outside every
// match belong to no transaction. In a repeated group only the last gap is
// known, so earlier gaps of a repetition are kept.
//
// Owns its compiled expression. prepare() binds the event type field of the
// result set. One thread at a time.
#pragma once

#include <map>
#include <memory>
#include <vector>

#include "search/SearchResult.h"
#include "search/processors/CandidateOperator.h"
#include "util/RE.h"

class SearchResults;

class PatternOperator : public CandidateOperator {
 public:
  static const size_t kMaxAliases = 52;

  // Throws SearchProcessorException for a pattern PatternBuilder refuses or
  // more than kMaxAliases aliases.
  PatternOperator(const std::vector<std::pair<Str, Str>>& aliases, const Str& pattern);

  void prepare(SearchResults& results);
  void processCandidate(const Candidate& in, std::vector<Candidate>& out) override;
  bool isCompatible(const CandidateEvent& e, const Candidate& c) override {
    (void)e;
    (void)c;
    return false;
  }

  // One letter per event of `c`, in order.
  void getEventTypeStream(const Candidate& c, Str& text) const;
  const Str& regex() const { return _regex; }

 private:
  std::map<Str, char> _typeLetter;  // event type -> letter (first alias wins)
  std::vector<Str> _typeOrder;      // event types in alias order
  Str _regex;
  std::unique_ptr<RE> _re;
  sr_index_t _typeKey = 0;
};
