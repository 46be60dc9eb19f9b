// Pieces of the warm slice module shared between its source files; not for
// callers outside the module.
#ifndef VELMOR_SEARCHTHING_WARMSLICE_INTERNAL_H
#define VELMOR_SEARCHTHING_WARMSLICE_INTERNAL_H

#include "searchthing/warmslice.h"

// Handle over a whole slice file image in `buf` (taken over: freed by
// st_warm_slice_close). Null if the image is unsound; buf is then the
// caller's again.
st_warm_slice* st_warm_slice_from_memory(unsigned char* buf, size_t size);

// Copies len bytes of the postings section at offset off; returns the count
// copied (short at the end of the section), or -1.
int64_t st_warm_slice_read_postings(st_warm_slice* ws, uint64_t off, void* buf, size_t len);

#endif
