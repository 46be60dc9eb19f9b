// Rule: a learned line-merging rule for one pair of line shapes: whether a
// line of the second shape after one of the first starts a new event
// (`brk`), and how sure the learner is (`weight`, higher is surer).
//
// Held by RulesDB through shared pointers; its fields change only under
// the RulesDB mutex.
#pragma once

struct Rule {
  double weight = 0.0;
  bool brk = true;
};
