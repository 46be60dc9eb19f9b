// tsidx: one index directory of the engine, and the checked front over it.
//
// st_tsidx (layer 3) is one directory of immutable warm slices plus one hot
// slice in memory. Every operation walks the directory anew; the names of the
// slice files are the only catalogue. REAL_st_* (layer 2) is the front that
// checks arguments and copies the query before calling layer 3; the public
// st_* entry points (ipcver.h) call it directly or from a forked child.
//
// Ownership: st_tsidx_open / REAL_st_open_wflags return handles that the
// caller frees with the matching close. A handle serves one thread at a time;
// the engine holds no locks of its own and starts no threads.
// Results: >= 0 success, -1 with errno set on failure, unless stated.
#ifndef VELMOR_SEARCHTHING_TSIDX_H
#define VELMOR_SEARCHTHING_TSIDX_H

#include <stddef.h>
#include <stdint.h>

#include "searchthing/st_types.h"

struct st_hot_slice;
struct st_warm_slice;

// Starting size of each of the four hot slice sizes.
#define ST_DEFAULT_HOT_SIZE 16384

// Most answers (capacity + skip) one query may ask for.
#define ST_MAX_QUERY_ANSWERS (1u << 24)

// Open flags: 2 requires rwx access to the directory, 4 asks for a forked
// engine (honoured by st_open_wflags only). Writers pass 3, queries 5.
#define ST_OPEN_WRITE 2
#define ST_OPEN_FORK 4

typedef struct st_tsidx {
  char* path;                   // the directory, owned
  struct st_hot_slice* hot;     // null before the first put
  uint64_t pool_size;           // sizes for the next hot slice
  uint64_t max_terms;
  uint64_t max_postings;
  uint64_t max_values;
  uint64_t put_attempts;        // statistics, written and never read
  uint64_t failed_puts;
  uint64_t full_terms, full_values, full_postings, full_pool;
  int autotune;                 // 1 when autotuning is on
  uint64_t autotune_budget;     // bytes a hot slice may take when autotuning
  // Called before a hot slice holding values is written out (by a sync, or
  // by a put that finds a table full): the owner makes durable whatever the
  // slice's values point at. Non-zero keeps the hot slice as it is and fails
  // the sync. Null for none.
  int (*before_write)(void* ctx);
  void* before_write_ctx;
} st_tsidx;

// Callback of st_tsidx_apply: gets each open slice, newest first, and the
// caller's context. A negative result stops the walk and is returned.
typedef int (*st_tsidx_apply_fn)(struct st_warm_slice* slice, const char* slice_path, void* ctx);

// ---- query spec helpers ----
void st_query_init(st_query_spec* q);
// Deep copy into *dst (strdup / calloc); 0, or -1 with ENOMEM (dst then
// holds nothing to free).
int st_query_copy(st_query_spec* dst, const st_query_spec* src);
void st_query_free(st_query_spec* q);
// Sorts every list and drops duplicates (freeing them): keywords and
// prefixes by strcmp, suffixes by the compare from the last byte backwards.
// Only for copies made by st_query_copy.
void st_query_cleanup(st_query_spec* q);
int st_suffix_compare(const char* a, const char* b);

// ---- layer 3: one directory ----
// Slice name test: ends in ".tsidx" and reads "%d-%d-%ld.tsidx". Fills
// latest, earliest and id (any may be null). 1 if a slice name, else 0.
int st_tsidx_parse_name(const char* name, int32_t* latest, int32_t* earliest, long* id);

st_tsidx* st_tsidx_open(const char* path, int flags);
int st_tsidx_close(st_tsidx* t);  // syncs first
// Sizes of the next hot slice; the current one is written out first. -1 when
// its before-write hook refused (the slice and its sizes stay as they were).
int st_tsidx_options(st_tsidx* t, uint64_t pool, uint64_t terms, uint64_t postings, uint64_t values);
int st_tsidx_autotune(st_tsidx* t, uint64_t budget);
int st_tsidx_put(st_tsidx* t, const char* term, int32_t time, uint32_t address, uint32_t type,
                 uint32_t source, uint32_t source_type, uint32_t host);
// Puts each of n terms packed one after another, each NUL-terminated, with
// the same value, exactly as n calls of st_tsidx_put in that order would;
// faster, as it hints the cache ahead. 0, or -1 if any put failed.
int st_tsidx_put_terms(st_tsidx* t, const char* terms, size_t n, int32_t time, uint32_t address, uint32_t type,
                       uint32_t source, uint32_t source_type, uint32_t host);
// sync: 0 (also when nothing to write), -3 written by the descriptor road,
// -1 failed (the hot slice is reset either way). fd_mode forces that road.
int st_tsidx_sync(st_tsidx* t, int fd_mode);
int st_tsidx_apply(st_tsidx* t, st_tsidx_apply_fn fn, void* ctx);
int st_tsidx_query(st_tsidx* t, st_query_spec* q, st_tsval* answers, uint32_t capacity, uint32_t skip);
int st_tsidx_get(st_tsidx* t, const char* term, int32_t start, int32_t end, st_tsval* answers,
                 uint32_t capacity, uint32_t skip);
int st_tsidx_delete(st_tsidx* t, const char* term, int32_t start, int32_t end, void* ctx,
                    st_delete_callback cb, const st_tsval* filter);
int st_tsidx_meta(st_tsidx* t, const char* term, st_meta_answer* result);
int st_tsidx_enum(st_tsidx* t, const char* prefix, int which, st_enum_answer* answers, uint32_t capacity);
int st_tsidx_is_optimized(st_tsidx* t);
// One merge of two slices: 0 merged, 1 nothing to merge, -1 failed.
int st_tsidx_optimize(st_tsidx* t, int force);

// Sums counts of neighbouring answers with equal terms in an array sorted by
// term; returns the new count.
uint32_t st_enum_gather(st_enum_answer* answers, uint32_t n);

// ---- layer 2: the checked front ----
typedef struct st_real_handle {
  char* path;    // strdup of the directory
  st_tsidx* idx;
} st_real_handle;

st_real_handle* REAL_st_open(const char* path);
st_real_handle* REAL_st_open_wflags(const char* path, int flags);
int32_t REAL_st_close(st_real_handle* h);
int32_t REAL_st_options(st_real_handle* h, uint32_t pool, uint32_t terms, uint32_t postings, uint32_t values);
int32_t REAL_st_autotune(st_real_handle* h, uint64_t budget);
int32_t REAL_st_put(st_real_handle* h, const char* term, int32_t time, uint32_t address, uint32_t type,
                    uint32_t source, uint32_t source_type, uint32_t host);
int32_t REAL_st_put_terms(st_real_handle* h, const char* terms, size_t n, int32_t time, uint32_t address,
                          uint32_t type, uint32_t source, uint32_t source_type, uint32_t host);
int32_t REAL_st_tokenize(st_real_handle* h, const char* text, int32_t time, uint32_t address,
                         uint32_t type, uint32_t source, uint32_t source_type, uint32_t host);
int32_t REAL_st_get(st_real_handle* h, const char* term, int32_t start, int32_t end, st_tsval* answers,
                    uint32_t capacity, uint32_t skip);
int32_t REAL_st_query(st_real_handle* h, const st_query_spec* q, st_tsval* answers, uint32_t capacity,
                      uint32_t skip);
int32_t REAL_st_delete(st_real_handle* h, const char* term, int32_t start, int32_t end, void* ctx,
                       st_delete_callback cb, const st_tsval* filter);
int32_t REAL_st_meta(st_real_handle* h, const char* term, st_meta_answer* result);
int32_t REAL_st_enum(st_real_handle* h, const char* prefix, int which, st_enum_answer* answers,
                     uint32_t capacity);
int32_t REAL_st_is_optimized(st_real_handle* h);
int32_t REAL_st_sync(st_real_handle* h);
int32_t REAL_st_set_before_write(st_real_handle* h, int (*fn)(void* ctx), void* ctx);
int32_t REAL_st_sync_fd(st_real_handle* h);
int32_t REAL_st_optimize(st_real_handle* h);
int32_t REAL_st_optimize_ex(st_real_handle* h, int force);
const char* REAL_st_version(void);

#endif
