// CandidateOperator: one step of the transaction grouping. Each operator
// takes the candidates the step before made and may split them.
//
// The events of a candidate arrive in time order. isCompatible() answers
// whether an event may join a candidate; updateCandidate() adds it;
// endsAfter() answers whether the candidate must take no further event once
// this one has joined (an end condition). The base processCandidate() cuts
// the events in sequence: an event joins the current piece when it is
// compatible with it, else a new piece starts with it. For conditions that
// look only at times and counts this is the same as trying every earlier
// piece, because in time order no earlier piece can take an event that the
// latest one refuses. UnifiedOperator replaces processCandidate with a
// hashed grouping by field values.
//
// cutInSequence() runs several sequential operators as one pass, so that a
// piece ends as soon as any of them says so and the next piece's span,
// pause and count start afresh with its first event.
//
// Operators own nothing of the candidates. One thread at a time.
#pragma once

#include <vector>

#include "search/processors/Candidate.h"

class CandidateOperator {
 public:
  virtual ~CandidateOperator() = default;

  // Splits `in` into pieces appended to `out`.
  virtual void processCandidate(const Candidate& in, std::vector<Candidate>& out);
  virtual bool isCompatible(const CandidateEvent& e, const Candidate& c) = 0;
  // Appends the event and keeps start/last up to date.
  virtual void updateCandidate(const CandidateEvent& e, Candidate& c);
  virtual bool endsAfter(const CandidateEvent& e, const Candidate& c) {
    (void)e;
    (void)c;
    return false;
  }
  // Runs once over all pieces one step made; nothing in the base.
  virtual void postProcess(std::vector<Candidate>& out) { (void)out; }

  // Cuts `in` by all of `ops` at once (see above).
  static void cutInSequence(const Candidate& in, const std::vector<CandidateOperator*>& ops,
                            std::vector<Candidate>& out);
  // All events as one candidate, in their order.
  static void makeInitialCandidates(const std::vector<CandidateEvent>& events, std::vector<Candidate>& out);
  // Each step in turn over every candidate of the step before. A step is a
  // list of operators cut together by cutInSequence, or one operator with
  // its own processCandidate when the list has one member.
  static void processCandidatePipeline(const std::vector<CandidateEvent>& events,
                                       const std::vector<std::vector<CandidateOperator*>>& steps,
                                       std::vector<Candidate>& candidates);
};
