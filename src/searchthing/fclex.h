// Front-coded lexicon: a sorted, block-compressed term table that maps a term
// to its dense id (0 for the first term in strcmp order) and back.
//
// A handle works in one of two modes. Memory mode reads a body that lies in
// memory (a mapping or a buffer) which the handle borrows: the body must
// outlive the handle. Descriptor mode reads a body from a file with pread and
// keeps one block in a private cache; the descriptor belongs to the caller.
// A handle is used by one thread at a time (the block cache is shared state).
//
// Body layout (all words big-endian):
//   0   4          num_terms (never 0)
//   4   4          terms_per_block (never 0)
//   8   4          uncompressed_size (never 0)
//   12  4*nblocks  block_offsets: end of each block, from the block area start
//   ..  ..         blocks, back to back
// See fclex.cc for the block format.
#ifndef VELMOR_SEARCHTHING_FCLEX_H
#define VELMOR_SEARCHTHING_FCLEX_H

#include <stddef.h>
#include <stdint.h>

#include "searchthing/st_types.h"

#define ST_FCLEX_NONE 0xFFFFFFFFu
#define ST_FCLEX_NO_OFFSET 0xFFFFFFFFFFFFFFFFull
// Bytes of block cache per term of a block in descriptor mode.
#define ST_FCLEX_ANSWER_SIZE 2052

typedef struct st_fclex_handle {
  unsigned char* body;              // memory: the body; descriptor: private 16-byte header copy
  const unsigned char* block_offsets;  // null in descriptor mode
  const unsigned char* blocks;      // null in descriptor mode
  int32_t fd;                       // -1 in memory mode
  uint64_t fclex_offset;            // ST_FCLEX_NO_OFFSET in memory mode
  unsigned char* block_cache;       // descriptor mode only
  uint32_t block_cache_size;        // 0 in memory mode
  // Header words, decoded once.
  uint32_t num_terms;
  uint32_t terms_per_block;
  uint32_t uncompressed_size;
  uint32_t nblocks;
  uint32_t area_size;               // descriptor mode: end of the last block, the bound of every block
} st_fclex_handle;

// Called by st_fclex_apply for each term walked; returns a count added to the
// total, or -1 to stop the walk (the apply then returns -1).
typedef int (*st_fclex_callback)(uint32_t id, const char* term, uint32_t len, void* ctx);

// Builds a body in `body` from `n` strictly ascending terms and returns a
// memory-mode handle over it, or null if the handle can't be allocated.
// REQUIRES: n > 0, terms strictly ascending, 2 <= terms_per_block,
// body_size large enough (asserted: "k < body_size").
st_fclex_handle* st_fclex_create(unsigned char* body, size_t body_size, const char* const* terms,
                                 uint32_t n, uint32_t terms_per_block, uint32_t uncompressed_size);
// Memory-mode handle over an existing body, or null.
st_fclex_handle* st_fclex_open(unsigned char* body);
// Descriptor-mode handle over the body at `offset` of `fd`, or null when the
// header can't be read.
st_fclex_handle* st_fclex_open_fd(int fd, uint64_t offset);
void st_fclex_close(st_fclex_handle* h);

// Structural check of a body from untrusted storage, before a handle is
// opened on it: header words non-zero, block offsets ascending, and the whole
// body within `avail` bytes. 0 if sound, -1 if not. The descriptor form reads
// the header and offsets with pread.
int st_fclex_check(const unsigned char* body, uint64_t avail);
int st_fclex_check_fd(int fd, uint64_t offset, uint64_t avail);
// The cheap form for the query path: header words and the end of the last
// block only (three preads, whatever the term count). Offsets of the blocks
// between are checked as each block is read, by the descriptor-mode handle.
int st_fclex_check_head_fd(int fd, uint64_t offset, uint64_t avail);

// Term id, or ST_FCLEX_NONE when absent or term is null.
uint32_t st_fclex_get(st_fclex_handle* h, const char* term);
uint32_t st_fclex_terms(const st_fclex_handle* h);
// Upper estimate, in whole blocks, of the terms starting with prefix.
uint32_t st_fclex_prefix_terms(st_fclex_handle* h, const char* prefix);
// Walks the terms starting with prefix (all terms for null), in order.
int st_fclex_apply(st_fclex_handle* h, const char* prefix, st_fclex_callback cb, void* ctx);
// Fills up to capacity answers (term and id) for the prefix; returns how many.
uint32_t st_fclex_enum(st_fclex_handle* h, const char* prefix, st_enum_answer* answers, uint32_t capacity);
// Copies the terms of block `block` into dest[0..] (each needs 2048 bytes);
// returns how many, 0 for a block out of range. Memory mode only.
uint32_t st_fclex_dump_block(char** dest, st_fclex_handle* h, uint32_t block);
uint32_t st_fclex_how_many_blocks(const st_fclex_handle* h);
uint64_t st_fclex_size(const st_fclex_handle* h);
// Total size of a body in a file; 0 on a failed read.
uint64_t st_fclex_size_fd(int fd, uint64_t offset);
uint32_t st_fclex_blocksize(const st_fclex_handle* h);
uint32_t st_fclex_uncompressed_size(const st_fclex_handle* h);
// Copies the body to new_body and points the handle there. Memory mode.
void st_fclex_relocate(st_fclex_handle* h, unsigned char* new_body);
// Sorted union of two memory-mode lexicons into `body`; map[i] is 0 (term in
// both), 1 (first only) or 2 (second only) for output term i. Returns a
// memory-mode handle over body, or null if the handle can't be allocated.
// REQUIRES: body_size >= st_fclex_merge_size_estimate(a, b); map has room for
// the sum of both term counts.
st_fclex_handle* st_fclex_merge(unsigned char* body, size_t body_size, uint32_t terms_per_block,
                                unsigned char* map, st_fclex_handle* a, st_fclex_handle* b);
uint64_t st_fclex_merge_size_estimate(const st_fclex_handle* a, const st_fclex_handle* b);

#endif
