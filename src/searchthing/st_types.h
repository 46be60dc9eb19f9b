// Shared types of the time-series index engine: the indexed value (st_tsval),
// the query of the engine (st_query_spec) and the fixed-size answer records
// that every layer passes around.
//
// Plain data only; whoever allocates a record owns it. All functions are
// reentrant and may be called from any thread.
//
// Defined in st_types.cc: the st_tsval order functions below.
// The st_query_spec helpers (st_query_init / copy / free / cleanup) belong to
// the tsidx front and are declared there.
#ifndef VELMOR_SEARCHTHING_ST_TYPES_H
#define VELMOR_SEARCHTHING_ST_TYPES_H

#include <stddef.h>
#include <stdint.h>

// Longest term the engine stores; longer terms are cut to this many bytes.
#define ST_MAX_TERM_LEN 2047
// A source code of all ones in an answer marks a deleted value.
#define ST_DELETED_SOURCE 0xFFFFFFFFu

// One indexed value, 24 bytes in native order. Ordered by time descending,
// then address descending.
typedef struct st_tsval {
  int32_t time;          // seconds since the epoch
  uint32_t address;      // identity of the value (where the event lies)
  uint32_t type;         // event type code
  uint32_t source;       // source code; ST_DELETED_SOURCE = deleted
  uint32_t source_type;  // source type code
  uint32_t host;         // host code
} st_tsval;

// One list of NUL-terminated strings of a query.
typedef struct st_strlist {
  char** strs;
  uint32_t count;
} st_strlist;

// A query of the engine: an inclusive time range and nine string lists.
// Keywords holding '*' are wildcards. Suffixes are given reversed (they are
// looked up as prefixes of the reversed lexicon).
typedef struct st_query_spec {
  int32_t start;  // earliest time, inclusive
  int32_t end;    // latest time, inclusive
  st_strlist and_keywords;
  st_strlist or_keywords;
  st_strlist not_keywords;
  st_strlist and_prefixes;
  st_strlist or_prefixes;
  st_strlist not_prefixes;
  st_strlist and_suffixes;
  st_strlist or_suffixes;
  st_strlist not_suffixes;
} st_query_spec;

// Enumeration answer: 2048 bytes of NUL-terminated term text and a number
// (a term id inside a lexicon, a posting count from a slice or an index).
typedef struct st_enum_answer {
  char term[2048];
  uint32_t value;
} st_enum_answer;

// Term metadata answer.
typedef struct st_meta_answer {
  int32_t count;
  int32_t earliest;
  int32_t latest;
} st_meta_answer;

// Called by slice deletion with each value it marks deleted, passed by value
// as it stood before the mark.
typedef void (*st_delete_callback)(void* ctx, st_tsval val);

// qsort-style compare of two st_tsval: time descending, then address
// descending. Returns <0, 0, >0.
int st_tsval_compare(const void* a, const void* b);
// The same order over two stored pairs (8 bytes each: big-endian signed time,
// big-endian address), as they stand in a slice's value table.
int st_ntsval_compare(const void* a, const void* b);
// Sorts an array of values, of pointers to values, and of pointers to stored
// big-endian pairs, in the order above.
void st_tsval_qsort(st_tsval* vals, size_t n);
void st_tsval_ptr_qsort(st_tsval** vals, size_t n);
void st_tsval_enc_ptr_qsort(const unsigned char** pairs, size_t n);
// Squeezes out neighbours of a sorted array that are equal in time and
// address, keeping the first of each run. Returns the new count.
size_t st_tsval_gather(st_tsval* vals, size_t n);

#endif
