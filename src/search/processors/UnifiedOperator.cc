#include "search/processors/UnifiedOperator.h"

#include <list>
#include <string>
#include <unordered_map>

namespace {

const Str* fieldValue(const SearchResult* row, sr_index_t k) {
  const Str* v = row->getValuePtr(k);
  return (v == nullptr || v->empty()) ? nullptr : v;
}

// Length-prefixed values of the fields in `mask`, with the mask in front:
// no two different (mask, values) pairs give the same text.
void makeKey(unsigned long mask, const std::vector<const Str*>& vals, std::string& key) {
  key.assign(reinterpret_cast<const char*>(&mask), sizeof(mask));
  for (size_t i = 0; i < vals.size(); ++i) {
    if (!(mask & (1UL << i))) continue;
    size_t n = vals[i]->size();
    key.append(reinterpret_cast<const char*>(&n), sizeof(n));
    key.append(*vals[i]);
  }
}

}  // namespace

bool UnifiedOperator::isCompatible(const CandidateEvent& e, const Candidate& c) {
  for (size_t i = 0; i < _keys.size(); ++i) {
    const Str* v = fieldValue(e.row, _keys[i]);
    if (v != nullptr && c.present[i] && c.values[i] != *v) return false;
  }
  return true;
}

void UnifiedOperator::updateCandidate(const CandidateEvent& e, Candidate& c) {
  CandidateOperator::updateCandidate(e, c);
  for (size_t i = 0; i < _keys.size(); ++i) {
    if (c.present[i]) continue;
    const Str* v = fieldValue(e.row, _keys[i]);
    if (v == nullptr) continue;
    c.values[i] = *v;
    c.present[i] = true;
  }
}

void UnifiedOperator::processCandidate(const Candidate& in, std::vector<Candidate>& out) {
  const size_t k = _keys.size();
  const size_t base = out.size();
  const unsigned long full = k >= 64 ? ~0UL : (1UL << k) - 1;
  const bool indexed = k <= kMaxIndexedFields;
  std::unordered_map<std::string, size_t> complete;  // full key -> group
  std::unordered_map<std::string, size_t> partialIx;  // subset key -> latest complete group
  std::list<size_t> incomplete;                       // groups missing fields, latest first
  std::vector<std::list<size_t>::iterator> where;     // by group - base
  std::vector<unsigned long> touched;                 // by group - base
  std::vector<const Str*> vals(k);
  std::string key;
  unsigned long clock = 0;

  std::vector<char> isComplete;                      // by group - base
  long latest = -1;                                   // the group touched last

  auto indexGroup = [&](size_t g) {
    const Candidate& c = out[g];
    std::vector<const Str*> cv(k);
    for (size_t i = 0; i < k; ++i) cv[i] = &c.values[i];
    if (!isComplete[g - base]) {
      makeKey(full, cv, key);
      complete[key] = g;
      isComplete[g - base] = 1;
    }
    if (!indexed) return;
    for (unsigned long m = full & (full - 1); m != 0; m = (m - 1) & full) {
      makeKey(m, cv, key);
      partialIx[key] = g;
    }
  };

  for (const CandidateEvent& e : in.events) {
    unsigned long mask = 0;
    for (size_t i = 0; i < k; ++i) {
      vals[i] = fieldValue(e.row, _keys[i]);
      if (vals[i] != nullptr) mask |= 1UL << i;
    }
    long best = -1;
    if (mask == 0) {
      best = latest;  // every group agrees with it
    } else if (mask == full || indexed) {
      makeKey(mask, vals, key);
      auto& ix = mask == full ? complete : partialIx;
      auto it = ix.find(key);
      if (it != ix.end()) best = static_cast<long>(it->second);
    } else {
      // Too many fields for the subset index: scan the complete groups.
      for (size_t g = base; g < out.size(); ++g)
        if (isComplete[g - base] && isCompatible(e, out[g]) &&
            (best < 0 || touched[g - base] > touched[best - base]))
          best = static_cast<long>(g);
    }
    // Incomplete groups, most recently touched first: the first that agrees
    // wins if it was touched after the best complete group.
    if (mask != 0) {
      for (size_t g : incomplete) {
        if (best >= 0 && touched[g - base] < touched[best - base]) break;
        if (isCompatible(e, out[g])) {
          best = static_cast<long>(g);
          break;
        }
      }
    }
    size_t g;
    if (best < 0) {
      g = out.size();
      out.emplace_back();
      out.back().values.resize(k);
      out.back().present.assign(k, false);
      where.push_back(incomplete.end());
      touched.push_back(0);
      isComplete.push_back(0);
    } else {
      g = static_cast<size_t>(best);
    }
    Candidate& c = out[g];
    updateCandidate(e, c);
    touched[g - base] = ++clock;
    latest = static_cast<long>(g);
    bool nowComplete = true;
    for (size_t i = 0; i < k; ++i) nowComplete = nowComplete && c.present[i];
    if (where[g - base] != incomplete.end()) {
      incomplete.erase(where[g - base]);
      where[g - base] = incomplete.end();
    }
    if (nowComplete) {
      indexGroup(g);
    } else {
      incomplete.push_front(g);
      where[g - base] = incomplete.begin();
    }
  }
}
