// warmslice_merge: writes one warm slice that holds the union of two.
//
// The merge holds in memory the fixed part of the output (everything before
// the lexicons), value-number maps, lexicon maps, the merged lexicon buffer,
// the decoded lists of one term and about a megabyte of encoded postings;
// the postings of both inputs are mapped read-only. Both inputs must be
// opened mapped (st_warm_slice_open with for_updating 0) and stay open
// during the call; the caller closes them and the returned handle. No locks
// are taken here; any thread may call it.
#ifndef VELMOR_SEARCHTHING_WARMSLICE_MERGE_H
#define VELMOR_SEARCHTHING_WARMSLICE_MERGE_H

#include <stdint.h>

#include "searchthing/warmslice.h"

// Writes the merge of a and b to out_path and returns a handle on the new
// file (opened mapped), or null (a partial file may remain). With log set, a
// one-line summary record goes to standard error; ST_VERBOSE > 0 adds
// progress lines.
st_warm_slice* st_warm_slice_merge(const char* out_path, st_warm_slice* a, st_warm_slice* b);
st_warm_slice* st_warm_slice_merge_log(const char* out_path, st_warm_slice* a, st_warm_slice* b, int log);

// Estimated bytes of the merged file.
int64_t st_warm_slice_merge_size_estimate(st_warm_slice* a, st_warm_slice* b);

// 5381, then h * 33 + n over each value number n of the term's list.
uint64_t st_warm_slice_pl_hash(st_warm_slice* ws, uint32_t term_id);

// Appends the posting list of ascending value numbers to buf as the merge
// writes it: first word, then differences, runs of +1 steps as a 0 byte and
// the run's length. Returns the bytes written. REQUIRES: buf has room for
// 10 bytes per value. Exposed for tests.
size_t st_merge_encode_list(const uint32_t* values, uint32_t n, unsigned char* buf);

// Decodes one whole posting list of len bytes (a slice of num_values nv) by
// the list reader's rules and returns the number of values put in out. The
// list ends early at the first bad word (cut off, a difference or run of 0,
// a value at or above nv), keeping the values before it, and *bad is then
// set to 1 (else 0). REQUIRES: out has room for nv values. Exposed for tests.
uint32_t st_merge_decode_list(const unsigned char* p, size_t len, uint32_t nv, uint32_t* out, int* bad);

#endif
