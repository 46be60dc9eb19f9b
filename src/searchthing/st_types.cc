// Order of indexed values: time descending, then address descending.
#include "searchthing/st_types.h"

#include <stdlib.h>

#include "searchthing/codes.h"

static inline int order_pair(int32_t ta, uint32_t aa, int32_t tb, uint32_t ab) {
  if (ta != tb) return ta > tb ? -1 : 1;
  if (aa != ab) return aa > ab ? -1 : 1;
  return 0;
}

int st_tsval_compare(const void* a, const void* b) {
  const st_tsval* x = (const st_tsval*)a;
  const st_tsval* y = (const st_tsval*)b;
  return order_pair(x->time, x->address, y->time, y->address);
}

int st_ntsval_compare(const void* a, const void* b) {
  const unsigned char* x = (const unsigned char*)a;
  const unsigned char* y = (const unsigned char*)b;
  return order_pair((int32_t)st_get_be32(x), st_get_be32(x + 4), (int32_t)st_get_be32(y),
                    st_get_be32(y + 4));
}

static int compare_ptr(const void* a, const void* b) {
  return st_tsval_compare(*(const st_tsval* const*)a, *(const st_tsval* const*)b);
}

static int compare_enc_ptr(const void* a, const void* b) {
  return st_ntsval_compare(*(const unsigned char* const*)a, *(const unsigned char* const*)b);
}

void st_tsval_qsort(st_tsval* vals, size_t n) { qsort(vals, n, sizeof(st_tsval), st_tsval_compare); }

void st_tsval_ptr_qsort(st_tsval** vals, size_t n) { qsort(vals, n, sizeof(st_tsval*), compare_ptr); }

void st_tsval_enc_ptr_qsort(const unsigned char** pairs, size_t n) {
  qsort(pairs, n, sizeof(*pairs), compare_enc_ptr);
}

size_t st_tsval_gather(st_tsval* vals, size_t n) {
  if (n == 0) return 0;
  size_t out = 1;
  for (size_t i = 1; i < n; ++i) {
    if (vals[i].time == vals[out - 1].time && vals[i].address == vals[out - 1].address) continue;
    vals[out++] = vals[i];
  }
  return out;
}
