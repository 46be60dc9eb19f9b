// Test doubles for the query engine: an index of generated events whose terms
// are predicates over the event number, a container and a cancel checker.
//
// FakeQueryIndex: event i (0 <= i < size) has time base + i, bucket
// 1 + i / perBucket, address i, and holds the term t when terms[t](i) is
// true ("meta::all" always). A query walks the events from the newest in
// its range, so answers come newest first, exactly as an index gives them.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <functional>
#include <map>
#include <vector>

#include "pipeline/indexer/DatabaseContainer.h"
#include "pipeline/indexer/IPartitionPolicy.h"
#include "pipeline/indexer/QueryCancelChecker.h"
#include "pipeline/indexer/QueryStateMachine.h"
#include "util/Exceptions.h"

class FakeQueryIndex : public IPartitionPolicy {
 public:
  using Pred = std::function<bool(uint32_t)>;

  uint32_t size = 0;
  int32_t base = 1000000;
  uint32_t perBucket = 1000000;
  std::map<Str, Pred> terms;
  std::function<uint32_t(uint32_t)> typeOf;  // event type code of event i
  std::map<Str, std::vector<uint32_t>> hits;  // terms answered by a fixed list instead

  // Behaviour knobs and what was seen.
  int sleepMs = 0;
  bool fail = false;
  bool throwPolicyError = false;
  int queries = 0;
  QueryStateMachine* watch = nullptr;  // peakIds follows its ids in memory
  unsigned long peakIds = 0;
  Str name = "main";

  bool holds(const Str& t, uint32_t i) const {
    if (t == "meta::all") return true;
    auto h = hits.find(t);
    if (h != hits.end()) return std::count(h->second.begin(), h->second.end(), i) != 0;
    auto it = terms.find(t);
    return it != terms.end() && it->second(i);
  }

  ValueWrapper value(uint32_t i) const {
    ValueWrapper v;
    v.bucketId = 1 + i / perBucket;
    v.address = i;
    v.time = base + int32_t(i);
    v.type = typeOf ? typeOf(i) : 0;
    return v;
  }

  bool write(const WritableEvent&) override { return false; }

  bool query(const std::vector<Str>& andTerms, const std::vector<Str>& orTerms, const std::vector<Str>& notTerms,
             int32_t start, int32_t end, size_t count, std::vector<ValueWrapper>& out, size_t skip = 0) override {
    out.clear();
    ++queries;
    if (watch) peakIds = std::max(peakIds, watch->getIdsInMemory());
    if (sleepMs) usleep(useconds_t(sleepMs) * 1000);
    if (fail) return false;
    if (throwPolicyError) throw DatabasePartitionPolicyException("the disk went away");
    if (size == 0) return true;
    int64_t hi = std::min<int64_t>(int64_t(end) - base, int64_t(size) - 1);
    int64_t lo = std::max<int64_t>(int64_t(start) - base, 0);
    for (int64_t i = hi; i >= lo && out.size() < count; --i) {
      uint32_t n = uint32_t(i);
      bool ok = true;
      for (const Str& t : andTerms) ok = ok && holds(t, n);
      if (ok && !orTerms.empty()) {
        bool any = false;
        for (const Str& t : orTerms) any = any || holds(t, n);
        ok = any;
      }
      for (const Str& t : notTerms) ok = ok && !holds(t, n);
      if (!ok) continue;
      if (skip) {
        --skip;
        continue;
      }
      out.push_back(value(n));
    }
    return true;
  }

  bool read(const ValueWrapper& v, DataWrapper& out) override {
    if (v.address >= size) return false;
    out.value = v;
    out.time = base + int32_t(v.address);
    out.raw = Str::fromFormat("event %u", v.address);
    return true;
  }

  const Str& getName() const override { return name; }
};

class FakeContainer : public DatabaseContainer {
 public:
  std::map<Str, IPartitionPolicy*> indexes;
  IPartitionPolicy* getPolicyByDomain(const Str& n) override {
    auto it = indexes.find(n);
    return it == indexes.end() ? nullptr : it->second;
  }
  Str getDefaultDomain() override { return "main"; }
  void enumerateDomains(std::vector<Str>& out) override {
    for (auto& [n, p] : indexes) out.push_back(n);
  }
};

// Reports a cancel from the `after`-th question on (0: at once; -1: never).
class FakeCancel : public QueryCancelChecker {
 public:
  int after = -1;
  int asked = 0;
  int isQueryCancelled(const Str&) override { return after >= 0 && asked++ >= after; }
};
