#include "pipeline/indexer/QueryPart.h"

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstring>
#include <iterator>

#include "pipeline/indexer/IPartitionPolicy.h"
#include "pipeline/indexer/MultiTermQueryPart.h"
#include "pipeline/indexer/QueryStateMachine.h"
#include "pipeline/indexer/SearchFilter.h"
#include "pipeline/indexer/TermQueryPart.h"
#include "util/Exceptions.h"
#include "util/Logger.h"

static Logger gLogger("QueryPart");

namespace {

int32_t clampTime(long t) {
  if (t < long(INT32_MIN)) return INT32_MIN;
  if (t > long(INT32_MAX)) return INT32_MAX;
  return int32_t(t);
}

// The part as a term leaf, or null.
TermQueryPart* asTerm(const std::shared_ptr<QueryPart>& p) { return dynamic_cast<TermQueryPart*>(p.get()); }

bool startsWith(const Str& s, const char* prefix) { return s.compare(0, std::strlen(prefix), prefix) == 0; }

}  // namespace

QueryPart::QueryPart(QueryStateMachine* sm) : _sm(sm) {}

QueryPart::~QueryPart() = default;

// --- description -----------------------------------------------------------------

Str QueryPart::toString() const {
  Str s = negationPrefix();
  auto list = [](const std::vector<std::shared_ptr<QueryPart>>& parts, Str& out) {
    for (size_t i = 0; i < parts.size(); ++i) {
      if (i) out += ", ";
      out += parts[i]->toString();
    }
  };
  if (_andParts.empty() && !_orParts.empty() && !_filter) {
    s += "OR(";
    list(_orParts, s);
    return s + ")";
  }
  s += "AND(";
  list(_andParts, s);
  if (!_orParts.empty()) {
    if (!_andParts.empty()) s += ", ";
    s += "OR(";
    list(_orParts, s);
    s += ")";
  }
  if (_filter) {
    if (hasMembers()) s += ", ";
    s += _filter->toString();
  }
  return s + ")";
}

long QueryPart::getCount() {
  long andMin = -1;
  for (auto& p : _andParts) {
    if (p->isNegated()) continue;
    long c = p->getCount();
    if (c >= 0 && (andMin < 0 || c < andMin)) andMin = c;
  }
  long orSum = _orParts.empty() ? -1 : 0;
  for (auto& p : _orParts) {
    long c = p->getCount();
    if (c < 0) {
      orSum = -1;
      break;
    }
    orSum += c;
  }
  if (andMin >= 0 && orSum >= 0) return std::min(andMin, orSum);
  return andMin >= 0 ? andMin : orSum;
}

Str QueryPart::getFilterKey() const { return Str(); }

size_t QueryPart::sizeInBytes() const {
  size_t n = sizeof(*this) + (_results.capacity() + _unchecked.capacity()) * sizeof(ValueWrapper);
  for (auto& st : _andState) n += st.list.capacity() * sizeof(ValueWrapper);
  for (auto& st : _orState) n += st.list.capacity() * sizeof(ValueWrapper);
  for (auto& p : _andParts) n += p->sizeInBytes();
  for (auto& p : _orParts) n += p->sizeInBytes();
  return n;
}

void QueryPart::populateKeySet(std::set<Str>& keys) const {
  for (auto& p : _andParts) p->populateKeySet(keys);
  for (auto& p : _orParts) p->populateKeySet(keys);
}

// --- rewriting ----------------------------------------------------------------------

unsigned long QueryPart::getSuggestedBlockSize() {
  const unsigned long minBlock = _sm->getMinBlock();
  if (_andParts.size() + _orParts.size() <= 1) return minBlock;
  unsigned long largest = 0;
  auto consider = [&](const std::shared_ptr<QueryPart>& p) {
    if (p->isNegated()) return;  // counted as a member, never asked
    unsigned long c;
    if (p->isLeaf()) {
      long n = p->getCount();
      if (n < 0) return;
      c = (unsigned long)n;
    } else {
      c = p->getSuggestedBlockSize();
    }
    largest = std::max(largest, c);
  };
  for (auto& p : _andParts) consider(p);
  for (auto& p : _orParts) consider(p);
  return largest > minBlock ? largest : minBlock;
}

void QueryPart::dedupeQuery() {
  auto dedupe = [](std::vector<std::shared_ptr<QueryPart>>& parts) {
    std::set<Str> seen;
    std::vector<std::shared_ptr<QueryPart>> kept;
    for (auto& p : parts) {
      if (!p->isLeaf()) p->dedupeQuery();
      if (seen.insert(p->toString()).second) kept.push_back(p);
    }
    parts.swap(kept);
  };
  dedupe(_andParts);
  dedupe(_orParts);
}

bool QueryPartCompare::operator()(const std::shared_ptr<QueryPart>& a, const std::shared_ptr<QueryPart>& b) const {
  long x = a->getCount(), y = b->getCount();
  if (x < 0 || y < 0) return x >= 0 && y < 0;
  return x < y;
}

void QueryPart::sortAndParts() {
  for (auto& p : _andParts)
    if (!p->isLeaf()) p->sortAndParts();
  for (auto& p : _orParts)
    if (!p->isLeaf()) p->sortAndParts();
  std::stable_sort(_andParts.begin(), _andParts.end(), QueryPartCompare());
}

void QueryPart::optimizeSubQueries() {
  gLogger.debug("%%%%%%%%%%%%%%%% %lu", (unsigned long)(_andParts.size() + _orParts.size()));
  for (auto& p : _andParts)
    if (!p->isLeaf()) p->optimizeSubQueries();
  for (auto& p : _orParts)
    if (!p->isLeaf()) p->optimizeSubQueries();

  // The only member of a group without a filter, or null.
  auto single = [](const std::shared_ptr<QueryPart>& g) -> std::shared_ptr<QueryPart> {
    if (g->isLeaf() || g->_filter || g->_andParts.size() + g->_orParts.size() != 1) return nullptr;
    return g->_andParts.empty() ? g->_orParts[0] : g->_andParts[0];
  };
  auto plainGroup = [](const std::shared_ptr<QueryPart>& g) { return !g->isLeaf() && !g->isNegated() && !g->_filter; };
  for (bool changed = true; changed;) {
    changed = false;
    std::vector<std::shared_ptr<QueryPart>> ands, ors;
    for (auto& p : _andParts) {
      if (auto m = single(p)) {
        gLogger.debug("################ %s", p->toString().c_str());
        m->setNegated(m->isNegated() != p->isNegated());
        ands.push_back(m);
        changed = true;
      } else if (plainGroup(p) && p->_orParts.empty()) {
        gLogger.debug("++++++++++++++++ %s", p->toString().c_str());
        ands.insert(ands.end(), p->_andParts.begin(), p->_andParts.end());
        changed = true;
      } else {
        ands.push_back(p);
      }
    }
    for (auto& p : _orParts) {
      std::shared_ptr<QueryPart> m = p->isNegated() ? nullptr : single(p);
      if (m && !m->isNegated()) {
        gLogger.debug("################ %s", p->toString().c_str());
        ors.push_back(m);
        changed = true;
      } else if (plainGroup(p) && p->_andParts.empty()) {
        gLogger.debug("---------------- %s", p->toString().c_str());
        ors.insert(ors.end(), p->_orParts.begin(), p->_orParts.end());
        changed = true;
      } else {
        ors.push_back(p);
      }
    }
    // A group with no OR of its own takes the members of a plain OR group
    // among its and parts: AND(a, OR(b, c)) is one group.
    if (ors.empty())
      for (auto it = ands.begin(); it != ands.end(); ++it)
        if (plainGroup(*it) && (*it)->_andParts.empty() && (*it)->_orParts.size() >= 2) {
          gLogger.debug("---------------- %s", (*it)->toString().c_str());
          ors = (*it)->_orParts;
          ands.erase(it);
          changed = true;
          break;
        }
    // An OR of one member is an AND of it.
    if (ors.size() == 1) {
      ands.push_back(ors[0]);
      ors.clear();
      changed = true;
    }
    // A group whose only member is a plain group takes that group's members.
    if (ands.size() == 1 && ors.empty() && plainGroup(ands[0])) {
      std::shared_ptr<QueryPart> g = ands[0];
      ands = g->_andParts;
      ors = g->_orParts;
      changed = true;
    }
    _andParts.swap(ands);
    _orParts.swap(ors);
  }

  if (!_filter) {
    auto f = std::make_unique<SearchFilter>();
    if (optimizeToFilter(*f, false)) _filter = std::move(f);
  }
}

bool QueryPart::optimizeToFilter(SearchFilter& filter, bool recurse) {
  if (recurse) {
    auto down = [](const std::shared_ptr<QueryPart>& p) {
      if (p->isLeaf() || p->_filter) return;
      auto f = std::make_unique<SearchFilter>();
      if (p->optimizeToFilter(*f, true)) p->_filter = std::move(f);
    };
    for (auto& p : _andParts) down(p);
    for (auto& p : _orParts) down(p);
  }
  auto candidate = [](const std::shared_ptr<QueryPart>& p) {
    TermQueryPart* t = asTerm(p);
    return t && t->isExact() && (startsWith(t->getKey(), "host::") || startsWith(t->getKey(), "source::"));
  };
  // Something else must produce the ids the filter thins out.
  size_t producers = _orParts.empty() ? 0 : 1;
  for (auto& p : _andParts)
    if (!p->isNegated() && !candidate(p)) ++producers;
  if (producers == 0) {
    gLogger.debug("We are unable to use filters to optimize this search msg3");
    return false;
  }
  IPartitionPolicy* policy = _sm->getPolicy();
  bool moved = false;
  std::set<Str> requiredKinds;
  std::vector<std::shared_ptr<QueryPart>> kept;
  for (auto& p : _andParts) {
    if (!candidate(p)) {
      kept.push_back(p);
      continue;
    }
    const Str& key = asTerm(p)->getKey();
    Str kind = key.substr(0, key.find("::"));
    bool used;
    if (p->isNegated())
      used = filter.addToNotFilters(key, policy);
    else
      used = !requiredKinds.count(kind) && filter.addToAndFilters(key, policy);
    if (used) {
      if (!p->isNegated()) requiredKinds.insert(kind);
      moved = true;
    } else {
      kept.push_back(p);
    }
  }
  _andParts.swap(kept);
  return moved;
}

std::shared_ptr<QueryPart> QueryPart::optimizeToMultiTermQueryPart() {
  auto descend = [](std::vector<std::shared_ptr<QueryPart>>& parts, bool orList) {
    for (auto& p : parts) {
      if (p->isLeaf()) continue;
      std::shared_ptr<QueryPart> r = p->optimizeToMultiTermQueryPart();
      if (r && !(orList && r->isNegated())) p = r;
    }
  };
  descend(_orParts, true);
  descend(_andParts, false);

  std::vector<Str> orTerms, andTerms, notTerms;
  bool allOrTerms = !_orParts.empty();
  for (auto& p : _orParts)
    if (!asTerm(p)) allOrTerms = false;
  if (allOrTerms)
    for (auto& p : _orParts) orTerms.push_back(asTerm(p)->getKey());
  std::vector<std::shared_ptr<QueryPart>> stayAnd;
  for (auto& p : _andParts) {
    TermQueryPart* t = asTerm(p);
    if (!t)
      stayAnd.push_back(p);
    else
      (p->isNegated() ? notTerms : andTerms).push_back(t->getKey());
  }
  if (andTerms.empty() && orTerms.empty()) {
    // Negated terms cannot stand alone; a mixed OR list keeps its members,
    // but its terms can still go down together.
    std::vector<Str> loneOr;
    std::vector<std::shared_ptr<QueryPart>> stayOr;
    for (auto& p : _orParts) {
      if (TermQueryPart* t = asTerm(p))
        loneOr.push_back(t->getKey());
      else
        stayOr.push_back(p);
    }
    if (loneOr.size() >= 2) {
      stayOr.insert(stayOr.begin(), std::make_shared<MultiTermQueryPart>(std::vector<Str>(), loneOr,
                                                                         std::vector<Str>(), _sm));
      _orParts.swap(stayOr);
    }
  } else if (andTerms.size() + orTerms.size() + notTerms.size() >= 2) {
    gLogger.debug("Going to push %lu terms down", (unsigned long)(andTerms.size() + orTerms.size() + notTerms.size()));
    auto multi = std::make_shared<MultiTermQueryPart>(andTerms, orTerms, notTerms, _sm);
    stayAnd.insert(stayAnd.begin(), multi);
    _andParts.swap(stayAnd);
    if (allOrTerms) _orParts.clear();
  }
  if (!_filter && _andParts.size() + _orParts.size() == 1) {
    std::shared_ptr<QueryPart> m = _andParts.empty() ? _orParts[0] : _andParts[0];
    m->setNegated(m->isNegated() != isNegated());
    return m;
  }
  return nullptr;
}

// --- evaluation -------------------------------------------------------------------------

IPartitionPolicy* QueryPart::policyOrThrow() const {
  IPartitionPolicy* p = _sm->getPolicy();
  if (!p) throw QueryException("\"%s\" does not appear to be a valid index", _sm->getDomain().c_str());
  return p;
}

void QueryPart::fetchFromIndex(QueryHint& hint, const std::vector<Str>& andTerms, const std::vector<Str>& orTerms,
                               const std::vector<Str>& notTerms, std::vector<ValueWrapper>& out,
                               unsigned long startPosition, unsigned long count, long minTime, long maxTime) {
  _sm->canGetMoreIds();
  gLogger.debug("Total id count in memory %ld", (long)_sm->getIdsInMemory());
  gLogger.debug("Asked for count = %ld startPosition = %ld", (long)count, (long)startPosition);
  IPartitionPolicy* policy = policyOrThrow();
  const int32_t lo = clampTime(minTime), hi = clampTime(maxTime);
  std::vector<ValueWrapper>& got = _scratchA;  // leaves have no other use for it
  auto run = [&](unsigned long n) {
    bool ok;
    try {
      ok = policy->query(hint, andTerms, orTerms, notTerms, lo, hi, n, got);
    } catch (const DatabasePartitionPolicyException& e) {
      throw QueryException(e.what());
    }
    if (!ok) throw QueryException("the index \"%s\" could not be queried.", _sm->getDomain().c_str());
  };
  if (startPosition != _count) {
    // Another position than where the stream stands: start again from the
    // newest id if need be, and pass over what lies before it.
    if (startPosition < _count) {
      hint = QueryHint();
      _count = 0;
      _exhausted = false;
    }
    while (_count < startPosition && !_exhausted) {
      run(std::min<unsigned long>(startPosition - _count, _sm->getMaxBlock()));
      _count += got.size();
      if (got.empty() || hint.exhausted) _exhausted = true;
    }
  }
  if (_exhausted || count == 0) {
    gLogger.debug("We have all the ids");
    return;
  }
  run(count);
  out.insert(out.end(), got.begin(), got.end());
  _count += got.size();
  _sm->addIdsInMemory(long(got.size()));
  const Str what = getFilterKey().empty() ? toString() : getFilterKey();
  if (got.empty()) {
    gLogger.debug("Unable to find any results for key : %s", what.c_str());
    _exhausted = true;
  } else if (got.size() < count) {
    gLogger.debug("All results returned for %s total count = %u this call = %ld", what.c_str(), unsigned(_count),
                  (long)got.size());
    _exhausted = true;
  } else {
    gLogger.debug("Successfully found %ld more results for %s", (long)got.size(), what.c_str());
  }
  // A block that does not fit the budget fails now rather than at the next.
  _sm->canGetMoreIds();
}

void QueryPart::deliverFrom(const std::vector<ValueWrapper>& all, std::vector<ValueWrapper>& out,
                            unsigned long startPosition, unsigned long count) {
  if (startPosition >= all.size()) return;
  size_t n = std::min<size_t>(count, all.size() - startPosition);
  out.insert(out.end(), all.begin() + long(startPosition), all.begin() + long(startPosition + n));
  _sm->addIdsInMemory(long(n));
}

bool QueryPart::isRoot() const { return _sm->getRoot().get() == this; }

unsigned long QueryPart::blockSize(unsigned long count) {
  const unsigned long maxBlock = _sm->getMaxBlock();
  unsigned long block = _sm->getMinBlock();
  unsigned long suggested = getSuggestedBlockSize();
  if (suggested > block) block = suggested;
  if (_andParts.size() == 1 && _orParts.empty() && block > count)
    block = count;
  else
    block = std::max(count / 2, block);
  return std::max(1ul, std::min(block, maxBlock));
}

void QueryPart::fetchMember(QueryPart& p, MemberState& st, unsigned long count, long minTime, long maxTime) {
  _sm->hasQueryTimedOut();
  _sm->testQueryCancelled();
  size_t before = st.list.size();
  p.getIds(st.list, st.fetched, count, minTime, maxTime);
  size_t got = st.list.size() - before;
  st.fetched += got;
  if (got < count) st.exhausted = true;
}

void QueryPart::releaseAll() {
  long n = 0;
  for (auto& st : _andState) {
    n += long(st.list.size());
    std::vector<ValueWrapper>().swap(st.list);
  }
  for (auto& st : _orState) {
    n += long(st.list.size());
    std::vector<ValueWrapper>().swap(st.list);
  }
  _sm->addIdsInMemory(-n);
}

void QueryPart::runPass(unsigned long block, long minTime, long maxTime, std::vector<ValueWrapper>& settled) {
  const unsigned long low = (block + 1) / 2;
  bool anyPositive = false;

  // Positive and parts: one exhausted with nothing left ends the group.
  for (size_t i = 0; i < _andParts.size(); ++i) {
    if (_andParts[i]->isNegated()) continue;
    anyPositive = true;
    if (_andState[i].exhausted && _andState[i].list.empty()) {
      _done = true;
      return;
    }
  }
  for (size_t i = 0; i < _andParts.size(); ++i) {
    QueryPart& p = *_andParts[i];
    MemberState& st = _andState[i];
    if (p.isNegated()) {
      gLogger.debug("%s is a NOT search so we will deal with it later", p.toString().c_str());
      continue;
    }
    if (!st.exhausted && st.list.size() < low) fetchMember(p, st, block - st.list.size(), minTime, maxTime);
    if (st.exhausted && st.list.empty()) {
      _done = true;
      return;
    }
  }
  bool orLive = false;
  for (size_t j = 0; j < _orParts.size(); ++j) {
    MemberState& st = _orState[j];
    if (!st.exhausted && st.list.size() < low) {
      gLogger.debug("Running or getIds for %s", _orParts[j]->toString().c_str());
      fetchMember(*_orParts[j], st, block - st.list.size(), minTime, maxTime);
    }
    bool left = !st.exhausted || !st.list.empty();
    gLogger.debug("%s results left in OR for %s", left ? "There are" : "There are no",
                  _orParts[j]->toString().c_str());
    orLive = orLive || left;
  }
  if ((!_orParts.empty() && !orLive) || (!anyPositive && _orParts.empty())) {
    _done = true;
    return;
  }

  // The cut: the newest last id among the lists that go on.
  bool bounded = false;
  ValueWrapper cut;
  auto lower = [&](const MemberState& st) {
    if (st.exhausted || st.list.empty()) return;
    if (!bounded || st.list.back() < cut) cut = st.list.back();
    bounded = true;
  };
  for (size_t i = 0; i < _andParts.size(); ++i)
    if (!_andParts[i]->isNegated()) lower(_andState[i]);
  for (auto& st : _orState) lower(st);
  // Negated parts reach as far as the cut, a block at most per pass.
  for (size_t i = 0; i < _andParts.size(); ++i) {
    if (!_andParts[i]->isNegated()) continue;
    MemberState& st = _andState[i];
    bool reaches = bounded && !st.list.empty() && !(st.list.back() < cut);
    if (!st.exhausted && !reaches && st.list.size() < low) {
      gLogger.debug("Running NOT getIds for %s", _andParts[i]->toString().c_str());
      gLogger.debug(" %u < %ld + %ld == %s (k=%d)", unsigned(st.list.size()), (long)st.fetched, (long)block,
                    _andParts[i]->toString().c_str(), int(i));
      fetchMember(*_andParts[i], st, block - st.list.size(), minTime, maxTime);
    }
    lower(st);
  }
  auto settledEnd = [&](std::vector<ValueWrapper>& l) {
    return bounded ? std::upper_bound(l.begin(), l.end(), cut) : l.end();
  };

  // Intersect the positive lists up to the cut.
  std::vector<ValueWrapper>& cur = _scratchA;
  cur.clear();
  bool first = true;
  for (size_t i = 0; i < _andParts.size(); ++i) {
    if (_andParts[i]->isNegated()) continue;
    std::vector<ValueWrapper>& l = _andState[i].list;
    auto end = settledEnd(l);
    if (first) {
      gLogger.debug("FIRST !");
      cur.assign(l.begin(), end);
      gLogger.debug("COPY DONE");
      first = false;
    } else {
      gLogger.debug("Doing intersection with key %s which has %u results", _andParts[i]->toString().c_str(),
                    unsigned(end - l.begin()));
      _scratchB.clear();
      std::set_intersection(cur.begin(), cur.end(), l.begin(), end, std::back_inserter(_scratchB));
      cur.swap(_scratchB);
      gLogger.debug("Found %u results after intersection ... ", unsigned(cur.size()));
    }
    if (cur.empty()) break;
  }
  gLogger.debug("After all merges we have %ld results", (long)cur.size());
  if (!_orParts.empty() && (first || !cur.empty())) {
    std::vector<ValueWrapper>& all = _scratchC;
    all.clear();
    for (auto& st : _orState) all.insert(all.end(), st.list.begin(), settledEnd(st.list));
    std::sort(all.begin(), all.end());
    all.erase(std::unique(all.begin(), all.end()), all.end());
    if (first) {
      cur.swap(all);
    } else {
      _scratchB.clear();
      std::set_intersection(cur.begin(), cur.end(), all.begin(), all.end(), std::back_inserter(_scratchB));
      cur.swap(_scratchB);
    }
  }
  gLogger.debug("%u interim results", unsigned(cur.size()));

  // Subtract the negated lists.
  for (size_t i = 0; i < _andParts.size() && !cur.empty(); ++i) {
    if (!_andParts[i]->isNegated()) continue;
    std::vector<ValueWrapper>& l = _andState[i].list;
    auto end = settledEnd(l);
    _scratchB.clear();
    std::set_difference(cur.begin(), cur.end(), l.begin(), end, std::back_inserter(_scratchB));
    gLogger.debug("Doing not of %u size against %u size resulted in %u results", unsigned(cur.size()),
                  unsigned(end - l.begin()), unsigned(_scratchB.size()));
    cur.swap(_scratchB);
  }

  size_t before = settled.size();
  if (_filter) {
    gLogger.debug("Before filtering we have %u results msg5", unsigned(cur.size()));
    _filter->applyFilter(cur.data(), cur.data() + cur.size(), settled);
    gLogger.debug("After filltering we have %u results msg6", unsigned(settled.size() - before));
  } else {
    gLogger.debug("Not running any filters on this search.");
    settled.insert(settled.end(), cur.begin(), cur.end());
  }
  _sm->addIdsInMemory(long(settled.size() - before));

  // What lies at or before the cut has been used: let it go.
  long released = 0;
  auto release = [&](MemberState& st) {
    auto end = settledEnd(st.list);
    released += long(end - st.list.begin());
    st.list.erase(st.list.begin(), end);
  };
  for (auto& st : _andState) release(st);
  for (auto& st : _orState) release(st);
  _sm->addIdsInMemory(-released);
  if (!bounded) _done = true;
}

void QueryPart::checkUnchecked(size_t needed) {
  IPartitionPolicy* policy = policyOrThrow();
  const auto& phrases = _sm->getPhraseFilters();
  const auto& regexes = _sm->getRegexFilters();
  while (_uncheckedPos < _unchecked.size() && _results.size() < needed) {
    // Read a little more than the result still needs, in chunks.
    size_t want = needed - _results.size();
    size_t chunk = std::min<size_t>(_unchecked.size() - _uncheckedPos, std::max<size_t>(std::min<size_t>(want, 1024), 64));
    std::vector<ValueWrapper> part(_unchecked.begin() + long(_uncheckedPos),
                                   _unchecked.begin() + long(_uncheckedPos + chunk));
    _uncheckedPos += chunk;
    size_t kept = filterByPhrasesAndRegexes(part, 0, part.size(), phrases, regexes, policy);
    _results.insert(_results.end(), part.begin(), part.begin() + long(kept));
    _sm->addIdsInMemory(-long(chunk - kept));
  }
  if (_uncheckedPos == _unchecked.size()) {
    _unchecked.clear();
    _uncheckedPos = 0;
  }
}

size_t QueryPart::filterByPhrasesAndRegexes(std::vector<ValueWrapper>& ids, size_t from, size_t limit,
                                            const std::vector<WildcardMatcher>& phrases,
                                            const std::vector<std::shared_ptr<Regex>>& regexes,
                                            IPartitionPolicy* policy) {
  size_t write = from, read = from;
  std::vector<ValueWrapper> batch;
  std::vector<DataWrapper> data;
  std::vector<bool> ok;
  Str lowered;
  while (read < ids.size() && write - from < limit) {
    size_t n = std::min<size_t>(ids.size() - read, std::max<size_t>(limit - (write - from), 64));
    batch.assign(ids.begin() + long(read), ids.begin() + long(read + n));
    read += n;
    policy->read(batch, data, ok);
    for (size_t i = 0; i < n && write - from < limit; ++i) {
      if (!ok[i]) continue;
      bool pass = true;
      if (!phrases.empty()) {
        lowered = data[i].raw;
        for (char& c : lowered)
          if (c >= 'A' && c <= 'Z') c = char(c + 32);
        for (const WildcardMatcher& m : phrases)
          if (!m.isMatch(StrSegment(lowered))) {
            pass = false;
            break;
          }
      }
      for (size_t r = 0; pass && r < regexes.size(); ++r)
        if (!regexes[r]->matches(StrSegment(data[i].raw))) pass = false;
      if (pass) ids[write++] = batch[i];
    }
  }
  ids.erase(ids.begin() + long(write), ids.end());
  return write - from;
}

void QueryPart::getIds(std::vector<ValueWrapper>& out, unsigned long startPosition, unsigned long count,
                       long minTime, long maxTime) {
  const Str desc = toString();
  gLogger.debug("Running search for %s", desc.c_str());
  auto started = std::chrono::steady_clock::now();
  try {
    if (!_evalStarted) {
      _evalStarted = true;
      _andState.assign(_andParts.size(), MemberState());
      _orState.assign(_orParts.size(), MemberState());
    }
    if (startPosition < _delivered) {
      gLogger.error("Asked for position %lu of %s after %lu were passed", startPosition, desc.c_str(), _delivered);
      throw QueryException("the search asked for results it had already passed.");
    }
    const unsigned long sp = startPosition - _delivered;
    const bool root = isRoot();
    const bool byScore = root && _sm->getUseScore();
    const bool confirm = root && (!_sm->getPhraseFilters().empty() || !_sm->getRegexFilters().empty());
    const size_t needed = byScore ? SIZE_MAX : size_t(sp + count);
    const unsigned long block = blockSize(byScore ? _sm->getMaxBlock() : count);
    gLogger.debug("Running main search loop");
    for (;;) {
      if (confirm) checkUnchecked(needed);
      if (_results.size() >= needed || _done) break;
      _sm->hasQueryTimedOut();
      _sm->testQueryCancelled();
      runPass(block, minTime, maxTime, confirm ? _unchecked : _results);
      if (_done) {
        if (confirm) checkUnchecked(needed);
        releaseAll();
        break;
      }
    }

    if (byScore) {
      gLogger.debug("About to do the compare with score");
      ValueWrapperCompareWithScore::sort(_results, _sm->scores());
    } else {
      gLogger.debug("Sort done");
    }
    gLogger.debug("About to copy ids");
    size_t n = sp < _results.size() ? std::min<size_t>(count, _results.size() - sp) : 0;
    out.insert(out.end(), _results.begin() + long(sp), _results.begin() + long(sp + n));
    _sm->addIdsInMemory(long(n));
    size_t drop = std::min<size_t>(sp + n, _results.size());
    _results.erase(_results.begin(), _results.begin() + long(drop));
    _sm->addIdsInMemory(-long(drop));
    _delivered += drop;
    _count += n;
    gLogger.debug("Results copied!");
    if (n == 0)
      gLogger.debug("Unable to find any results from %ld count %ld for key : %s", (long)startPosition, (long)count,
                    desc.c_str());
    else
      gLogger.debug("Found %u results!", unsigned(n));
  } catch (const QueryException&) {
    throw;
  } catch (const QueryParseException&) {
    throw;
  } catch (const std::exception& e) {
    gLogger.error("Unknown search exception in: %s", desc.c_str());
    throw;
  }
  gLogger.debug("Total search time for %s %.3f", desc.c_str(),
                std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count());
}

// --- score order ---------------------------------------------------------------------------

float ValueWrapperCompareWithScore::scoreOf(const ValueWrapper& v) const {
  auto it = _scores.find(v.cd());
  return it == _scores.end() ? 0.0f : it->second;
}

bool ValueWrapperCompareWithScore::operator()(const ValueWrapper& a, const ValueWrapper& b) const {
  float x = scoreOf(a), y = scoreOf(b);
  if (x != y) return x > y;
  return a < b;
}

void ValueWrapperCompareWithScore::sort(std::vector<ValueWrapper>& ids, const std::unordered_map<Str, float>& scores) {
  ValueWrapperCompareWithScore byScore(scores);
  std::vector<std::pair<float, ValueWrapper>> keyed;
  keyed.reserve(ids.size());
  for (const ValueWrapper& v : ids) keyed.emplace_back(byScore.scoreOf(v), v);
  std::sort(keyed.begin(), keyed.end(), [](const auto& a, const auto& b) {
    if (a.first != b.first) return a.first > b.first;
    return a.second < b.second;
  });
  for (size_t i = 0; i < ids.size(); ++i) ids[i] = keyed[i].second;
}
