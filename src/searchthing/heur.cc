// Range search over a sorted array by bisection at both ends.
#include "searchthing/heur.h"

#include <assert.h>

static inline const void* key_at(void* ctx, const void* array, size_t elsize, int64_t i, st_heur_key_fn key) {
  const void* elem = (const unsigned char*)array + (size_t)i * elsize;
  return key ? key(ctx, elem) : elem;
}

static inline int64_t pick(void* ctx, st_heur_probe_fn probe, int64_t lb, int64_t ub) {
  if (probe) {
    int64_t p = probe(ctx, lb, ub);
    if (p > lb && p < ub) return p;
  }
  return (ub - lb) / 2 + lb;
}

int st_heur_search(void* ctx, const void* array, size_t elsize, int64_t* first, int64_t* last,
                   const void* lower_key, const void* upper_key, st_heur_key_fn key, st_heur_cmp_fn cmp,
                   st_heur_probe_fn probe) {
  if (!array || !elsize || !cmp || !first || !last || *last < *first) return 1;
  assert(cmp(ctx, lower_key, upper_key) <= 0);
  int64_t f = *first, l = *last;
  if (cmp(ctx, upper_key, key_at(ctx, array, elsize, f, key)) < 0) return 2;
  if (cmp(ctx, lower_key, key_at(ctx, array, elsize, l, key)) > 0) return 2;

  // Last: the final element that does not sort after upper_key.
  int64_t lb = f, ub = l;
  if (cmp(ctx, upper_key, key_at(ctx, array, elsize, l, key)) < 0) {
    while (ub - lb > 1) {
      int64_t m = pick(ctx, probe, lb, ub);
      if (cmp(ctx, upper_key, key_at(ctx, array, elsize, m, key)) >= 0)
        lb = m;
      else
        ub = m;
    }
    l = lb;
  }
  // First: the first element that does not sort before lower_key.
  if (cmp(ctx, lower_key, key_at(ctx, array, elsize, f, key)) > 0) {
    lb = f;
    while (ub - lb > 1) {
      int64_t m = pick(ctx, probe, lb, ub);
      if (cmp(ctx, lower_key, key_at(ctx, array, elsize, m, key)) > 0)
        lb = m;
      else
        ub = m;
    }
    f = ub;
  }
  *first = f;
  *last = l;
  return 0;
}
