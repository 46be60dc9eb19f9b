// QueryStateMachine: takes the "SEARCH" tokens of an inner query one by one,
// builds the tree of QueryPart nodes (AND by default, OR, NOT, parentheses
// to depth 20, phrases, exact-case "+" terms), and once finalized evaluates
// it against the query's index: ids newest first, at most the result limit
// (+1, so that the caller can tell the limit was reached).
//
// Besides the tree it holds the run settings that the query's modules set
// before the run: the index (domain), the time range, the result limit, the
// read limits, the time limit, phrase and regular-expression filters, the
// related-search settings, and the budget of ids the parts may hold. The
// checks hasQueryTimedOut, testQueryCancelled and canGetMoreIds throw
// QueryException with texts that read as the tail of "Search Execute failed
// because ".
//
// Token rules beyond the plain ones. OR binds the member before it and the
// one after: "a b OR c" is a AND (b OR c); a second OR chain in the same
// group gets a group of its own ("a OR b c OR d" is (a OR b) AND (c OR d)).
// A search word is cut by the index's "search" segmenter as events are: a
// token of one whole word is that word ("[Error]" searches "error",
// "10.1.2.3" stays one term), a token of several is a phrase, whose words
// (a star joins the word it touches: "foo ba*r" has the words "foo" and
// "ba*r") find candidates and whose text, case-blind, confirms them. "( )"
// stands for nothing and is dropped; a group of negated members only is
// subtracted from "meta::all", as the root is. "ACCESS_CONTROL_NEXT" is
// taken with or without its blanks. "idlist::", "related::" and
// "eventtypeconnected::" make their own parts.
//
// The id budget. The maxQueryIds setting of indexes.conf (shipped as 1000)
// is read two ways: by the index processor as the number of queries that may
// run at once, and here as the size of the per-query budget of ids held in
// memory at once: maxQueryIds * kIdsPerQueryIdUnit ids (1000 -> 4,096,000);
// 0 turns the budget off. Parts count what they fetch and what they let go
// (addIdsInMemory), and a group lets go of every id a pass has settled, so a
// query over millions of matching events stays within the budget; only a
// single block of ids that does not fit fails, with canGetMoreIds's text.
//
// Description (toString): the root's form (QueryPart.h: "AND(a, NOT b,
// OR(c, d))"), then " PHRASE(<pattern>)" for each phrase filter and
// " REGEX(<pattern>)" for each regular-expression filter.
//
// Ownership: built and owned by one Query; the parts point back to it. The
// container and the cancel checker are not owned and must outlive it.
// Threads: one thread at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <unordered_map>
#include <vector>

#include "pipeline/indexer/TimeParser.h"
#include "pipeline/indexer/ValueWrapper.h"
#include "util/Regex.h"
#include "util/Str.h"
#include "util/WildcardMatcher.h"

class DatabaseContainer;
class GenericCleaner;
class IPartitionPolicy;
class QueryCancelChecker;
class QueryPart;

class QueryStateMachine {
 public:
  static const long kMaxParenDepth = 20;
  // Ids one query may hold in memory per unit of the maxQueryIds setting
  // (see canGetMoreIds).
  static const unsigned long kIdsPerQueryIdUnit = 4096;

  QueryStateMachine(const Str& queryId, const Str& cancelId);
  ~QueryStateMachine();
  QueryStateMachine(const QueryStateMachine&) = delete;
  QueryStateMachine& operator=(const QueryStateMachine&) = delete;

  // REQUIRES: set before the first accept (the segmenter of a phrase comes
  // from the index) and before execute.
  void setContainer(DatabaseContainer* c) { _container = c; }
  void setCancelChecker(QueryCancelChecker* c) { _cancelChecker = c; }
  DatabaseContainer* getContainer() const { return _container; }

  // One token of the "SEARCH" section. Throws QueryParseException with the
  // parse error texts ("Query parse failure : NOT NOT", "Maximum paren depth
  // exceeded", "Mismatched parens", ...).
  void accept(const Str& token);
  // Closes the root group; adds "meta::all" when the root has no positive
  // member. Throws QueryParseException on unclosed parentheses.
  void finalize();
  // Evaluates the finalized tree into out (newest first, at most limit + 1).
  // Finalizes first if that was not done. Throws QueryException (unknown
  // index, access rule, budget, time, cancel, index failures), and
  // QueryParseException when finalizing fails.
  void execute(std::vector<ValueWrapper>& out);

  // Budget, time and cancel checks; each throws QueryException.
  void canGetMoreIds();
  void hasQueryTimedOut();
  void testQueryCancelled();
  // Parts report the ids they fetched (and released) here.
  void addIdsInMemory(long delta) {
    _totalIds = delta < 0 && (unsigned long)(-delta) > _totalIds ? 0 : _totalIds + (unsigned long)delta;
  }
  unsigned long getIdsInMemory() const { return _totalIds; }

  // The tree, for descriptions in tests and the debug log.
  Str toString() const;
  std::shared_ptr<QueryPart> getRoot() const { return _root; }
  const std::set<Str>& getKeySet() const { return _keySet; }
  bool isFinished() const { return _finished; }

  // --- settings made by the query's modules ---------------------------------------
  const Str& getDomain() const { return _domain; }
  void setDomain(const Str& d) { _domain = d; }
  // The policy of the domain (null when there is none).
  IPartitionPolicy* getPolicy() const;
  TimeParser& getTimeParser() { return _timeParser; }
  unsigned long getResultLimit() const { return _resultLimit; }
  void setResultLimit(unsigned long n) { _resultLimit = n; }
  void setReadLimit(unsigned long start, unsigned long end) {
    _readLimitStart = start;
    _readLimitEnd = end;
    _readLimitSet = true;
  }
  bool getReadLimit(unsigned long& start, unsigned long& end) const {
    start = _readLimitStart;
    end = _readLimitEnd;
    return _readLimitSet;
  }
  void setReadLevel(unsigned int l) { _readLevel = l; }
  unsigned int getReadLevel() const { return _readLevel; }
  void setReadTimeout(long t) { _readTimeout = t; }
  long getReadTimeout() const { return _readTimeout; }
  // Seconds, 60 unless "maxtime::" says otherwise; 0 or less: no limit.
  // The clock starts at construction and again at execute.
  void setTimeLimit(long seconds) { _timeLimit = seconds; }
  long getTimeLimit() const { return _timeLimit; }
  // The maxQueryIds setting; 0 turns the id budget off.
  void setMaxQueryIds(unsigned long n) { _maxQueryIds = n; }
  void setOptimize(bool on) { _optimize = on; }
  bool getOptimize() const { return _optimize; }
  // Smallest and largest block of ids a group reads per member and pass
  // (QueryPart.h; 100000 and 1000000). Tests shrink them to run many passes
  // over a small index. REQUIRES: 1 <= min <= max.
  void setBlockSizes(unsigned long min, unsigned long max) {
    _minBlock = min;
    _maxBlock = max;
  }
  unsigned long getMinBlock() const { return _minBlock; }
  unsigned long getMaxBlock() const { return _maxBlock; }
  // The user the access rule applies to (empty: no rule).
  void setUser(const Str& user) { _user = user; }
  const Str& getUser() const { return _user; }

  // Relevance scores of a scored (related) search, by ValueWrapper::cd().
  // The machine holds its own map unless the caller gives one (the Query's).
  // REQUIRES: the given map outlives the machine's execute.
  void setScoreMap(std::unordered_map<Str, float>* scores) { _scores = scores ? scores : &_ownScores; }
  std::unordered_map<Str, float>& scores() { return *_scores; }
  // Whether results are ordered by score; set when a "related::" term is
  // accepted (the Query reads it back for its own sort).
  void setUseScore(bool b) { _useScore = b; }
  bool getUseScore() const { return _useScore; }

  void addPhraseFilter(const WildcardMatcher& m) { _phraseFilters.push_back(m); }
  const std::vector<WildcardMatcher>& getPhraseFilters() const { return _phraseFilters; }
  void addRegexFilter(std::shared_ptr<Regex> r) { _regexFilters.push_back(std::move(r)); }
  const std::vector<std::shared_ptr<Regex>>& getRegexFilters() const { return _regexFilters; }

  void setRelatedWeight(float w) { _relatedWeight = w; }
  float getRelatedWeight() const { return _relatedWeight; }
  void setRelatedMaxWords(long n) { _relatedMaxWords = n; }
  long getRelatedMaxWords() const { return _relatedMaxWords; }
  void setMinRelationByType(long n) { _minRelationByType = n; }
  long getMinRelationByType() const { return _minRelationByType; }

  const Str& getQueryId() const { return _queryId; }
  const Str& getCancelId() const { return _cancelId; }

 private:
  // see the .cc file
  void attach(const std::shared_ptr<QueryPart>& part);
  void applyAccessRule(IPartitionPolicy* policy);
  void acceptTerm(const Str& token);
  void endGroup(bool finalizing);
  const GenericCleaner* searchCleaner();
  int64_t nowMs() const;

  Str _queryId;
  Str _cancelId;
  DatabaseContainer* _container = nullptr;
  QueryCancelChecker* _cancelChecker = nullptr;

  Str _domain;
  TimeParser _timeParser;
  unsigned long _resultLimit = 10000;
  unsigned long _readLimitStart = 0;
  unsigned long _readLimitEnd = 0;
  bool _readLimitSet = false;
  unsigned int _readLevel = 0;
  long _readTimeout = 0;

  std::shared_ptr<QueryPart> _root;
  std::shared_ptr<QueryPart> _current;
  long _depth = 0;
  std::set<Str> _keySet;
  bool _finished = false;

  long _timeLimit = 60;  // "maxtime::" changes it; the error text names this default
  int64_t _startTime = 0;
  unsigned long _totalIds = 0;
  unsigned long _maxQueryIds = 0;
  bool _optimize = true;
  Str _user;

  std::vector<WildcardMatcher> _phraseFilters;
  std::vector<std::shared_ptr<Regex>> _regexFilters;

  bool _finalized = false;
  unsigned long _minBlock = 100000;
  unsigned long _maxBlock = 1000000;
  std::unordered_map<Str, float> _ownScores;
  std::unordered_map<Str, float>* _scores = &_ownScores;
  bool _useScore = false;

  float _relatedWeight = 1.0f;
  long _relatedMaxWords = 20;
  long _minRelationByType = 1;
};
