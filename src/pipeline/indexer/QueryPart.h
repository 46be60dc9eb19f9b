// QueryPart: one node of the tree a QueryStateMachine builds from the
// "SEARCH" tokens of an inner query. The base class is the group: members
// joined by AND (the and parts, some of them negated) and members joined by
// OR (the or parts, never negated); a group means
//     AND(positive and parts) AND OR(or parts) AND NOT(each negated and part)
// restricted by its SearchFilter, if it has one. Leaves (TermQueryPart,
// MultiTermQueryPart, IdListQueryPart, NewRelatedQueryPart,
// ConnectedByTypeQueryPart) override getIds.
//
// Every part is a stream of ids in ValueWrapper order (newest first, no
// repeats): getIds(out, startPosition, count, ...) appends the ids at
// positions [startPosition, startPosition + count) of that stream, fewer
// only when the stream ends. A caller reads a part front to back.
//
// DESIGN. A group evaluates in passes (getIds). Each pass tops up the list of
// every positive member to one block (a member holding less than half a
// block fetches up to a block), finds the cut: the newest of the last ids of
// the members that are not exhausted (everything at or before the cut is
// known for every member), fetches each negated member as far as the cut
// (at most a block per pass; a negated member that cannot reach it lowers
// the cut), then settles the ids at or before the cut: the intersection of
// the positive lists, intersected with the union of the or lists, minus the
// negated lists, through the SearchFilter. The settled part of every list is
// dropped (and reported to the state machine as released), so a member holds
// at most one block, and an id a negated member excludes can never come back:
// later passes only see ids older than the cut. Settled ids are final and
// come in order, so the group's own stream grows at its end. On the root,
// phrase and regular-expression filters then confirm settled ids against
// the raw text, only as far as the result needs.
//
// Block size: at least 100000 ids, the largest member count when above that
// (getSuggestedBlockSize), the larger of count / 2 and that, at most
// 1000000; a group with exactly one and part asks for no more than count.
//
// toString forms (stable, used by tests): a term is its key; a negated part
// is "NOT " + its form; a group is "AND(m, ...)" over its and parts with
// "OR(m, ...)" as the last member when it has or parts, or just "OR(m, ...)"
// when it has only or parts; its filter shows as a last member
// "FILTER(host::a, NOT source::b)".
//
// Ownership: parts are held by shared pointer by their group; a part points
// to its group (weak) and to the state machine (plain; it owns the tree).
// Threads: the thread running the query.
#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <unordered_map>
#include <vector>

#include "pipeline/indexer/QueryHint.h"
#include "pipeline/indexer/ValueWrapper.h"
#include "util/Regex.h"
#include "util/Str.h"
#include "util/WildcardMatcher.h"

class IPartitionPolicy;
class QueryStateMachine;
class SearchFilter;

class QueryPart {
 public:
  // Pending operator of a group for its next member.
  enum Join { kJoinAnd = 0, kJoinOr = 1, kJoinNone = 3 };
  enum Negation { kNormal = 0, kNot = 1, kNegationNone = 3 };

  explicit QueryPart(QueryStateMachine* sm);
  virtual ~QueryPart();
  QueryPart(const QueryPart&) = delete;
  QueryPart& operator=(const QueryPart&) = delete;

  // Appends the ids at [startPosition, startPosition + count) of this part's
  // stream within [minTime, maxTime]. Throws QueryException (budget, time,
  // cancel, index failures). REQUIRES: startPosition not below a position
  // already passed (groups forget what they delivered).
  virtual void getIds(std::vector<ValueWrapper>& out, unsigned long startPosition, unsigned long count, long minTime,
                      long maxTime);
  virtual Str toString() const;
  // Estimated number of ids of the stream, -1 when unknown.
  virtual long getCount();
  // The term a leaf stands for; empty for a group.
  virtual Str getFilterKey() const;
  virtual size_t sizeInBytes() const;
  // Adds the terms of this part and its members.
  virtual void populateKeySet(std::set<Str>& keys) const;
  virtual bool isNegated() const { return _negation == kNot; }

  bool isLeaf() const { return _leaf; }
  bool isExact() const { return _exact; }
  bool isPrefix() const { return _prefix; }
  void setNegated(bool n) { _negation = n ? kNot : kNormal; }
  const std::vector<std::shared_ptr<QueryPart>>& andParts() const { return _andParts; }
  const std::vector<std::shared_ptr<QueryPart>>& orParts() const { return _orParts; }
  std::shared_ptr<QueryPart> getParent() const { return _parent.lock(); }
  // Ids fetched so far.
  unsigned long fetchedCount() const { return _count; }
  const SearchFilter* getFilter() const { return _filter.get(); }

  // --- rewriting before evaluation (groups; leaves have nothing to do) ------
  // The largest member count above the smallest block when the group has
  // more than one member, else the smallest block.
  unsigned long getSuggestedBlockSize();
  // Removes repeated members (same toString, negation included), recursively.
  void dedupeQuery();
  // Orders the and parts by getCount, rarest first (unknown counts last),
  // recursively.
  void sortAndParts();
  // Flattens nested groups that add nothing (a positive AND group inside an
  // AND, a positive OR group inside an OR or inside an AND that has no OR of
  // its own, a group of one member, an OR of one member), then turns "host::" and "source::" terms into this group's
  // SearchFilter (optimizeToFilter). Recursive.
  void optimizeSubQueries();
  // Bottom-up: the plain terms of a group (AND, NOT, and OR when every or
  // member is a term) go into one MultiTermQueryPart, evaluated by one index
  // call per block. Returns the part that should replace this group in its
  // parent (its only member left, negation folded in), or null when the
  // group stays.
  std::shared_ptr<QueryPart> optimizeToMultiTermQueryPart();
  // Moves this group's exact "host::" / "source::" and terms into filter
  // (at most one positive term per kind: an event has one host; any number
  // of negated ones), when at least one other positive and member remains to
  // produce ids; with recurse, each member group builds its own filter.
  // True when a term moved.
  bool optimizeToFilter(SearchFilter& filter, bool recurse);

  // Keeps the ids of [ids.begin() + from, ids.end()) whose raw text matches
  // every phrase (on the lowercased text) and every regular expression (on
  // the text as it is), compacting in place, reading at most until `limit`
  // ids are kept; ids left unread are dropped. Events that cannot be read
  // are dropped. Returns the number kept.
  static size_t filterByPhrasesAndRegexes(std::vector<ValueWrapper>& ids, size_t from, size_t limit,
                                          const std::vector<WildcardMatcher>& phrases,
                                          const std::vector<std::shared_ptr<Regex>>& regexes,
                                          IPartitionPolicy* policy);

 protected:
  friend class QueryStateMachine;

  // Runs one index query for the next `count` ids of a term list, going on
  // from hint, and appends them to out; keeps fetched and exhausted. A
  // startPosition other than fetched re-positions the stream first. Throws
  // QueryException when the index cannot be queried.
  void fetchFromIndex(QueryHint& hint, const std::vector<Str>& andTerms, const std::vector<Str>& orTerms,
                      const std::vector<Str>& notTerms, std::vector<ValueWrapper>& out, unsigned long startPosition,
                      unsigned long count, long minTime, long maxTime);
  // Appends ids [startPosition, startPosition + count) of a stream held
  // whole in `all` (leaves that compute their ids at once).
  void deliverFrom(const std::vector<ValueWrapper>& all, std::vector<ValueWrapper>& out,
                   unsigned long startPosition, unsigned long count);
  IPartitionPolicy* policyOrThrow() const;
  Str negationPrefix() const { return isNegated() ? Str("NOT ") : Str(); }

  // --- tree --------------------------------------------------------------------
  std::vector<std::shared_ptr<QueryPart>> _andParts;
  std::vector<std::shared_ptr<QueryPart>> _orParts;
  bool _leaf = false;
  bool _exact = false;
  bool _prefix = false;
  int _negation = kNormal;
  QueryStateMachine* _sm;
  // The group that was being filled when this part was attached (where
  // ")" returns to); not kept up to date by the rewrites.
  std::weak_ptr<QueryPart> _parent;
  // Pending operator while the group is being filled, and what it replaced.
  int _joinMode = kJoinNone;
  int _negationMode = kNegationNone;
  int _previousJoin = kJoinNone;
  int _previousNegation = kNegationNone;
  // The member attached last, and the group whose or list took the last OR
  // (this group, or a group standing for a second OR chain).
  std::shared_ptr<QueryPart> _next;
  QueryPart* _orHolder = nullptr;
  bool _exhausted = false;
  unsigned long _count = 0;
  std::unique_ptr<SearchFilter> _filter;

 private:
  struct MemberState {
    std::vector<ValueWrapper> list;  // fetched, not yet settled
    unsigned long fetched = 0;       // ids ever appended
    bool exhausted = false;
  };

  unsigned long blockSize(unsigned long count);
  void fetchMember(QueryPart& p, MemberState& st, unsigned long count, long minTime, long maxTime);
  // One pass; appends the settled ids to `settled`.
  void runPass(unsigned long block, long minTime, long maxTime, std::vector<ValueWrapper>& settled);
  void releaseAll();
  // Root only: confirms unchecked ids until `needed` results are held.
  void checkUnchecked(size_t needed);
  bool isRoot() const;
  bool hasMembers() const { return !_andParts.empty() || !_orParts.empty(); }

  std::vector<MemberState> _andState;
  std::vector<MemberState> _orState;
  bool _evalStarted = false;
  bool _done = false;
  std::vector<ValueWrapper> _results;    // settled (and confirmed), not delivered
  std::vector<ValueWrapper> _unchecked;  // root: settled, awaiting phrase / regex filters
  size_t _uncheckedPos = 0;
  unsigned long _delivered = 0;  // stream positions dropped from _results
  std::vector<ValueWrapper> _scratchA, _scratchB, _scratchC;
};

// Orders parts by getCount, smallest first; unknown counts (-1) last.
struct QueryPartCompare {
  bool operator()(const std::shared_ptr<QueryPart>& a, const std::shared_ptr<QueryPart>& b) const;
};

// Orders ids by their relevance score (higher first), then by time (newest
// first), then as ValueWrapper orders them. Scores are looked up by
// ValueWrapper::cd() in the map the caller gives; an id without a score
// scores 0.
class ValueWrapperCompareWithScore {
 public:
  explicit ValueWrapperCompareWithScore(const std::unordered_map<Str, float>& scores) : _scores(scores) {}
  bool operator()(const ValueWrapper& a, const ValueWrapper& b) const;
  float scoreOf(const ValueWrapper& v) const;
  // Sorts ids by this order, looking each score up once.
  static void sort(std::vector<ValueWrapper>& ids, const std::unordered_map<Str, float>& scores);

 private:
  const std::unordered_map<Str, float>& _scores;
};
