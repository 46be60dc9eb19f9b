// Hot slice: the in-memory accumulator of postings (term, value) of one index.
//
// Every table is allocated once by st_hot_slice_create at a fixed capacity,
// all of them in one mapping; a put allocates nothing and does no I/O. Open
// state accepts puts; prepare sorts the tables for the slice writer and puts
// are then refused until a reset. Owned by the index handle that created it; not thread-safe.
#ifndef VELMOR_SEARCHTHING_HOTSLICE_H
#define VELMOR_SEARCHTHING_HOTSLICE_H

#include <stddef.h>
#include <stdint.h>

#include "searchthing/st_types.h"
#include "searchthing/strsort.h"

// Per distinct term, in order of first sight.
typedef struct st_hot_term_stats {
  uint32_t count;
  int32_t earliest;
  int32_t latest;
} st_hot_term_stats;

// One (term, value) pair, in order of arrival; prepare scatters them into
// per-term runs through the two row numbers.
typedef struct st_hot_posting {
  uint32_t value_row;  // row in values
  uint32_t term_no;    // row in term statistics
} st_hot_posting;

// Slot of the term hash; prepare compacts and sorts these.
typedef struct st_hot_term_slot {
  const char* text;
  uint32_t term_no;   // row in term statistics
  uint32_t key;       // hash of the text, compared before the text itself
  uint32_t last_row;  // value row of the term's latest posting, for folding repeats
} st_hot_term_slot;

// Working row of prepare and of the slice writer: a text (forward or
// reversed) with its term number in the tag.
typedef st_str_row st_hot_rterm;

typedef struct st_hot_slice {
  void* arena;  // one mapping holding every table below
  size_t arena_size;
  char* pool;
  uint64_t pool_size, pool_used;
  st_hot_term_stats* stats;
  uint32_t max_terms, terms_used;
  st_hot_term_slot* term_hash;  // 2 * max_terms slots
  uint64_t term_mod, value_mod;  // magic numbers of the two hashes' remainders
  st_hot_posting* postings;
  uint32_t max_postings, postings_used;
  st_tsval* values;
  uint32_t max_values, values_used;
  st_tsval** value_hash;        // 2 * max_values slots
  uint32_t last_address, last_row;  // the value of the previous put (one event puts many terms)
  int has_last;
  uint32_t* value_numbers;      // row of values -> place in sorted order
  const char** sorted_terms;
  uint32_t* postings_per_term;
  uint32_t* flat_postings;
  st_hot_rterm* rterms;
  uint64_t* term_lengths;
  char* rpool;                  // pool_size + max_terms bytes
  int prepared;
  int32_t prep_latest, prep_earliest;
  uint32_t prep_values, prep_terms, prep_postings;
} st_hot_slice;

// Null if any table can't be allocated. REQUIRES: max_terms > 256 and even.
st_hot_slice* st_hot_slice_create(uint64_t pool_size, uint32_t max_terms, uint32_t max_postings,
                                  uint32_t max_values);
void st_hot_slice_close(st_hot_slice* h);
// 0 done (or folded duplicate); -1 terms full; -2 values full; -3 postings
// full; -4 pool full. A refused put changes nothing. An empty term is a
// probe: it adds nothing and fails when any table is above half full.
// REQUIRES: not prepared; h and term non-null.
int st_hot_slice_put(st_hot_slice* h, const char* term, int32_t time, uint32_t address, uint32_t type,
                     uint32_t source, uint32_t source_type, uint32_t host);
// key % d without a division (Lemire's fastmod): m = 2^64 / d rounded up,
// computed once per table size. Exact for every 32-bit key and divisor.
static inline uint32_t st_hot_fast_mod(uint32_t key, uint64_t m, uint32_t d) {
  return (uint32_t)(((__uint128_t)(m * key) * d) >> 64);
}

// The hash that put files a term under, and the term's length capped at
// 2047 bytes.
static inline uint32_t st_hot_slice_hash(const char* term, size_t* len) {
  size_t n = 0;
  uint32_t key = 5381;
  while (n < ST_MAX_TERM_LEN && term[n]) key = key * 33 + (uint32_t)(int32_t)(signed char)term[n++];
  *len = n;
  return key;
}
// st_hot_slice_put with the hash and length already taken.
int st_hot_slice_put_hashed(st_hot_slice* h, const char* term, size_t len, uint32_t key, int32_t time,
                            uint32_t address, uint32_t type, uint32_t source, uint32_t source_type, uint32_t host);
// Cache hints for a put to come, changing nothing: the term's home slot, and
// (once that is likely cached) the text and statistics behind the slot.
// A caller that knows several terms ahead issues the first some puts before
// the put and the second a few puts before it.
static inline void st_hot_slice_prefetch_slot(const st_hot_slice* h, uint32_t key) {
  __builtin_prefetch(&h->term_hash[st_hot_fast_mod(key, h->term_mod, 2 * h->max_terms)]);
}
static inline void st_hot_slice_prefetch_term(const st_hot_slice* h, uint32_t key) {
  const st_hot_term_slot* s = &h->term_hash[st_hot_fast_mod(key, h->term_mod, 2 * h->max_terms)];
  if (s->text) {
    __builtin_prefetch(s->text);
    __builtin_prefetch(&h->stats[s->term_no], 1);
  }
}
void st_hot_slice_reset(st_hot_slice* h);
// Sorts for writing: values by time and address descending (value number 0 is
// the newest), terms by strcmp, each term's value numbers ascending without
// duplicates in flat_postings. 0, or -1 when there are no values. A second
// call returns the saved results.
int st_hot_slice_prepare(st_hot_slice* h, int32_t* latest, int32_t* earliest, uint32_t* num_values,
                         uint32_t* num_terms, uint32_t* num_postings);
// Bytes of all tables at capacity, plus 240 for the handle.
uint64_t st_hot_slice_size(const st_hot_slice* h);
// Bytes that tables of exactly this content need.
uint64_t st_hot_slice_size_est(uint64_t pool_used, uint64_t terms, uint64_t postings, uint64_t values);
uint32_t st_hot_slice_values(const st_hot_slice* h);
// Term number (row of statistics) of the term in sorted place `slot`.
// REQUIRES: prepared.
uint32_t st_hot_slice_get_term_index(const st_hot_slice* h, uint32_t slot);
uint32_t get_largest_event_type(const st_hot_slice* h);
uint32_t get_largest_source(const st_hot_slice* h);
uint32_t get_largest_source_type(const st_hot_slice* h);
uint32_t get_largest_host(const st_hot_slice* h);

#endif
