// Pieces of the warm slice module shared between its source files; not for
// callers outside the module.
#ifndef VELMOR_SEARCHTHING_WARMSLICE_INTERNAL_H
#define VELMOR_SEARCHTHING_WARMSLICE_INTERNAL_H

#include "searchthing/warmslice.h"

// Copies len bytes of the postings section at offset off; returns the count
// copied (short at the end of the section), or -1.
int64_t st_warm_slice_read_postings(st_warm_slice* ws, uint64_t off, void* buf, size_t len);

#endif
