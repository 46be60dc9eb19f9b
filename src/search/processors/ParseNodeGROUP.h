// ParseNodeGROUP: an AND (isConj) or OR group of nodes, and the tree passes
// that run on groups: associate() turns the flat token list of a level into
// structure, collapse() simplifies, getQuery() reduces the tree to index
// terms.
//
// Binding: adjacency is AND; "a OR b OR c" nests to the left and binds
// tighter than adjacency, so "a b OR c" is a AND (b OR c). NOT applies to
// the next term, comparison or group. An empty AND group is true, an empty
// OR group false.
//
// Value: three-valued and short-circuit. A child whose value is the opposite
// of isConj decides the group. In an AND group a child without a value ends
// the question without a value; in an OR group it is passed over, and an OR
// group that finds no true child but some open one has no value.
//
// Ownership: owns its children. One thread.
#pragma once

#include <set>
#include <vector>

#include "search/processors/ParseNode.h"
#include "util/Timeval.h"

class GenericCleaner;

class ParseNodeGROUP : public ParseNode {
 public:
  explicit ParseNodeGROUP(bool isConj) : _isConj(isConj) {}
  ~ParseNodeGROUP() override;

  void pushNOT() override;
  Str toString() const override;
  bool isGROUP() const override { return true; }
  void resetValue() override;
  bool getValue(bool& v) override;
  bool getConjuncts(std::set<Str>& terms, std::set<Str>& optional) override;

  // Takes ownership.
  void addChild(ParseNode* child) { _children.push_back(child); }
  const std::vector<ParseNode*>& children() const { return _children; }
  bool isCONJ() const { return _isConj; }

  // Resolves comparisons, pseudo-terms, NOT and OR, in child groups first.
  // `cleaner` (may be null) segments the values of new comparisons. Throws
  // SearchParsingException with the grammar fault.
  void associate(const GenericCleaner* cleaner);
  // Dissolves redundant groups and folds constants.
  void collapse();
  // Appends every leaf below, left to right.
  void getLeaves(std::vector<ParseNode*>& leaves);
  // The terms that the index can answer for this (root) group; see
  // SearchEvaluator::getQuery. Narrows [start, end] by `_time` comparisons.
  // True when the index's answer is exact. Throws SearchParsingException
  // "empty search: start=%d > end=%d".
  bool getQuery(std::set<Str>& andTerms, std::set<Str>& notTerms, std::set<Str>& orTerms, Timeval& start,
                Timeval& end);

 private:
  void associateComparisons(const GenericCleaner* cleaner);
  void associatePseudoTerms(const GenericCleaner* cleaner);
  void associateNOT();
  void associateOR();
  void deleteChildren();

  std::vector<ParseNode*> _children;
  bool _isConj;
};
