// Query: one compiled inner query ("SEARCH ... GET ... OUTPUT ..."): its
// modules by control, the state machine of its "SEARCH" section, the ids that
// section found, the events the "GET" modules fetched, the messages modules
// left, and the frame of its result document.
//
// Run order: "SEARCH", "SORT", "GET", "OUTPUT". After the "SEARCH" modules,
// execute() takes the index's policy, validates it, holds its directory
// locks (ScopedPolicyLock) for the rest of the run and calls postQuery(),
// which evaluates the tree (unless the query came from the cache: fresh is
// false), writes the history record and sorts the ids.
//
// Result document: executeQuery (CompiledQueryLanguage.h) writes the frame
// "<queryResult>\n" ... "</queryResult>" to output(); OUTPUT modules write
// what stands between.
//
// Ownership: shared pointer; the query cache and callers share it. Two
// callers with the same query id share one cached Query, never running it at
// the same time (the cache hands it to one run at a time). Threads: one
// thread runs a query at a time.
#pragma once

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <map>
#include <memory>
#include <unordered_map>
#include <vector>

#include "framework/PipelineData.h"
#include "pipeline/indexer/Module.h"
#include "pipeline/indexer/QueryStateMachine.h"
#include "pipeline/indexer/ValueWrapper.h"
#include "util/Mutex.h"
#include "util/Pathname.h"
#include "util/Str.h"

class IPartitionPolicy;
class ScopedPolicyLock;

class Query {
 public:
  enum SortOrder { kNewestFirst = 0, kNewestLast = 1, kArrival = 2, kReverseArrival = 3 };

  Query(const Str& text, const Str& user, const Str& queryId, const Str& cancelId);
  ~Query();
  Query(const Query&) = delete;
  Query& operator=(const Query&) = delete;

  // Runs every control's modules in order, then postQuery after "SEARCH".
  // Throws QueryException / QueryParseException (caught by executeQuery).
  void execute();
  // Finishes the "SEARCH" stage: finalize, evaluate (when fresh), history
  // record, sort.
  void postQuery();

  // --- what the compiler builds ------------------------------------------------------
  static const std::vector<Str>& controlOrder();  // "SEARCH", "SORT", "GET", "OUTPUT"
  std::vector<std::shared_ptr<Module>>& modules(const Str& control) { return _modules[control]; }
  void addModule(const Str& control, std::shared_ptr<Module> m) { _modules[control].push_back(std::move(m)); }
  // The echo of the "SEARCH" tokens for the history log ("\"tok\" " each).
  Str& searchEcho() { return _searchEcho; }

  // --- state ------------------------------------------------------------------------------
  QueryStateMachine& stateMachine() { return _sm; }
  std::vector<ValueWrapper>& results() { return _results; }
  // Fetched events by kind ("events" is the main key).
  std::unordered_map<Str, std::vector<std::shared_ptr<PipelineData>>>& resultMap() { return _resultMap; }
  // The read events matching results(), by position, once GetEvents ran.
  bool isFresh() const { return _fresh; }
  void setFresh(bool f) { _fresh = f; }
  const Str& getText() const { return _text; }
  void setText(const Str& t) { _text = t; }
  const Str& getUser() const { return _user; }
  const Str& getQueryId() const { return _queryId; }
  const Str& getCancelId() const { return _cancelId; }
  // Messages by level ("INFO", "WARN", "ERROR").
  void addMessage(const Str& level, const Str& text) { _messages[level].push_back(text); }
  const std::map<Str, std::vector<Str>>& getMessages() const { return _messages; }
  void setError(const Str& e) {
    _error = e;
    _failed = true;
  }
  const Str& getError() const { return _error; }
  bool hasFailed() const { return _failed; }
  void clearError() {
    _error.clear();
    _failed = false;
  }
  int getSortOrder() const { return _sortOrder; }
  void setSortOrder(int o) { _sortOrder = o; }
  bool getUseScore() const { return _useScore; }
  void setUseScore(bool b) { _useScore = b; }
  // Relevance scores of scored searches, by ValueWrapper::cd().
  std::unordered_map<Str, float>& scores() { return _scores; }

  time_t getSubmitted() const { return _submitted; }
  void stampSubmitted();
  time_t getLastAccess() const { return _lastAccess; }
  void touch() { _lastAccess = ::time(nullptr); }
  clock_t getCpuStart() const { return _cpuStart; }
  clock_t getCpuEnd() const { return _cpuEnd; }
  void setCpuStart(clock_t c) { _cpuStart = c; }
  void setCpuEnd(clock_t c) { _cpuEnd = c; }
  // Wall clock (seconds, fractional) at submission and when the run began.
  double getWallSubmitted() const { return _wallSubmitted; }
  double getWallStarted() const { return _wallStarted; }
  void setWallStarted(double t) { _wallStarted = t; }

  // The index policy, once the "SEARCH" stage has taken it (else null).
  IPartitionPolicy* policy() const { return _policy; }

  // <VELMOR_DB>/searches/<query id>.xml
  const Pathname& getOutputPath() const { return _outputPath; }
  // Open only while executeQuery runs the query; null otherwise.
  FILE* output() const { return _output; }
  void setOutput(FILE* f) { _output = f; }

  // Kilobytes the cached query holds (ids, events, scores).
  size_t getApproxSizeInK() const;

  // One run at a time (the cache may hand a query to two callers).
  Mutex& runMutex() { return _runMutex; }

 private:
  Str _text;
  Str _user;
  Str _queryId;
  Str _cancelId;
  QueryStateMachine _sm;
  std::vector<ValueWrapper> _results;
  bool _fresh = true;
  std::unordered_map<Str, std::vector<std::shared_ptr<PipelineData>>> _resultMap;
  Pathname _outputPath;
  FILE* _output = nullptr;
  std::map<Str, std::vector<std::shared_ptr<Module>>> _modules;
  std::map<Str, std::vector<Str>> _messages;
  Str _error;
  bool _failed = false;
  int _sortOrder = kNewestFirst;
  bool _useScore = false;
  std::unordered_map<Str, float> _scores;
  time_t _submitted = 0;
  time_t _lastAccess = 0;
  clock_t _cpuStart = 0;
  clock_t _cpuEnd = 0;
  double _wallSubmitted = 0;
  double _wallStarted = 0;
  Str _searchEcho;
  IPartitionPolicy* _policy = nullptr;
  std::unique_ptr<ScopedPolicyLock> _policyLock;
  Mutex _runMutex;
};
