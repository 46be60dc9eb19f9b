// String sort of the slice writers: rows of (text, tag) into strcmp order of
// their texts.
//
// Comparing through text pointers costs a cache miss per comparison once a
// slice holds more terms than the caches do. This sort instead loads eight
// bytes of each text at a time into the row as a big-endian key, sorts the
// rows on that integer, and only for runs that share all eight bytes goes on
// to the next eight. Each text is thus read about once per level instead of
// once per comparison.
//
// The caller owns the rows and the texts; nothing is allocated. Safe to call
// from any thread on rows no other thread touches.
#ifndef VELMOR_SEARCHTHING_STRSORT_H
#define VELMOR_SEARCHTHING_STRSORT_H

#include <stddef.h>
#include <stdint.h>

typedef struct st_str_row {
  uint64_t key;      // scratch of the sort
  const char* text;  // NUL-terminated
  uint32_t tag;      // the caller's, carried along
} st_str_row;

// Sorts rows[0..n) by strcmp of text; equal texts end up next to each other
// in no particular order. REQUIRES: every text NUL-terminated.
void st_str_sort(st_str_row* rows, size_t n);

#endif
