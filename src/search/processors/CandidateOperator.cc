#include "search/processors/CandidateOperator.h"

void CandidateOperator::updateCandidate(const CandidateEvent& e, Candidate& c) {
  c.events.push_back(e);
  if (!std::isnan(e.time)) {
    if (!c.hasStart()) c.start = e.time;
    c.last = e.time;
  }
}

void CandidateOperator::processCandidate(const Candidate& in, std::vector<Candidate>& out) {
  std::vector<CandidateOperator*> self{this};
  cutInSequence(in, self, out);
}

void CandidateOperator::cutInSequence(const Candidate& in, const std::vector<CandidateOperator*>& ops,
                                      std::vector<Candidate>& out) {
  bool open = false;  // out.back() is the current piece
  for (const CandidateEvent& e : in.events) {
    if (open) {
      for (CandidateOperator* op : ops) {
        if (!op->isCompatible(e, out.back())) {
          open = false;
          break;
        }
      }
    }
    if (!open) {
      out.emplace_back();
      out.back().values = in.values;
      out.back().present = in.present;
      open = true;
    }
    Candidate& c = out.back();
    ops.front()->updateCandidate(e, c);
    for (CandidateOperator* op : ops) {
      if (op->endsAfter(e, c)) {
        open = false;
        break;
      }
    }
  }
}

void CandidateOperator::makeInitialCandidates(const std::vector<CandidateEvent>& events,
                                              std::vector<Candidate>& out) {
  out.clear();
  if (events.empty()) return;
  out.emplace_back();
  Candidate& c = out.back();
  c.events.reserve(events.size());
  for (const CandidateEvent& e : events) {
    c.events.push_back(e);
    if (!std::isnan(e.time)) {
      if (!c.hasStart()) c.start = e.time;
      c.last = e.time;
    }
  }
}

void CandidateOperator::processCandidatePipeline(const std::vector<CandidateEvent>& events,
                                                 const std::vector<std::vector<CandidateOperator*>>& steps,
                                                 std::vector<Candidate>& candidates) {
  makeInitialCandidates(events, candidates);
  for (const auto& step : steps) {
    if (step.empty()) continue;
    std::vector<Candidate> next;
    for (const Candidate& c : candidates) {
      if (step.size() == 1)
        step.front()->processCandidate(c, next);
      else
        cutInSequence(c, step, next);
    }
    step.back()->postProcess(next);
    candidates.swap(next);
  }
}
