// Range search over a sorted array for any order: finds the sub-range of
// elements whose keys lie between a lower and an upper key.
//
// Stateless; callable from any thread.
#ifndef VELMOR_SEARCHTHING_HEUR_H
#define VELMOR_SEARCHTHING_HEUR_H

#include <stddef.h>
#include <stdint.h>

// Key of an element (elem points into the array).
typedef const void* (*st_heur_key_fn)(void* ctx, const void* elem);
// Order of two keys: <0 when a sorts before b, 0 equal, >0 after.
typedef int (*st_heur_cmp_fn)(void* ctx, const void* a, const void* b);
// Picks the probe between lb and ub (exclusive both); null means midpoint.
typedef int64_t (*st_heur_probe_fn)(void* ctx, int64_t lb, int64_t ub);

// On entry *first and *last bound the array part to search (inclusive); on
// return 0 they bound the elements between lower_key and upper_key, with
// *first > *last when none lies there. Returns 1 for bad arguments (null
// array or compare, zero element size, last below first), 2 when the keys
// lie wholly before or after the array part.
// REQUIRES: cmp(lower_key, upper_key) <= 0 (asserted).
int st_heur_search(void* ctx, const void* array, size_t elsize, int64_t* first, int64_t* last,
                   const void* lower_key, const void* upper_key, st_heur_key_fn key, st_heur_cmp_fn cmp,
                   st_heur_probe_fn probe);

#endif
