#include "searchthing/strsort.h"

#include <algorithm>

// The eight bytes of `p` (or fewer, up to its NUL), most significant first
// and zero-padded, so that integer order is strcmp order of the eight-byte
// prefixes. A text that ends within them leaves the lowest byte 0; a text
// that goes on has its eighth byte there, never 0.
static inline uint64_t chunk(const char* p) {
  uint64_t k = 0;
  int i = 0;
  for (; i < 8 && p[i]; ++i) k = (k << 8) | (unsigned char)p[i];
  return i == 0 ? 0 : k << (8 * (8 - i));
}

static void sort_from(st_str_row* rows, size_t n, size_t depth) {
  // Each level sorts on eight bytes; runs of equal keys whose texts go on are
  // sorted on the next eight. The last such run is looped on, the others
  // recursed into, so the depth of recursion stays small for typical terms.
  while (n > 1) {
    // Below the first level the texts of a run lie anywhere: ask for them
    // a few rows ahead.
    for (size_t i = 0; i < n; ++i) {
      if (i + 8 < n) __builtin_prefetch(rows[i + 8].text + depth);
      rows[i].key = chunk(rows[i].text + depth);
    }
    std::sort(rows, rows + n, [](const st_str_row& a, const st_str_row& b) { return a.key < b.key; });
    st_str_row* tail = nullptr;
    size_t tail_n = 0;
    for (size_t i = 0; i < n;) {
      size_t j = i + 1;
      while (j < n && rows[j].key == rows[i].key) ++j;
      if (j - i > 1 && (rows[i].key & 0xFF) != 0) {
        if (tail) sort_from(tail, tail_n, depth + 8);
        tail = rows + i;
        tail_n = j - i;
      }
      i = j;
    }
    rows = tail;
    n = tail ? tail_n : 0;
    depth += 8;
  }
}

void st_str_sort(st_str_row* rows, size_t n) { sort_from(rows, n, 0); }
