// Warm slice: one immutable file of the inverted index (the values of a
// flushed hot slice or of a merge, a forward and a reversed lexicon, posting
// lists), its two writers, its two ways of opening, and the evaluation of a
// query against it.
//
// A handle belongs to one thread at a time; any number of handles may read
// one file at once. The file changes after creation only in its deletion
// bits, through a handle opened for updating. Section offsets are computed
// from the header alone (st_warm_slice_layout); the byte table of the format
// stands above the writers in warmslice_write.cc.
#ifndef VELMOR_SEARCHTHING_WARMSLICE_H
#define VELMOR_SEARCHTHING_WARMSLICE_H

#include <stddef.h>
#include <stdint.h>

#include "searchthing/fclex.h"
#include "searchthing/hotslice.h"
#include "searchthing/st_types.h"

#define ST_WARM_HEADER_SIZE 64
#define ST_WARM_MAGIC "Velmor5"   // 8 bytes with its NUL
#define ST_WARM_NO_OFFSET 0xFFFFFFFFFFFFFFFFull
#define ST_PL_WINDOW 4096

// Attribute arrays in header order: event type, source, source type, host,
// deletion bits.
enum { ST_ATTR_ET = 0, ST_ATTR_S = 1, ST_ATTR_ST = 2, ST_ATTR_H = 3, ST_ATTR_D = 4, ST_NUM_ATTRS = 5 };

// Section offsets of a slice, computed from its header.
typedef struct st_warm_layout {
  uint32_t num_values, num_postings, num_terms;
  uint32_t attr_size[ST_NUM_ATTRS];
  uint32_t attr_bits[ST_NUM_ATTRS];
  int offsets_64;               // 0 only for the oldest accepted magic
  uint64_t values_off;
  uint64_t attr_off[ST_NUM_ATTRS];
  uint64_t pl_offsets_off;
  uint64_t metadata_off;
  uint64_t rf_map_off;
  uint64_t flex_off;            // = size of the fixed part
} st_warm_layout;

typedef struct st_warm_slice {
  int fd;                       // open file (kept for pread), -1 for none
  unsigned char* map;           // mapping of the file, or null
  size_t map_size;
  int for_updating;
  const unsigned char* body;    // header
  const unsigned char* values;
  unsigned char* attr[ST_NUM_ATTRS];  // et, s, st, h, d arrays
  const unsigned char* pl_offsets;
  const unsigned char* metadata;      // null in descriptor form
  uint64_t metadata_offset;           // ST_WARM_NO_OFFSET in mapped form
  unsigned char scratch[12];
  const unsigned char* rf_map;        // null in descriptor form
  uint64_t rf_map_offset;             // ST_WARM_NO_OFFSET in mapped form
  uint64_t postings_base;             // file offset of the postings section
  uint64_t postings_size;
  uint64_t file_size;
  uint64_t rlex_off;
  st_warm_layout lay;
  st_fclex_handle* flex;
  st_fclex_handle* rlex;
} st_warm_slice;

// What the descriptor writer returns: enough to name the file.
typedef struct st_warm_slice_fd_record {
  int32_t latest;
  int32_t earliest;
} st_warm_slice_fd_record;

// State of a walk through one posting list.
typedef struct st_pl_reader {
  st_warm_slice* ws;
  unsigned char window[ST_PL_WINDOW];
  uint64_t postings_base;
  uint64_t postings_size;
  uint64_t window_offset;       // offset of window[0] within the postings
  uint64_t pl_left;             // bytes left in the list
  uint32_t i, n;                // position and fill of the window
  uint32_t cur;                 // current value number
  uint32_t count;               // words read
  uint32_t run;                 // values left in a run
  int bad;                      // set when the list is found corrupt
} st_pl_reader;

// Computes section offsets from the 64-byte header. 0, or -1 for a bad magic
// or sizes that overflow.
int st_warm_slice_layout(const unsigned char* header, st_warm_layout* out);

// What a slice file spends its bytes on, section by section, in file order;
// alignment padding goes with the section before it, and the header with
// the values, so that the sections add up to the file size.
enum {
  ST_SECTION_VALUES,        // time and address, 8 bytes a value
  ST_SECTION_ATTRS,         // event type, source, source type, host, deletion bits
  ST_SECTION_PL_OFFSETS,    // 8 bytes a term (4 in the oldest format)
  ST_SECTION_METADATA,      // 12 bytes a term
  ST_SECTION_RF_MAP,        // 4 bytes a term
  ST_SECTION_FLEX,          // forward lexicon
  ST_SECTION_RLEX,          // reversed lexicon
  ST_SECTION_POSTINGS,
  ST_NUM_SECTIONS
};
typedef struct st_slice_sections {
  uint32_t num_values, num_terms, num_postings;  // num_postings: the header's statistic
  uint64_t bytes[ST_NUM_SECTIONS];
} st_slice_sections;
// Reads the header, the last posting list offset and the forward lexicon's
// size of the slice at path (nothing else). 0, or -1 with errno (EINVAL for
// a file that is not a whole slice).
int st_warm_slice_sections(const char* path, st_slice_sections* out);

// Writes the prepared hot slice as a file named by st_warm_slice_filename
// (name copied to fname), built in a mapping of the file itself; returns a
// handle on the written file.
st_warm_slice* st_warm_slice_create(st_hot_slice* hot, char* fname, size_t fname_size, const char* prefix,
                                    const char* suffix);
// Descriptor writer: returns a malloc'd record (caller frees), or null.
st_warm_slice_fd_record* st_warm_slice_create_by_fd(st_hot_slice* hot, char* fname, size_t fname_size,
                                                    const char* prefix, const char* suffix);
// Mapped open: for_updating 0 maps all but the postings read-only; 1 maps the
// whole file read-write (for deletion). Null on any failure.
st_warm_slice* st_warm_slice_open(const char* path, int for_updating);
// Descriptor open: maps only the fixed part; lexicons and postings by pread.
// This is the query form, and its checks cost the same for any size of slice
// (header, section sizes, lexicon headers, the end of the postings); a list or
// lexicon block found damaged later fails the query that reads it.
// REQUIRES: for_updating == 0.
st_warm_slice* st_warm_slice_open_fd(const char* path, int for_updating);
// Full walk for tools: every lexicon block offset, every list offset, and
// every list decoded to its end. 0 if sound, -1 if not.
int st_warm_slice_verify(st_warm_slice* ws);
int st_warm_slice_close(st_warm_slice* ws);
// "%s/%d-%d-%ld%d%s": prefix, latest, earliest, pid, process-wide counter,
// suffix. REQUIRES: prefix non-empty and not ending in '/'.
void st_warm_slice_filename(char* buf, size_t size, const char* prefix, const char* suffix,
                            const st_warm_slice* ws);
void st_warm_slice_fd_filename(char* buf, size_t size, const char* prefix, const char* suffix,
                               const st_warm_slice_fd_record* rec);

// Answers in st_tsval order; with capacity 0 the count of candidates less
// one. *skip (may be null) answers are passed over first. -1 out of memory,
// or with errno EBADMSG when a posting list the query read is corrupt.
int st_warm_slice_query(st_warm_slice* ws, const st_query_spec* spec, st_tsval* answers, uint32_t capacity,
                        uint32_t* skip);
// A query of one AND keyword (of none if term is null or empty).
int st_warm_slice_get(st_warm_slice* ws, const char* term, int32_t start, int32_t end, st_tsval* answers,
                      uint32_t capacity, uint32_t* skip);
// 0 with count, earliest, latest; 1 if the term isn't there.
int st_warm_slice_meta(st_warm_slice* ws, const char* term, uint32_t* count, int32_t* earliest,
                       int32_t* latest);
// which: 1 forward lexicon, 2 reversed (asserted). Each answer's number is the
// term's posting count.
int st_warm_slice_enum(st_warm_slice* ws, const char* prefix, int which, st_enum_answer* answers,
                       uint32_t capacity);
// Marks deleted every value of the term within [start, end] that passes the
// filter (non-zero source, source_type, host must equal); calls cb with each.
// REQUIRES: ws opened for updating. Returns the number marked.
int st_warm_slice_delete(st_warm_slice* ws, const char* term, int32_t start, int32_t end, void* ctx,
                         st_delete_callback cb, const st_tsval* filter);

uint64_t st_warm_slice_size(const st_warm_slice* ws);
uint32_t st_warm_slice_terms(const st_warm_slice* ws);
uint32_t st_warm_slice_values(const st_warm_slice* ws);
uint32_t st_warm_slice_blocksize(const st_warm_slice* ws);
int32_t st_warm_slice_latest(const st_warm_slice* ws);
int32_t st_warm_slice_earliest(const st_warm_slice* ws);
// Bytes of the list of a term id; bytes of all lists.
uint64_t st_warm_slice_pl_size(st_warm_slice* ws, uint32_t term_id);
uint64_t st_warm_slice_postings_size(const st_warm_slice* ws);
uint64_t size_without_vardata(const st_warm_slice* ws);

// Lower-level access, shared with the merge.
// End offset of term t's list (0 for t < 0). REQUIRES: t < num_terms.
uint64_t st_warm_slice_pl_offset(st_warm_slice* ws, int64_t t);
// count, earliest, latest of term t.
void st_warm_slice_get_metadata(st_warm_slice* ws, uint32_t t, uint32_t* count, int32_t* earliest,
                                int32_t* latest);
uint32_t st_warm_slice_rf_map_entry(st_warm_slice* ws, uint32_t r);
// Value number i: time and address from the value table, codes from the
// attribute arrays; source forced to ST_DELETED_SOURCE when deleted.
void st_warm_slice_decode_tsval(const st_warm_slice* ws, uint32_t i, st_tsval* out);
// Stores value i into a value table and attribute arrays (attr[] and bits[]
// as in st_warm_layout); a source of ST_DELETED_SOURCE sets the deletion bit.
// REQUIRES: values stored in ascending i.
void st_warm_slice_encode_tsval(unsigned char* values, unsigned char* const* attr, const uint32_t* bits,
                                uint32_t i, const st_tsval* v);
int st_warm_slice_is_deleted(const st_warm_slice* ws, uint32_t i);

void st_pl_reader_init(st_pl_reader* r, st_warm_slice* ws);
// Positions the reader at the start of term t's list.
void st_pl_reader_seek(st_pl_reader* r, uint32_t t);
// Next value number of the list, or -1 at its end (or when corrupt: r->bad).
int64_t st_pl_reader_next(st_pl_reader* r);

// Wildcard matcher: a pattern cut at each '*' into at most 256 parts.
void* createMatcher(const char* pattern);
void freeOpaqueMatcher(void* m);
int isMatch(void* m, const char* term);
// 4 single word, 3 parts remain, 0/1/2 no parts with hard end/start/both, -1.
int getMatcherType(void* m);
// The first piece (part 0) when the pattern doesn't begin with '*', else null.
const char* getHardStart(void* m);
// The last piece when the pattern doesn't end with '*', else null.
const char* getHardEnd(void* m);
// Piece i of the pattern, or null out of range.
const char* getWord(void* m, int i);
void debugOpaqueMatcher(void* m);

#endif
