#include "pipeline/indexer/search/SearchOperator.h"

#include <algorithm>
#include <unordered_map>

#include "framework/UserManager.h"
#include "pipeline/indexer/DatabaseContainer.h"
#include "pipeline/indexer/IPartitionPolicy.h"
#include "pipeline/indexer/LockContainer.h"
#include "pipeline/indexer/PolicyParameters.h"
#include "pipeline/indexer/search/CursoredSearch.h"
#include "search/SLLimits.h"
#include "search/SearchCancel.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "search/processors/DiscretizationProcessor.h"
#include "search/processors/FillNullProcessor.h"
#include "search/processors/SearchEvaluator.h"
#include "search/processors/StatsProcessor.h"
#include "search/processors/StringSearchExpander.h"
#include "util/Exceptions.h"
#include "util/Logger.h"
#include "util/RE.h"

static Logger gLogger("SearchOperator");

namespace {

constexpr int64_t kEndOfTime = 2147483647;

// The user the calling thread works for, else the one the info names.
Str currentUser(const SearchResultsInfo& info) {
  const UserContext* ctx = UserContext::current();
  return ctx ? ctx->user : info.userContext;
}

// The directory locks of one index, held for one chunk. Paths an index
// does not have (an empty path) are skipped.
class ChunkLock {
 public:
  explicit ChunkLock(IPartitionPolicy* policy) {
    const PolicyParameters& p = policy->getPolicyParameters();
    const Pathname* paths[3] = {&p.homePath, &p.coldPath, &p.thawedPath};
    for (const Pathname* path : paths)
      if (!path->empty() && LockContainer::instance().lock(*path)) _held.push_back(*path);
  }
  ~ChunkLock() {
    for (auto it = _held.rbegin(); it != _held.rend(); ++it) LockContainer::instance().unlock(*it);
  }
  ChunkLock(const ChunkLock&) = delete;
  ChunkLock& operator=(const ChunkLock&) = delete;

 private:
  std::vector<Pathname> _held;
};

bool isNonNegativeInt(const Str& v, int& out) {
  if (v.empty() || v.size() > 9) return false;
  for (char c : v)
    if (c < '0' || c > '9') return false;
  out = atoi(v.c_str());
  return true;
}

}  // namespace

SearchOperator::SearchOperator(const Str& n) : SearchProcessor(n) {}
SearchOperator::~SearchOperator() = default;

Str SearchOperator::getAccessFilter(const Str& user) {
  const UserContext* ctx = UserContext::current();
  std::vector<Str> filters;
  if (ctx && ctx->user == user) filters = ctx->searchFilters;
  if (filters.empty() && !user.empty() && user != "freeuser") filters = UserManager::getSearchFilters(user);
  Str out;
  for (const Str& f : filters) {
    if (f.empty()) continue;
    if (!out.empty()) out += " OR ";
    out += " ( " + f + " ) ";
  }
  return out;
}

Str SearchOperator::stripLocalOptions(const Str& text, Str& index, int& readLevel, std::vector<Str>& warnings) {
  // Group 1 is what stands before the option; the option's own pattern
  // follows it.
  static const RE kOption(
      "^(.*?)(?:^|\\s+)(index|maxtime|maxresults|readlevel)(?:=|::)(?:\"?)([^\"\\s]+?)(?:\"?)(\\s+.*)?$");
  Str out = text;
  bool indexSeen = !index.empty(), levelSeen = false;
  for (int guard = 0; guard < 10000; ++guard) {
    std::string before, name, value, rest;
    if (!kOption.FullMatch(out, &before, &name, &value, &rest)) break;
    out = before + rest;
    if (name == "index") {
      index = value;
      if (indexSeen) {
        warnings.push_back("index specified multiple times, using only '" + value + "'");
        gLogger.warn("index specified multiple times, using only index '%s'", value.c_str());
      }
      indexSeen = true;
    } else if (name == "readlevel") {
      int level;
      if (!isNonNegativeInt(value, level)) {
        warnings.push_back("Invalid readlevel '" + value + "'");
        gLogger.warn("Invalid readlevel '%s'", value.c_str());
        continue;
      }
      readLevel = level;
      if (levelSeen) {
        warnings.push_back("readlevel specified multiple times, using '" + value + "'");
        gLogger.warn("readlevel specified multiple times, using '%s'", value.c_str());
      }
      levelSeen = true;
    } else {
      warnings.push_back("Ignoring deprecated search modifier '" + name + "'");
      gLogger.warn("Ignoring deprecated search modifier '%s'", name.c_str());
    }
  }
  gLogger.debug("Search aftering removing local options: '%s'", out.c_str());
  return out;
}

unsigned long SearchOperator::nextChunkSize(unsigned long size, long elapsedMs, long targetMs,
                                            unsigned long maxSize) {
  unsigned long next;
  if (elapsedMs <= 0 || targetMs <= 0)
    next = size > maxSize / 10 ? maxSize : size * 10;
  else
    next = (unsigned long)((double)targetMs * (double)size / (double)elapsedMs);
  return std::max(kMinChunk, std::min(next, std::max(kMinChunk, maxSize)));
}

void SearchOperator::evalArgs(SearchResultsInfo& info) {
  if (argsEvaluated) return;
  SearchProcessor::evalArgs(info);
  try {
    setUp(info);
  } catch (const SearchProcessorException&) {
    throw;
  } catch (const QueryRunningException&) {
    throw;
  } catch (const std::exception& e) {
    throw searchError(this, gLogger, "unable to parse search: %s", e.what());
  } catch (...) {
    throw searchError(this, gLogger, "An unknown error occured while parsing search.");
  }
}

void SearchOperator::setUp(SearchResultsInfo& info) {
  // 1. The text, whole.
  Str text;
  for (Arg* a : args) {
    if (!a || a->type != Arg::STRING || a->isConsumed()) continue;
    if (!text.empty()) text += ' ';
    text += static_cast<StringArg*>(a)->getText();
  }
  const Str user = currentUser(info);

  // 2. The user's role filters.
  Str filter = getAccessFilter(user);
  if (!filter.empty()) {
    text = "( " + text + " ) " + filter;
    info.addInfo("Your search was restricted by " + filter);
  }

  // 3. Tags, event types, saved searches and time words.
  std::vector<Str> warnings;
  text = StringSearchExpander(user).expandSearch(text, warnings);
  gLogger.debug("Actual search that was run = %s", text.c_str());

  // 4. The options of this command.
  Str index;
  text = stripLocalOptions(text, index, _readLevel, warnings);
  // A `search` in front of this command may have warned of the same text.
  for (const Str& w : warnings) {
    auto known = info.messages.find(SearchResultsInfo::MSG_WARN);
    if (known == info.messages.end() || std::find(known->second.begin(), known->second.end(), w) == known->second.end())
      info.addWarning(w);
  }
  _index = index.empty() ? Str("default") : index;

  // 5. Index rights.
  if ((_index.startswith('_') || _index == "velmorlogger") &&
      UserManager::checkUserPerms("search_admin_index", user) != 1)
    throw SearchProcessorException("Only admins may search the index " + _index);
  if (_index == "history" && !user.empty() && UserManager::checkUserPerms("search_history", user) != 1)
    text = "( " + text + " ) user::" + user;

  // 6. The expression.
  _evaluator = std::make_unique<SearchEvaluator>(text);
  _evaluator->optimize();
  _text = text;

  // 7. The index.
  DatabaseContainer* container = DatabaseContainer::getProcessContainer();
  if (!container) throw QueryRunningException("There is no query runner registered");
  Str domain = _index == "default" ? container->getDefaultDomain() : _index;
  if (!user.empty() && UserManager::checkIndexAccess(user, domain) != 1)
    throw SearchProcessorException(UserManager::indexRefusal(domain));
  _policy = container->getPolicyByDomain(domain);
  if (!_policy) throw QueryRunningException("Could not find a policy for domain \"" + _index + "\"");

  // 8. The cursor, and the real time bounds.
  Timeval latest = info.latestTime;
  if (latest.sec() == 0) latest = Timeval(kEndOfTime, 0);
  _cursor = std::make_unique<CursoredSearch>(_evaluator.get(), _policy, info.earliestTime, latest, _readLevel == 0);
  info.earliestTime = _cursor->getEarliestTime();
  info.latestTime = _cursor->getLatestTime();
  if (info.latestTime.sec() >= kEndOfTime)
    info.latestTime = info.earliestTime.sec() == 0 ? Timeval() : Timeval::now();

  // 9. The arguments become the text.
  for (Arg* a : args) delete a;
  args.clear();
  args.push_back(new StringArg(_text, false, true));
  searchString = info.firstInPipeline ? Str::fromFormat("index=%s readlevel=%d %s", _index.c_str(), _readLevel,
                                                        _text.c_str())
                                      : _text;
}

namespace {

bool countableField(const Str& f) {
  return f == "host" || f == "source" || f == "sourcetype" || f == "index";
}

// One group of a counting chunk: the bucket's codes of the fields counted
// by, and the time bin (unused parts 0).
struct CountKey {
  uint32_t bucket = 0, host = 0, source = 0, sourceType = 0;
  int64_t bin = 0;
  bool operator==(const CountKey& o) const {
    return bucket == o.bucket && host == o.host && source == o.source && sourceType == o.sourceType && bin == o.bin;
  }
};
struct CountKeyHash {
  size_t operator()(const CountKey& k) const {
    uint64_t h = k.bucket;
    h = h * 0x9E3779B97F4A7C15ULL ^ k.host;
    h = h * 0x9E3779B97F4A7C15ULL ^ k.source;
    h = h * 0x9E3779B97F4A7C15ULL ^ k.sourceType;
    h = h * 0x9E3779B97F4A7C15ULL ^ static_cast<uint64_t>(k.bin);
    return static_cast<size_t>(h ^ (h >> 29));
  }
};

}  // namespace

bool SearchOperator::absorbMap(const std::list<SearchProcessor*>& ops) {
  if (!_cursor || !_cursor->isExact() || ops.empty()) return false;
  auto it = ops.begin();
  DiscretizationProcessor* bin = dynamic_cast<DiscretizationProcessor*>(*it);
  if (bin) {
    if (!bin->binsTimeBySpan() || bin->field() != "_time" || bin->targetName() != "_time") return false;
    if (++it == ops.end()) return false;
  }
  if (auto* fill = dynamic_cast<FillNullProcessor*>(*it)) {
    if (fill->fields().empty()) return false;
    for (const Str& f : fill->fields())
      if (!countableField(f)) return false;
    if (++it == ops.end()) return false;
  }
  auto* stats = dynamic_cast<StatsProcessor*>(*it);
  if (!stats || !stats->isStreamable() || !stats->countsOnly() || ++it != ops.end()) return false;
  std::vector<CountDim> dims;
  for (const Str& f : stats->getByFields()) {
    if (f == "host") dims.push_back(kHost);
    else if (f == "source") dims.push_back(kSource);
    else if (f == "sourcetype") dims.push_back(kSourceType);
    else if (f == "index") dims.push_back(kIndex);
    else if (f == "_time" && bin) dims.push_back(kTime);
    else return false;
  }
  _countStats = stats;
  _countBin = bin;
  _countDims = std::move(dims);
  gLogger.debug("Counting events by their stored fields in place of the map half");
  return true;
}

void SearchOperator::executeCounts(SearchResults& results, SearchResultsInfo& info) {
  // Naming an event costs little: a chunk covers a quarter million of them
  // (about 15 MB of names; larger chunks spend more on their buffers than
  // they save in passes over the buckets).
  static constexpr unsigned long chunk = 250000;
  bool useHost = false, useSource = false, useType = false, useTime = false;
  for (CountDim d : _countDims) {
    useHost |= d == kHost;
    useSource |= d == kSource;
    useType |= d == kSourceType;
    useTime |= d == kTime;
  }
  const bool useBucket = useHost || useSource || useType;
  StatsProcessor::GroupCounts counts;
  bool more;
  {
    ChunkLock lock(_policy);
    more = _cursor->fetchValues(_values, chunk);
    std::unordered_map<CountKey, unsigned long, CountKeyHash> groups;
    // Events come newest first, so the bin of the last one usually holds
    // the next: [binLow, binHigh) is that bin when it is known to be whole.
    int64_t binLow = 1, binHigh = 0, binStart = 0;
    const int64_t spanSeconds = _countBin ? _countBin->spanSeconds() : 0;
    for (const ValueWrapper& v : _values) {
      CountKey k;
      if (useBucket) k.bucket = v.bucketId;
      if (useHost) k.host = v.host;
      if (useSource) k.source = v.source;
      if (useType) k.sourceType = v.sourceType;
      if (useTime) {
        if (v.time < binLow || v.time >= binHigh) {
          if (!_countBin->binTime(v.time, binStart))
            throw searchError(this, gLogger, "Failed to discretize value '%d' of field '_time'", int(v.time));
          // The bin is taken whole when its last second bins to the same
          // start (no change of the clock's offset, no month, in between);
          // else only this second is known.
          int64_t lastStart = 0;
          if (spanSeconds > 0 && _countBin->binTime(binStart + spanSeconds - 1, lastStart) && lastStart == binStart &&
              binStart <= v.time) {
            binLow = binStart;
            binHigh = binStart + spanSeconds;
          } else {
            binLow = v.time;
            binHigh = int64_t(v.time) + 1;
          }
        }
        k.bin = binStart;
      }
      ++groups[k];
    }
    // Codes become words once per group; a code the bucket no longer knows
    // is the empty word, as it is in an event's row.
    const Str index = _policy->getName();
    counts.reserve(groups.size());
    for (const auto& [k, n] : groups) {
      std::vector<Str> key;
      key.reserve(_countDims.size());
      for (CountDim d : _countDims) {
        Str w;
        switch (d) {
          case kHost: _policy->getGlobalHostWordForCode(k.bucket, k.host, w); break;
          case kSource: _policy->getGlobalSourceWordForCode(k.bucket, k.source, w); break;
          case kSourceType: _policy->getGlobalSourceTypeWordForCode(k.bucket, k.sourceType, w); break;
          case kIndex: w = index; break;
          case kTime: w.format("%lld", static_cast<long long>(k.bin)); break;
        }
        key.push_back(std::move(w));
      }
      counts.emplace_back(std::move(key), n);
    }
  }
  if (_countBin) _countBin->checkBinnedTimes();
  _countStats->executeCounts(counts, results, info);
  info.resultsComplete = !more;
  _chunkEnd = _cursor->getCursorTime();
}

void SearchOperator::execute(SearchResults& results, SearchResultsInfo& info) {
  if (!_cursor) throw searchError(this, gLogger, "The search was not set up");
  _chunkStart = _cursor->getCursorTime();
  if (!SearchCancel::instance()->cont(info.cancelId)) {
    info.resultsComplete = true;
    _chunkEnd = _chunkStart;
    return;
  }
  if (_countStats) {
    executeCounts(results, info);
    return;
  }

  static const unsigned long maxPerChunk = [] {
    unsigned long v = 10000;
    SL::getLimit("search", "max_results_perchunk", v);
    unsigned long rows = SearchResults::getMaxResultRows(false);
    return v == 0 || v > rows ? rows : v;
  }();
  static const long targetMs = [] {
    unsigned long v = 2000;
    SL::getLimit("search", "target_time_perchunk", v);
    return long(v);
  }();

  unsigned long count = _chunkSize;
  if (info.firstEvent >= 0 && info.firstEvent < info.lastEvent)
    count = std::max(kMinChunk, std::min(count, (unsigned long)(info.lastEvent - info.firstEvent)));

  bool more;
  Timeval begin = Timeval::now();
  {
    ChunkLock lock(_policy);
    more = _cursor->fetchResults(results, count);
  }
  long elapsed = long(Timeval::msecDifference(Timeval::now(), begin));
  info.resultsComplete = !more;
  _chunkSize = nextChunkSize(_chunkSize, elapsed, targetMs, maxPerChunk);
  _chunkEnd = _cursor->getCursorTime();
}
