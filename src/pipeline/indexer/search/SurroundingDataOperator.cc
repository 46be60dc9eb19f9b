#include "pipeline/indexer/search/SurroundingDataOperator.h"

#include <algorithm>

#include "pipeline/indexer/DataWrapper.h"
#include "pipeline/indexer/DatabaseContainer.h"
#include "pipeline/indexer/IPartitionPolicy.h"
#include "pipeline/indexer/PolicyParameters.h"
#include "pipeline/indexer/search/EventRowWriter.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "util/Logger.h"
#include "util/StrSegment.h"

static Logger gLogger("SurroundingDataOperator");

namespace {

Str unquote(const Str& v) {
  if (v.size() >= 2 && v.front() == '"' && v.back() == '"') return v.substr(1, v.size() - 2);
  return v;
}

int32_t clampTime(int64_t t) { return int32_t(std::max<int64_t>(INT32_MIN, std::min<int64_t>(INT32_MAX, t))); }

}  // namespace

void SurroundingDataOperator::processArguments() {
  std::vector<Str> missing;
  if (!getOption("id", _id)) missing.push_back("id");
  if (!getOption("timeBefore", _timeBefore)) missing.push_back("timeBefore");
  if (!getOption("timeAfter", _timeAfter)) missing.push_back("timeAfter");
  if (!getOption("searchkeys", _searchKeys)) missing.push_back("searchkeys");
  if (!getOption("maxresults", _maxResults)) missing.push_back("maxresults");
  if (!getOption("index", _index)) missing.push_back("index");
  if (!getOption("readlevel", _readLevel)) missing.push_back("readlevel");
  if (!missing.empty()) {
    Str names;
    for (const Str& m : missing) {
      if (!names.empty()) names += ' ';
      names += m;
    }
    throw searchError(this, gLogger,
                      "The following required arguments were not provided to the SurroundingDataOperator: %s ",
                      names.c_str());
  }
  refuseLeftovers();
  _id = unquote(_id);
  _searchKeys = unquote(_searchKeys);
  _index = unquote(_index);
  if (_maxResults < 0) _maxResults = 0;
}

bool SurroundingDataOperator::findSurrounding(IPartitionPolicy& policy, const ValueWrapper& wanted,
                                              const std::vector<Str>& terms, std::vector<ValueWrapper>& out,
                                              bool& found, SearchResultsInfo& info) {
  found = false;
  long before = _timeBefore > 0 ? _timeBefore : kDefaultRadius;
  long after = _timeAfter > 0 ? _timeAfter : kDefaultRadius;
  int64_t minTime = 0, maxTime = 0;
  const bool knowsTimes = policy.getMinAndMaxTimes(minTime, maxTime);
  const size_t maxSide = size_t(_maxResults);
  std::vector<ValueWrapper> vals, older, newer;
  for (int turn = 0; turn < kMaxIterations; ++turn) {
    int64_t from = int64_t(wanted.time) - before, to = int64_t(wanted.time) + after;
    if (!policy.query(terms, {}, {}, clampTime(from), clampTime(to), kMaxIds, vals)) return false;
    if (vals.size() == kMaxIds) {
      before /= 2;
      if (before == 0) {
        gLogger.warn("Unable to successfully find the value in the index for getSurrounding !!");
        return false;
      }
      continue;
    }
    // Newest first: values before the wanted one's position are newer.
    auto at = std::find(vals.begin(), vals.end(), wanted);
    older.clear();
    newer.clear();
    if (at != vals.end()) {
      found = true;
      out.assign(1, *at);
      gLogger.debug("Found id in results time before =%ld time after =%ld !!", before, after);
      size_t pos = size_t(at - vals.begin());
      newer.assign(vals.begin() + long(pos - std::min(pos, maxSide)), at);
      older.assign(at + 1, at + 1 + long(std::min(vals.size() - pos - 1, maxSide)));
    } else {
      // Split around where the event would stand.
      auto split = std::lower_bound(vals.begin(), vals.end(), wanted);
      size_t pos = size_t(split - vals.begin());
      newer.assign(vals.begin() + long(pos - std::min(pos, maxSide)), split);
      older.assign(split, split + long(std::min(vals.size() - pos, maxSide)));
    }
    bool enough = older.size() >= maxSide && newer.size() >= maxSide;
    bool coversAll = knowsTimes && from <= minTime && to >= maxTime;
    if (found && (enough || coversAll)) break;
    if (turn + 1 == kMaxIterations) {
      info.addInfo("Too many iterations in get Surrounding data aborting  !!");
      gLogger.info("Too many iterations in get Surrounding data aborting  !!");
      break;
    }
    before = before > (1L << 40) ? before : before * 2;
    after = after > (1L << 40) ? after : after * 2;
  }
  gLogger.debug("Before results size = %u", unsigned(older.size()));
  gLogger.debug("After results size = %u", unsigned(newer.size()));
  // Oldest first: the older ones reversed, the event, the newer ones reversed.
  std::vector<ValueWrapper> all(older.rbegin(), older.rend());
  if (found) all.push_back(out.front());
  all.insert(all.end(), newer.rbegin(), newer.rend());
  out.swap(all);
  gLogger.debug("Got %u surround results", unsigned(out.size()));
  return true;
}

void SurroundingDataOperator::decorate(SearchResults& results, const std::vector<Str>& audits,
                                       SearchResultsInfo& info) {
  size_t valid = 0, tampered = 0, unknown = 0;
  const sr_index_t kDecoration = results.keyIndex("_decoration", true);
  size_t i = 0;
  for (SearchResult* r : results) {
    if (i >= audits.size()) break;
    const Str& a = audits[i++];
    if (a.empty()) continue;
    if (a == "audit_valid") {
      r->setValue(kDecoration, Str("showsourceValid"));
      ++valid;
    } else if (a == "audit_tampered") {
      r->setValue(kDecoration, Str("showsourceInvalid"));
      ++tampered;
    } else {
      r->setValue(kDecoration, Str("showsourceCantValidate"));
      if (unknown == 0) gLogger.warn("Unable to validate source block at id %s", r->getValue(results.keyIndex("_cd")).c_str());
      ++unknown;
    }
  }
  if (valid + tampered + unknown == 0) return;
  if (tampered > 0) {
    gLogger.warn("Block signatures do not match, tampering detected");
    info.addInfo("Velmor detected possible tampering with this source.");
  } else if (unknown == 0) {
    info.addInfo("Velmor validated that this data has not been tampered with.");
  } else if (valid > 0) {
    info.addInfo("Velmor could not validate the consistency of this source. There may be gaps in this data.");
  } else {
    info.addInfo(
        "Velmor could not validate this source. There may be gaps in this data or this data may have been "
        "tampered with. See velmord.log.");
  }
}

void SurroundingDataOperator::execute(SearchResults& results, SearchResultsInfo& info) {
  gLogger.info("Got getSurroundingData call %s, %lu, %lu, %s", _id.c_str(), (unsigned long)_timeBefore,
               (unsigned long)_timeAfter, _searchKeys.c_str());
  DatabaseContainer* container = DatabaseContainer::getProcessContainer();
  IPartitionPolicy* policy = nullptr;
  if (container) policy = container->getPolicyByDomain(_index == "default" ? container->getDefaultDomain() : _index);
  if (!policy) throw searchError(this, gLogger, "Unable to find index %s", _index.c_str());

  ValueWrapper wanted;
  if (!ValueWrapper::parseCd(StrSegment(_id), wanted.bucketId, wanted.address))
    throw searchError(this, gLogger, "Could not convert %s to a value wrapper", _id.c_str());

  std::vector<Str> terms;
  for (size_t at = 0; at < _searchKeys.size();) {
    size_t end = _searchKeys.find(' ', at);
    if (end == Str::npos) end = _searchKeys.size();
    if (end > at) terms.push_back(lowercase(StrSegment(_searchKeys.data() + at, end - at)));
    at = end + 1;
  }
  if (terms.empty()) terms.push_back("meta::all");
  gLogger.debug("search = %s", _searchKeys.empty() ? "meta::all" : _searchKeys.c_str());

  try {
    DataWrapper event;
    if (!policy->read(wanted, event))
      throw searchError(this, gLogger, "Unable to read %s from the index %s", _id.c_str(), _index.c_str());
    wanted.time = event.time;

    std::vector<ValueWrapper> vals;
    bool found = false;
    if (!findSurrounding(*policy, wanted, terms, vals, found, info)) vals.clear();

    std::vector<DataWrapper> events;
    std::vector<bool> ok;
    const bool signedIndex = policy->getPolicyParameters().blockSignSize > 0;
    policy->read(vals, events, ok, 0, signedIndex);
    EventRowWriter writer(policy->getName().empty() ? _index : policy->getName(), _readLevel > 0);
    writer.bind(results);
    std::vector<Str> audits;
    uint64_t serial = 0;
    for (size_t i = 0; i < vals.size(); ++i) {
      if (!ok[i]) {
        gLogger.warn("Unable to read %s from the data base while verifying block signature", vals[i].cd().c_str());
        continue;
      }
      writer.append(results, events[i], serial++);
      audits.push_back(events[i].audit);
    }
    decorate(results, audits, info);
  } catch (const SearchProcessorException&) {
    throw;
  } catch (const std::exception& e) {
    gLogger.error("%s", e.what());
    throw searchError(this, gLogger,
                      "An unknown exception occured while reading results in surrounding data processor.");
  }
}
