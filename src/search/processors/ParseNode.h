// ParseNode: one node of the tree that a search's terms are built into
// (see SearchEvaluator).
//
// A node carries a three-valued truth for the event being checked: no value
// yet, true or false. Leaves get their value from the event's tokens, its raw
// text or its fields; groups derive theirs from their children. resetValue()
// forgets the value before the next event.
//
// Ownership: a group owns its children; the tree belongs to one
// SearchEvaluator and so to one search thread.
#pragma once

#include <set>

#include "util/Str.h"

class ParseNode {
 public:
  ParseNode() = default;
  virtual ~ParseNode() = default;
  ParseNode(const ParseNode&) = delete;
  ParseNode& operator=(const ParseNode&) = delete;

  // Negates the node in place (De Morgan applied at once): no NOT node
  // survives tree building.
  virtual void pushNOT() = 0;
  // A description of the subtree, for logs and tests.
  virtual Str toString() const = 0;

  virtual bool isGROUP() const { return false; }
  virtual bool isDIRECTIVE() const { return false; }
  virtual bool isCMP() const { return false; }
  virtual bool isTERM() const { return false; }
  virtual bool isLeaf() const { return false; }

  virtual void setValue(bool v) {
    _hasValue = true;
    _value = v;
  }
  virtual void resetValue() { _hasValue = false; }
  // True when the value is known, which then goes to `v`.
  virtual bool getValue(bool& v) {
    if (!_hasValue) return false;
    v = _value;
    return true;
  }
  virtual bool hasValue() const { return _hasValue; }

  // Adds the index terms this node requires to `terms`, and the terms whose
  // presence excludes an event to `optional` (the NOT list). Answers true
  // when the node's truth is fully decided by the terms it added.
  virtual bool getConjuncts(std::set<Str>& terms, std::set<Str>& optional) {
    (void)terms;
    (void)optional;
    return false;
  }

 protected:
  bool _hasValue = false;
  bool _value = false;
};
