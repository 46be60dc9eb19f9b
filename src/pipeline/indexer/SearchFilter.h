// SearchFilter: "host::" and "source::" terms applied as sets of codes to
// the ids other terms produce, instead of reading the terms' own id lists.
// Codes belong to a bucket, so each set holds (bucket id << 32 | code).
//
// A term added as required restricts its kind (host or source) to its codes;
// a term added as excluded rejects its codes. An id passes when no exclude
// set holds its code and every required kind holds it. The source type sets
// exist for symmetry (absorb merges all six) but terms only fill hosts and
// sources.
//
// Codes come from IPartitionPolicy::getBucketCodesForWord, which knows the
// buckets open when the filter is built. A bucket opened later by the query
// itself (a cold one) is looked up again the first time one of its ids is
// filtered, so the filter never judges a bucket it has not asked about.
//
// A plain value of one query; the thread running the query. The policy must
// outlive it.
#pragma once

#include <cstdint>
#include <set>
#include <vector>

#include "pipeline/indexer/ValueWrapper.h"
#include "util/Str.h"

class IPartitionPolicy;

class SearchFilter {
 public:
  enum Kind { kHosts = 0, kSources = 1, kSourceTypes = 2 };

  SearchFilter() = default;

  // Each takes a term "host::<word>" or "source::<word>" (no star) and
  // returns whether it could be used: false for any other term, or when no
  // bucket knows the word.
  bool addToAndFilters(const Str& term, IPartitionPolicy* policy);
  bool addToNotFilters(const Str& term, IPartitionPolicy* policy);
  void absorb(const SearchFilter& other);

  // Appends to out the ids of [begin, end) that pass; returns how many.
  size_t applyFilter(const ValueWrapper* begin, const ValueWrapper* end, std::vector<ValueWrapper>& out);
  bool passes(const ValueWrapper& v);

  bool empty() const { return _terms.empty(); }
  // "FILTER(host::a, NOT source::b)".
  Str toString() const;

 private:
  struct Term {
    Str text;  // as given
    Kind kind;
    bool exclude;
  };

  bool addToInternalFilters(const Str& term, IPartitionPolicy* policy, bool exclude);
  // Looks every term up again (after a bucket unknown to the filter showed).
  void resolve();
  static uint64_t key(uint32_t bucketId, uint32_t code) { return (uint64_t(bucketId) << 32) | code; }

  std::set<uint64_t> _require[3];
  std::set<uint64_t> _exclude[3];
  bool _required[3] = {false, false, false};
  std::vector<Term> _terms;
  std::set<uint32_t> _askedBuckets;
  IPartitionPolicy* _policy = nullptr;
};
