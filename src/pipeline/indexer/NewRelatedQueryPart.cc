#include "pipeline/indexer/NewRelatedQueryPart.h"

#include <algorithm>
#include <climits>
#include <map>

#include "pipeline/indexer/IPartitionPolicy.h"
#include "pipeline/indexer/QueryStateMachine.h"
#include "util/Exceptions.h"
#include "util/Logger.h"

static Logger gLogger("NewRelatedQueryPart");

NewRelatedQueryPart::NewRelatedQueryPart(const std::vector<Str>& words, QueryStateMachine* sm)
    : QueryPart(sm), _words(words) {
  _leaf = true;
  for (Str& w : _words)
    for (char& c : w)
      if (c >= 'A' && c <= 'Z') c = char(c + 32);
}

void NewRelatedQueryPart::run(long minTime, long maxTime) {
  IPartitionPolicy* policy = policyOrThrow();
  const int32_t lo = int32_t(std::max<long>(minTime, INT32_MIN));
  const int32_t hi = int32_t(std::min<long>(maxTime, INT32_MAX));
  size_t n = _words.size();
  if (_sm->getRelatedMaxWords() > 0) n = std::min<size_t>(n, size_t(_sm->getRelatedMaxWords()));

  struct Hits {
    float weight;
    std::vector<ValueWrapper> ids;
  };
  std::vector<Hits> lists;
  for (size_t i = 0; i < n; ++i) {
    _sm->hasQueryTimedOut();
    _sm->testQueryCancelled();
    gLogger.debug("Running related on %s", _words[i].c_str());
    Hits h{float(n - i), {}};
    bool ok;
    try {
      ok = policy->query({_words[i]}, {}, {}, lo, hi, kHitsPerWord, h.ids);
    } catch (const DatabasePartitionPolicyException& e) {
      throw QueryException(e.what());
    }
    if (!ok) throw QueryException("the index \"%s\" could not be queried.", _sm->getDomain().c_str());
    if (h.ids.empty()) {
      gLogger.debug("Unable to get any results for \"%s\"", _words[i].c_str());
      continue;
    }
    lists.push_back(std::move(h));
  }
  std::stable_sort(lists.begin(), lists.end(),
                   [](const Hits& a, const Hits& b) { return a.ids.size() < b.ids.size(); });

  std::map<ValueWrapper, float> score;  // ValueWrapper order
  float maxScore = 0;
  Str best;
  for (const Hits& h : lists) {
    const float part = h.weight / float(h.ids.size());
    for (const ValueWrapper& v : h.ids) {
      auto [it, fresh] = score.emplace(v, part);
      if (!fresh) it->second = (it->second + part) * _sm->getRelatedWeight();
      if (it->second > maxScore) {
        maxScore = it->second;
        best = v.cd();
      }
    }
  }
  if (maxScore > 0) gLogger.debug("Max score : %f for %s", double(maxScore), best.c_str());
  auto& scores = _sm->scores();
  for (const auto& [v, s] : score) {
    scores[v.cd()] = maxScore > 0 ? s / maxScore * 100.0f : 0.0f;
    _ids.push_back(v);
  }
}

void NewRelatedQueryPart::getIds(std::vector<ValueWrapper>& out, unsigned long startPosition, unsigned long count,
                                 long minTime, long maxTime) {
  if (_requested) {
    gLogger.debug("Already requested %s returning", toString().c_str());
  } else {
    _requested = true;
    run(minTime, maxTime);
  }
  deliverFrom(_ids, out, startPosition, count);
}

Str NewRelatedQueryPart::toString() const {
  Str s = negationPrefix() + "RELATED(";
  for (size_t i = 0; i < _words.size(); ++i) {
    if (i) s += ", ";
    s += _words[i];
  }
  return s + ")";
}

size_t NewRelatedQueryPart::sizeInBytes() const { return sizeof(*this) + _ids.capacity() * sizeof(ValueWrapper); }
