#include "search/processors/ParseNodeGROUP.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>

#include "search/processors/ParseNodeCMP.h"
#include "search/processors/ParseNodeDIRECTIVE.h"
#include "search/processors/ParseNodeTERM.h"
#include "util/Exceptions.h"

namespace {

ParseNodeDIRECTIVE* asDirective(ParseNode* n) {
  return n->isDIRECTIVE() ? static_cast<ParseNodeDIRECTIVE*>(n) : nullptr;
}

// Terms of one branch of an OR, for the index.
struct Branch {
  std::set<Str> terms;
  std::set<Str> nots;
  bool exact = false;
};

// The longest of the terms (the rarest, as a rule); the first of equals.
const Str& longest(const std::set<Str>& terms) {
  const Str* best = &*terms.begin();
  for (const Str& t : terms)
    if (t.size() > best->size()) best = &t;
  return *best;
}

// Puts the longest term of each branch into `orTerms`. False (and nothing
// added) when a branch needs no term at all: the index cannot narrow then.
bool branchesToOr(std::vector<Branch>& branches, std::set<Str>& orTerms, bool& exact) {
  for (const Branch& b : branches)
    if (b.terms.empty()) return false;
  for (const Branch& b : branches) {
    orTerms.insert(longest(b.terms));
    if (!b.exact || b.terms.size() != 1 || !b.nots.empty()) exact = false;
  }
  return true;
}

bool includes(const std::set<Str>& big, const std::set<Str>& small) {
  for (const Str& s : small)
    if (!big.count(s)) return false;
  return true;
}

}  // namespace

ParseNodeGROUP::~ParseNodeGROUP() { deleteChildren(); }

void ParseNodeGROUP::deleteChildren() {
  for (ParseNode* c : _children) delete c;
  _children.clear();
}

void ParseNodeGROUP::pushNOT() {
  _isConj = !_isConj;
  for (ParseNode* c : _children) c->pushNOT();
}

Str ParseNodeGROUP::toString() const {
  Str s = _isConj ? "AND(" : "OR(";
  for (size_t i = 0; i < _children.size(); ++i) {
    if (i) s += ", ";
    s += _children[i]->toString();
  }
  s += ")";
  return s;
}

void ParseNodeGROUP::resetValue() {
  _hasValue = false;
  for (ParseNode* c : _children) c->resetValue();
}

bool ParseNodeGROUP::getValue(bool& v) {
  if (_hasValue) {
    v = _value;
    return true;
  }
  bool open = false;
  for (ParseNode* c : _children) {
    bool cv;
    if (c->getValue(cv)) {
      if (cv != _isConj) {
        setValue(cv);
        v = cv;
        return true;
      }
    } else if (_isConj) {
      return false;
    } else {
      open = true;
    }
  }
  if (open) return false;
  setValue(_isConj);
  v = _isConj;
  return true;
}

// --- associate --------------------------------------------------------------

void ParseNodeGROUP::associate(const GenericCleaner* cleaner) {
  for (ParseNode* c : _children)
    if (c->isGROUP()) static_cast<ParseNodeGROUP*>(c)->associate(cleaner);
  associateComparisons(cleaner);
  associatePseudoTerms(cleaner);
  associateNOT();
  associateOR();
}

void ParseNodeGROUP::associateComparisons(const GenericCleaner* cleaner) {
  for (size_t i = 0; i < _children.size(); ++i) {
    // A comparison made here from a "key::value" term already has its sides;
    // only the bare operators made by the tree builder are open.
    if (!_children[i]->isCMP()) continue;
    ParseNodeCMP* cmp = static_cast<ParseNodeCMP*>(_children[i]);
    if (cmp->hasSides()) continue;
    if (i == 0) throw SearchParsingException("missing LHS for comparison");
    if (i + 1 == _children.size()) throw SearchParsingException("missing RHS for comparison");
    if (!_children[i - 1]->isTERM()) throw SearchParsingException("invalid LHS for comparison");
    if (!_children[i + 1]->isTERM()) throw SearchParsingException("invalid RHS for comparison");
    ParseNodeTERM* left = static_cast<ParseNodeTERM*>(_children[i - 1]);
    ParseNodeTERM* right = static_cast<ParseNodeTERM*>(_children[i + 1]);
    cmp->setSides(left->originalText(), right->originalText(), cleaner);
    delete left;
    delete right;
    _children.erase(_children.begin() + i + 1);
    _children.erase(_children.begin() + i - 1);
    --i;
  }
}

void ParseNodeGROUP::associatePseudoTerms(const GenericCleaner* cleaner) {
  for (size_t i = 0; i < _children.size(); ++i) {
    if (!_children[i]->isTERM()) continue;
    ParseNodeTERM* term = static_cast<ParseNodeTERM*>(_children[i]);
    const Str& text = term->originalText();
    if (text == "*" || text == "meta::all") {
      delete term;
      _children[i] = new ParseNodeGROUP(true);
      continue;
    }
    bool quoted = term->isQuoted();
    Str inner = quoted ? Str(text.substr(1, text.size() - 2)) : text;
    size_t sep = inner.find("::");
    if (sep == Str::npos || sep == 0) continue;
    Str left = inner.substr(0, sep);
    Str right = inner.substr(sep + 2);
    if (quoted) {
      left = "\"" + left + "\"";
      right = "\"" + right + "\"";
    }
    auto* cmp = new ParseNodeCMP("=");
    cmp->setSides(left, right, cleaner);
    cmp->setIndexed(true);
    delete term;
    _children[i] = cmp;
  }
}

void ParseNodeGROUP::associateNOT() {
  for (size_t i = 0; i < _children.size(); ++i) {
    ParseNodeDIRECTIVE* d = asDirective(_children[i]);
    if (!d || !d->isNOT()) continue;
    size_t j = i;
    while (j < _children.size() && asDirective(_children[j]) && asDirective(_children[j])->isNOT()) ++j;
    if (j == _children.size()) throw SearchParsingException("NOT requires an argument");
    if (_children[j]->isDIRECTIVE()) throw SearchParsingException("NOT must not be followed by a binary operator");
    if ((j - i) % 2 == 1) _children[j]->pushNOT();
    for (size_t k = i; k < j; ++k) delete _children[k];
    _children.erase(_children.begin() + i, _children.begin() + j);
  }
}

void ParseNodeGROUP::associateOR() {
  for (size_t i = 0; i < _children.size(); ++i) {
    ParseNodeDIRECTIVE* d = asDirective(_children[i]);
    if (!d) continue;
    if (!d->isOR()) throw SearchParsingException("unknown directive");
    if (i == 0) throw SearchParsingException("Missing LHS for OR");
    if (i + 1 == _children.size() || _children[i + 1]->isDIRECTIVE())
      throw SearchParsingException("Missing RHS for OR");
    auto* group = new ParseNodeGROUP(false);
    group->addChild(_children[i - 1]);
    group->addChild(_children[i + 1]);
    delete d;
    _children[i - 1] = group;
    _children.erase(_children.begin() + i, _children.begin() + i + 2);
    // The scan goes on after the new group, which is the left side of a
    // following OR.
    --i;
  }
}

// --- collapse ---------------------------------------------------------------

void ParseNodeGROUP::collapse() {
  for (ParseNode* c : _children)
    if (c->isGROUP()) static_cast<ParseNodeGROUP*>(c)->collapse();
  for (size_t i = 0; i < _children.size();) {
    if (!_children[i]->isGROUP()) {
      ++i;
      continue;
    }
    auto* g = static_cast<ParseNodeGROUP*>(_children[i]);
    if (g->_isConj == _isConj || g->_children.size() == 1) {
      // Dissolve: its children take its place and are looked at in turn.
      std::vector<ParseNode*> moved;
      moved.swap(g->_children);
      delete g;
      _children.erase(_children.begin() + i);
      _children.insert(_children.begin() + i, moved.begin(), moved.end());
      continue;
    }
    if (g->_children.empty()) {
      // A constant of the other kind decides this group: an empty OR (false)
      // in an AND, an empty AND (true) in an OR.
      deleteChildren();
      _isConj = !_isConj;
      return;
    }
    ++i;
  }
  if (_children.size() == 1 && _children[0]->isGROUP()) {
    auto* g = static_cast<ParseNodeGROUP*>(_children[0]);
    _children.clear();
    _children.swap(g->_children);
    _isConj = g->_isConj;
    delete g;
  }
}

void ParseNodeGROUP::getLeaves(std::vector<ParseNode*>& leaves) {
  for (ParseNode* c : _children) {
    if (c->isGROUP())
      static_cast<ParseNodeGROUP*>(c)->getLeaves(leaves);
    else
      leaves.push_back(c);
  }
}

// --- terms for the index ------------------------------------------------------

bool ParseNodeGROUP::getConjuncts(std::set<Str>& terms, std::set<Str>& optional) {
  if (_isConj) {
    bool exact = true;
    for (ParseNode* c : _children)
      if (!c->getConjuncts(terms, optional)) exact = false;
    return exact;
  }
  // OR: only what every branch requires is required.
  if (_children.empty()) return false;
  std::set<Str> commonTerms, commonNots;
  bool exact = _children.size() == 1;
  for (size_t i = 0; i < _children.size(); ++i) {
    std::set<Str> t, n;
    if (!_children[i]->getConjuncts(t, n)) exact = false;
    if (i == 0) {
      commonTerms.swap(t);
      commonNots.swap(n);
      continue;
    }
    for (auto it = commonTerms.begin(); it != commonTerms.end();) it = t.count(*it) ? ++it : commonTerms.erase(it);
    for (auto it = commonNots.begin(); it != commonNots.end();) it = n.count(*it) ? ++it : commonNots.erase(it);
  }
  terms.insert(commonTerms.begin(), commonTerms.end());
  optional.insert(commonNots.begin(), commonNots.end());
  return exact;
}

bool ParseNodeGROUP::getQuery(std::set<Str>& andTerms, std::set<Str>& notTerms, std::set<Str>& orTerms,
                              Timeval& start, Timeval& end) {
  bool exact = true;
  if (!_isConj) {
    std::vector<Branch> branches(_children.size());
    for (size_t i = 0; i < _children.size(); ++i)
      branches[i].exact = _children[i]->getConjuncts(branches[i].terms, branches[i].nots);
    // A branch that needs everything another needs is implied by it; only
    // the weaker one is asked of the index.
    std::vector<Branch> kept;
    for (size_t i = 0; i < branches.size(); ++i) {
      bool redundant = false;
      for (size_t j = 0; j < branches.size() && !redundant; ++j) {
        if (i == j || !includes(branches[i].terms, branches[j].terms)) continue;
        // Of two equal sets the later one goes.
        redundant = branches[i].terms.size() > branches[j].terms.size() || j < i;
      }
      if (!redundant) kept.push_back(branches[i]);
    }
    if (!branchesToOr(kept, orTerms, exact)) return false;
    return exact;
  }
  // Time bounds from `_time` comparisons. Only a whole-second ">=" start and
  // "<" end are what the index's range gives exactly.
  for (ParseNode* c : _children) {
    if (!c->isCMP()) continue;
    auto* cmp = static_cast<ParseNodeCMP*>(c);
    if (cmp->getKey() != "_time") continue;
    if (!cmp->isNumeric()) {
      exact = false;
      continue;
    }
    double v = cmp->numericValue();
    bool whole = v == std::floor(v);
    if (!cmp->isLT()) {
      int64_t s = static_cast<int64_t>(std::floor(v));
      if (s > start.sec()) start = Timeval(s, 0);
      if (!(cmp->isGT() && cmp->isEQ() && whole)) exact = false;
    }
    if (!cmp->isGT()) {
      int64_t e = static_cast<int64_t>(std::ceil(v)) + (cmp->isEQ() ? 1 : 0);
      if (e < end.sec()) end = Timeval(e, 0);
      if (!(cmp->isLT() && !cmp->isEQ() && whole)) exact = false;
    }
  }
  if (start.sec() > end.sec())
    throw SearchParsingException("empty search: start=%d > end=%d", static_cast<int>(start.sec()),
                                 static_cast<int>(end.sec()));
  bool orCarried = false;
  for (ParseNode* c : _children) {
    if (c->isCMP() && static_cast<ParseNodeCMP*>(c)->getKey() == "_time") continue;
    if (!c->isGROUP()) {
      if (!c->getConjuncts(andTerms, notTerms)) exact = false;
      continue;
    }
    auto* g = static_cast<ParseNodeGROUP*>(c);
    g->getConjuncts(andTerms, notTerms);
    if (orCarried) {
      exact = false;
      break;
    }
    orCarried = true;
    std::vector<Branch> branches(g->_children.size());
    for (size_t i = 0; i < g->_children.size(); ++i)
      branches[i].exact = g->_children[i]->getConjuncts(branches[i].terms, branches[i].nots);
    if (g->_isConj || !branchesToOr(branches, orTerms, exact)) exact = false;
  }
  return exact;
}
