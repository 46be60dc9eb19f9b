// Front-coded lexicon: creation, lookup, walks and merge, in memory or
// through a descriptor.
#include "searchthing/fclex.h"

#include <assert.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "searchthing/codes.h"

// Longest first-term record: a 2-byte length word and 2047 bytes of text.
#define FIRST_TERM_READ 2050

// ---------------------------------------------------------------------------
// Reading

static int pread_full(int fd, void* buf, size_t n, uint64_t off) {
  size_t done = 0;
  while (done < n) {
    ssize_t r = pread(fd, (char*)buf + done, n - done, (off_t)(off + done));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return -1;
    done += (size_t)r;
  }
  return 0;
}

// Positioned read that must return exactly n bytes; anything else is a broken
// invariant of the caller (the body was checked when it was opened).
static void pread_verify(const char* why, int fd, void* buf, size_t n, uint64_t off) {
  if (pread_full(fd, buf, n, off) != 0) {
    fprintf(stderr, "read failed[%s] fd=%u buf=%p sz=%lu off=%lu nr=%lu\n", why, (unsigned)fd, buf,
            (unsigned long)n, (unsigned long)off, 0ul);
    assert(0 && "_pread_verify failed");
    abort();
  }
}

static bool check_fd_support(const st_fclex_handle* h) {
  if (h->fd < 0) {
    assert(h->fclex_offset == ST_FCLEX_NO_OFFSET && !h->block_cache && h->block_cache_size == 0);
    return false;
  }
  assert(!h->block_offsets && !h->blocks && h->fclex_offset != ST_FCLEX_NO_OFFSET);
  return true;
}

static uint32_t how_many_blocks(uint32_t terms, uint32_t tperb) {
  assert(terms > 0 && "terms > 0");
  assert(tperb > 0 && "tperb > 0");
  return (uint32_t)(((uint64_t)terms + tperb - 1) / tperb);
}

static uint64_t area_offset(const st_fclex_handle* h) { return 12 + 4 * (uint64_t)h->nblocks; }

// End offset of block b within the block area.
static uint32_t block_end(const st_fclex_handle* h, uint32_t b) {
  if (!check_fd_support(h)) return st_get_be32(h->block_offsets + 4 * (size_t)b);
  unsigned char w[4];
  pread_verify("reading block offset", h->fd, w, 4, h->fclex_offset + 12 + 4 * (uint64_t)b);
  return st_get_be32(w);
}

static uint32_t block_start(const st_fclex_handle* h, uint32_t b) { return b == 0 ? 0 : block_end(h, b - 1); }

// Walks the terms of one block, rebuilding each in `term`.
typedef struct block_iter {
  const unsigned char* p;
  uint32_t len, pos;
  uint32_t j, tpb;
  uint32_t tlen;
  char term[ST_MAX_TERM_LEN + 1];
} block_iter;

static void iter_begin(block_iter* it, const unsigned char* p, uint32_t len, uint32_t tpb) {
  it->p = p;
  it->len = len;
  it->pos = 0;
  it->j = 0;
  it->tpb = tpb;
  it->tlen = 0;
  it->term[0] = 0;
}

// 1 with the next term in it->term, 0 at the block end, -1 if malformed.
static int iter_next(block_iter* it) {
  if (it->j >= it->tpb || it->pos >= it->len) return 0;
  uint32_t avail = it->len - it->pos;
  const unsigned char* s = it->p + it->pos;
  uint32_t shared = 0, suffix = 0;
  int n;
  if (it->j == 0) {
    n = st_decode_from_vbe_quick(&suffix, s, avail);
    if (!n) return -1;
  } else {
    n = st_decode_from_vbe_quick(&shared, s, avail);
    if (!n || shared > it->tlen) return -1;
    if (it->j == it->tpb - 1) {
      suffix = avail - (uint32_t)n;
    } else {
      int m = st_decode_from_vbe_quick(&suffix, s + n, avail - (uint32_t)n);
      if (!m) return -1;
      n += m;
    }
  }
  if ((uint64_t)suffix > avail - (uint32_t)n || (uint64_t)shared + suffix > ST_MAX_TERM_LEN) return -1;
  // A NUL inside a term is malformed. Suffixes are short: a byte loop that
  // checks as it copies beats a copy and a scan.
  const unsigned char* from = s + n;
  char* to = it->term + shared;
  for (uint32_t k = 0; k < suffix; ++k) {
    if (from[k] == 0) return -1;
    to[k] = (char)from[k];
  }
  it->tlen = shared + suffix;
  it->term[it->tlen] = 0;
  it->pos += (uint32_t)n + suffix;
  it->j++;
  return 1;
}

// Loads block b: in memory mode points into the body, in descriptor mode
// reads it whole into the block cache. 0, or -1 if the block is malformed.
// A descriptor-mode handle trusts no offset between the first and the last:
// each block must lie within the area whose end was checked at open.
static int load_block(st_fclex_handle* h, uint32_t b, const unsigned char** p, uint32_t* len) {
  uint32_t s = block_start(h, b), e = block_end(h, b);
  if (e < s) return -1;
  *len = e - s;
  if (!check_fd_support(h)) {
    *p = h->blocks + s;
    return 0;
  }
  if (*len > h->block_cache_size || e > h->area_size) return -1;
  pread_verify("reading in block from offsets", h->fd, h->block_cache, *len, h->fclex_offset + area_offset(h) + s);
  *p = h->block_cache;
  return 0;
}

// Compare of a search term with a stored one: a stored term of the full
// 2047 bytes matches any longer search term that starts with it.
static int term_cmp(const char* search, const char* stored, uint32_t stored_len) {
  if (stored_len == ST_MAX_TERM_LEN && strnlen(search, ST_MAX_TERM_LEN + 1) > ST_MAX_TERM_LEN)
    return strncmp(search, stored, ST_MAX_TERM_LEN);
  return strcmp(search, stored);
}

// First term of block b into buf (NUL-terminated); returns its length, or -1.
static int first_term(st_fclex_handle* h, uint32_t b, char* buf) {
  uint32_t s = block_start(h, b);
  unsigned char raw[FIRST_TERM_READ];
  const unsigned char* p;
  size_t avail;
  if (!check_fd_support(h)) {
    uint32_t e = block_end(h, b);
    if (e < s) return -1;
    p = h->blocks + s;
    avail = e - s;
  } else {
    if (s >= h->area_size) return -1;
    size_t want = h->area_size - s < sizeof raw ? h->area_size - s : sizeof raw;
    ssize_t r;
    do {
      r = pread(h->fd, raw, want, (off_t)(h->fclex_offset + area_offset(h) + s));
    } while (r < 0 && errno == EINTR);
    if (r < 1) return -1;
    p = raw;
    avail = (size_t)r;
  }
  uint32_t len;
  int n = st_decode_from_vbe_safe(&len, p, avail);
  if (!n || len > ST_MAX_TERM_LEN || len > avail - (size_t)n) return -1;
  memcpy(buf, p + n, len);
  buf[len] = 0;
  return (int)len;
}

// Block whose first term is the greatest at or below term.
static uint32_t find_block(st_fclex_handle* h, const char* term) {
  if (!term || !*term) return 0;
  uint32_t lo = 0, hi = h->nblocks - 1;
  char ft[ST_MAX_TERM_LEN + 1];
  for (;;) {
    if (lo == hi) return hi;
    for (;;) {
      uint32_t mid = (lo + 1 == hi) ? hi : lo + (hi - lo) / 2;
      int len = first_term(h, mid, ft);
      int c = len < 0 ? -1 : term_cmp(term, ft, (uint32_t)len);
      if (lo + 1 == hi) return c < 0 ? lo : hi;
      if (c > 0) {
        lo = mid;
        continue;
      }
      if (c < 0) {
        hi = mid;
        break;
      }
      return mid;
    }
  }
}

// ---------------------------------------------------------------------------
// Writing

// Writer state shared by creation and merge.
typedef struct lex_writer {
  unsigned char* offsets;  // block_offsets entries
  unsigned char* area;     // block area
  size_t area_cap;
  uint32_t tpb;
  uint32_t j;  // position in the current block
  uint64_t k;  // write position in the block area
  uint32_t l;  // blocks begun
  char prev[ST_MAX_TERM_LEN + 1];
  uint32_t prev_len;
} lex_writer;

static uint32_t shared_prefix(const char* a, uint32_t alen, const char* b, uint32_t blen) {
  uint32_t n = alen < blen ? alen : blen, i = 0;
  while (i < n && a[i] == b[i]) ++i;
  return i;
}

// Block of a lexicon, terms against their predecessor in the block:
//   PLACE IN BLOCK              BYTES
//   position 0                  vbe length; text (no terminator)
//   positions 1 .. tpb-2        vbe shared prefix; vbe suffix length; suffix
//   position tpb-1              vbe shared prefix; suffix up to the block end
static uint32_t vbe_len(uint32_t v) {
  uint32_t n = 1;
  while (v >= 0x80) {
    v >>= 7;
    ++n;
  }
  return n;
}

static void update_lex(lex_writer* w, const char* term, uint32_t len) {
  uint32_t sp = w->j != 0 ? shared_prefix(w->prev, w->prev_len, term, len) : 0;
  uint64_t need = w->j == 0 ? len + vbe_len(len)
                            : vbe_len(sp) + (len - sp) + (w->j < w->tpb - 1 ? vbe_len(len - sp) : 0);
  assert(w->k + need < w->area_cap && "k < body_size");
  (void)need;
  unsigned char* out = w->area;
  if (w->j == 0) {
    if (w->l != 0) st_put_be32(w->offsets + 4 * (size_t)(w->l - 1), (uint32_t)w->k);
    w->l++;
    w->k += (uint64_t)st_encode_to_vbe_quick(out + w->k, len);
    memcpy(out + w->k, term, len);
    w->k += len;
    w->j = 1;
  } else {
    w->k += (uint64_t)st_encode_to_vbe_quick(out + w->k, sp);
    if (w->j < w->tpb - 1) {
      w->k += (uint64_t)st_encode_to_vbe_quick(out + w->k, len - sp);
      w->j++;
    } else {
      w->j = 0;
    }
    memcpy(out + w->k, term + sp, len - sp);
    w->k += len - sp;
  }
  // Only the part after the shared prefix differs from the previous term.
  memcpy(w->prev + sp, term + sp, len - sp);
  w->prev[len] = 0;
  w->prev_len = len;
}

static st_fclex_handle* new_memory_handle(unsigned char* body) {
  st_fclex_handle* h = (st_fclex_handle*)calloc(1, sizeof *h);
  if (!h) return NULL;
  h->fd = -1;
  h->fclex_offset = ST_FCLEX_NO_OFFSET;
  h->body = body;
  h->num_terms = st_get_be32(body);
  h->terms_per_block = st_get_be32(body + 4);
  h->uncompressed_size = st_get_be32(body + 8);
  h->nblocks = how_many_blocks(h->num_terms, h->terms_per_block);
  h->block_offsets = body + 12;
  h->blocks = body + 12 + 4 * (size_t)h->nblocks;
  return h;
}

static void writer_begin(lex_writer* w, unsigned char* body, size_t body_size, uint32_t nblocks, uint32_t tpb) {
  memset(w, 0, sizeof *w);
  w->offsets = body + 12;
  size_t head = 12 + 4 * (size_t)nblocks;
  assert(head < body_size && "k < body_size");
  w->area = body + head;
  w->area_cap = body_size - head;
  w->tpb = tpb;
}

st_fclex_handle* st_fclex_create(unsigned char* body, size_t body_size, const char* const* terms, uint32_t n,
                                 uint32_t terms_per_block, uint32_t uncompressed_size) {
  assert(body && terms && n > 0 && terms_per_block >= 2);
  for (uint32_t i = 1; i < n; ++i) assert(strcmp(terms[i - 1], terms[i]) < 0 && "_uniqsort");
  uint32_t nblocks = how_many_blocks(n, terms_per_block);
  st_put_be32(body, n);
  st_put_be32(body + 4, terms_per_block);
  st_put_be32(body + 8, uncompressed_size);
  lex_writer* w = (lex_writer*)malloc(sizeof *w);
  if (!w) return NULL;
  writer_begin(w, body, body_size, nblocks, terms_per_block);
  for (uint32_t i = 0; i < n; ++i) update_lex(w, terms[i], (uint32_t)strnlen(terms[i], ST_MAX_TERM_LEN));
  assert(w->k < w->area_cap && "k < body_size");
  st_put_be32(w->offsets + 4 * (size_t)(nblocks - 1), (uint32_t)w->k);
  free(w);
  return new_memory_handle(body);
}

// ---------------------------------------------------------------------------
// Opening and checking

st_fclex_handle* st_fclex_open(unsigned char* body) {
  assert(body);
  return new_memory_handle(body);
}

st_fclex_handle* st_fclex_open_fd(int fd, uint64_t offset) {
  unsigned char head[16];
  if (pread_full(fd, head, 12, offset) != 0) return NULL;
  uint32_t terms = st_get_be32(head), tpb = st_get_be32(head + 4);
  if (!terms || !tpb) return NULL;
  if (pread_full(fd, head + 12, 4, offset + 12) != 0) return NULL;
  st_fclex_handle* h = (st_fclex_handle*)calloc(1, sizeof *h);
  assert(h && "out of memory for handle in st_fclex_open_fd");
  h->body = (unsigned char*)malloc(16);
  assert(h->body && "out of memory in st_fclex_open_fd");
  memcpy(h->body, head, 16);
  h->fd = fd;
  h->fclex_offset = offset;
  h->num_terms = terms;
  h->terms_per_block = tpb;
  h->uncompressed_size = st_get_be32(head + 8);
  h->nblocks = how_many_blocks(terms, tpb);
  unsigned char last[4];
  if (pread_full(fd, last, 4, offset + 12 + 4 * (uint64_t)(h->nblocks - 1)) != 0) {
    free(h->body);
    free(h);
    return NULL;
  }
  h->area_size = st_get_be32(last);
  uint64_t cache = (uint64_t)tpb * ST_FCLEX_ANSWER_SIZE;
  if (cache > 0x7FFFFFFFu) {
    free(h->body);
    free(h);
    return NULL;
  }
  h->block_cache_size = (uint32_t)cache;
  h->block_cache = (unsigned char*)calloc(1, h->block_cache_size);
  assert(h->block_cache && "out of memory in st_fclex_open_fd");
  return h;
}

void st_fclex_close(st_fclex_handle* h) {
  if (!h) return;
  if (check_fd_support(h)) {
    free(h->body);
    free(h->block_cache);
  }
  memset(h, 0, sizeof *h);
  free(h);
}

// Header and block offsets sound: counts non-zero, offsets ascending, each
// block at most one cache load long, the whole body within avail.
static int check_header(uint32_t terms, uint32_t tpb, uint32_t usize, uint64_t avail, uint32_t* nblocks) {
  if (!terms || !tpb || !usize || tpb == 1) return -1;
  *nblocks = how_many_blocks(terms, tpb);
  if (12 + 4 * (uint64_t)*nblocks > avail) return -1;
  return 0;
}

static int check_offsets(const unsigned char* offs, uint32_t nblocks, uint32_t tpb, uint64_t avail) {
  uint32_t prev = 0;
  uint64_t cap = (uint64_t)tpb * ST_FCLEX_ANSWER_SIZE;
  for (uint32_t b = 0; b < nblocks; ++b) {
    uint32_t e = st_get_be32(offs + 4 * (size_t)b);
    if (e <= prev) return -1;
    if (e - prev > cap) return -1;
    prev = e;
  }
  return 12 + 4 * (uint64_t)nblocks + prev <= avail ? 0 : -1;
}

int st_fclex_check(const unsigned char* body, uint64_t avail) {
  if (!body || avail < 16) return -1;
  uint32_t nblocks;
  if (check_header(st_get_be32(body), st_get_be32(body + 4), st_get_be32(body + 8), avail, &nblocks)) return -1;
  return check_offsets(body + 12, nblocks, st_get_be32(body + 4), avail);
}

int st_fclex_check_fd(int fd, uint64_t offset, uint64_t avail) {
  unsigned char head[12];
  if (avail < 16 || pread_full(fd, head, 12, offset) != 0) return -1;
  uint32_t nblocks, tpb = st_get_be32(head + 4);
  if (check_header(st_get_be32(head), tpb, st_get_be32(head + 8), avail, &nblocks)) return -1;
  unsigned char* offs = (unsigned char*)malloc(4 * (size_t)nblocks);
  if (!offs) return -1;
  int rc = pread_full(fd, offs, 4 * (size_t)nblocks, offset + 12) == 0 ? check_offsets(offs, nblocks, tpb, avail) : -1;
  free(offs);
  return rc;
}

int st_fclex_check_head_fd(int fd, uint64_t offset, uint64_t avail) {
  unsigned char head[12], last[4];
  if (avail < 16 || pread_full(fd, head, 12, offset) != 0) return -1;
  uint32_t nblocks;
  if (check_header(st_get_be32(head), st_get_be32(head + 4), st_get_be32(head + 8), avail, &nblocks)) return -1;
  if (pread_full(fd, last, 4, offset + 12 + 4 * (uint64_t)(nblocks - 1)) != 0) return -1;
  uint32_t end = st_get_be32(last);
  return end > 0 && 12 + 4 * (uint64_t)nblocks + end <= avail ? 0 : -1;
}

// ---------------------------------------------------------------------------
// Queries

uint32_t st_fclex_get(st_fclex_handle* h, const char* term) {
  if (!h || !term) return ST_FCLEX_NONE;
  uint32_t b = find_block(h, term);
  uint64_t left = (uint64_t)h->num_terms - (uint64_t)b * h->terms_per_block;
  const unsigned char* p;
  uint32_t len;
  if (load_block(h, b, &p, &len) != 0) return ST_FCLEX_NONE;
  block_iter it;
  iter_begin(&it, p, len, h->terms_per_block);
  for (uint32_t pos = 0; pos < left && pos < h->terms_per_block; ++pos) {
    if (iter_next(&it) != 1) return ST_FCLEX_NONE;
    int c = term_cmp(term, it.term, it.tlen);
    if (c == 0) return b * h->terms_per_block + pos;
    if (c < 0) return ST_FCLEX_NONE;
  }
  return ST_FCLEX_NONE;
}

uint32_t st_fclex_terms(const st_fclex_handle* h) { return h->num_terms; }

uint32_t st_fclex_prefix_terms(st_fclex_handle* h, const char* prefix) {
  if (!prefix || !*prefix) return h->num_terms;
  char copy[ST_MAX_TERM_LEN + 2];
  size_t n = strnlen(prefix, ST_MAX_TERM_LEN + 1);
  memcpy(copy, prefix, n);
  copy[n] = 0;
  copy[n - 1] = (char)((unsigned char)copy[n - 1] + 1);
  uint32_t b1 = find_block(h, prefix), b2 = find_block(h, copy);
  assert(b2 >= b1);
  return (b2 - b1 + 1) * h->terms_per_block;
}

int st_fclex_apply(st_fclex_handle* h, const char* prefix, st_fclex_callback cb, void* ctx) {
  assert(h && cb);
  size_t m = prefix ? strlen(prefix) : 0;
  uint32_t b = prefix ? find_block(h, prefix) : 0;
  uint32_t id = b * h->terms_per_block;
  int total = 0;
  block_iter it;
  while (id < h->num_terms) {
    const unsigned char* p;
    uint32_t len;
    if (load_block(h, b, &p, &len) != 0) return total;
    iter_begin(&it, p, len, h->terms_per_block);
    for (uint32_t pos = 0; pos < h->terms_per_block && id < h->num_terms; ++pos, ++id) {
      if (iter_next(&it) != 1) return total;
      if (prefix) {
        int c = strncmp(it.term, prefix, m);
        if (c < 0) continue;
        if (c > 0) return total;
      }
      int r = cb(id, it.term, it.tlen, ctx);
      if (r == -1) return -1;
      total += r;
    }
    ++b;
  }
  return total;
}

typedef struct enum_ctx {
  st_enum_answer* answers;
  uint32_t capacity, filled;
} enum_ctx;

static int enum_cb(uint32_t id, const char* term, uint32_t len, void* vctx) {
  enum_ctx* c = (enum_ctx*)vctx;
  if (c->filled >= c->capacity) return -1;
  st_enum_answer* a = &c->answers[c->filled++];
  memcpy(a->term, term, len);
  a->term[len] = 0;
  a->value = id;
  return c->filled >= c->capacity ? -1 : 1;
}

uint32_t st_fclex_enum(st_fclex_handle* h, const char* prefix, st_enum_answer* answers, uint32_t capacity) {
  if (!capacity) return 0;
  enum_ctx c = {answers, capacity, 0};
  st_fclex_apply(h, prefix, enum_cb, &c);
  return c.filled;
}

uint32_t st_fclex_dump_block(char** dest, st_fclex_handle* h, uint32_t block) {
  assert(!check_fd_support(h));
  if (block >= h->nblocks) return 0;
  const unsigned char* p;
  uint32_t len, n = 0;
  if (load_block(h, block, &p, &len) != 0) return 0;
  block_iter it;
  iter_begin(&it, p, len, h->terms_per_block);
  uint64_t left = (uint64_t)h->num_terms - (uint64_t)block * h->terms_per_block;
  while (n < left && iter_next(&it) == 1) memcpy(dest[n++], it.term, it.tlen + 1);
  return n;
}

uint32_t st_fclex_how_many_blocks(const st_fclex_handle* h) { return h->nblocks; }

uint64_t st_fclex_size(const st_fclex_handle* h) {
  return area_offset(h) + block_end(h, h->nblocks - 1);
}

uint64_t st_fclex_size_fd(int fd, uint64_t offset) {
  unsigned char head[12], w[4];
  if (pread_full(fd, head, 12, offset) != 0) return 0;
  uint32_t terms = st_get_be32(head), tpb = st_get_be32(head + 4);
  if (!terms || !tpb) return 0;
  uint32_t nblocks = how_many_blocks(terms, tpb);
  if (pread_full(fd, w, 4, offset + 12 + 4 * (uint64_t)(nblocks - 1)) != 0) return 0;
  return 12 + 4 * (uint64_t)nblocks + st_get_be32(w);
}

uint32_t st_fclex_blocksize(const st_fclex_handle* h) { return h->terms_per_block; }

uint32_t st_fclex_uncompressed_size(const st_fclex_handle* h) { return h->uncompressed_size; }

void st_fclex_relocate(st_fclex_handle* h, unsigned char* new_body) {
  assert(!check_fd_support(h));
  memmove(new_body, h->body, st_fclex_size(h));
  h->body = new_body;
  h->block_offsets = new_body + 12;
  h->blocks = new_body + area_offset(h);
}

// ---------------------------------------------------------------------------
// Merge

// Sequential reader of all terms of a lexicon, across blocks.
typedef struct term_stream {
  st_fclex_handle* h;
  uint32_t b, id;
  uint32_t block_end;  // id at which the next block begins
  block_iter it;
  int ok;  // 1 while it->term holds the current term
} term_stream;

static void stream_next(term_stream* s) {
  if (s->id >= s->h->num_terms) {
    s->ok = 0;
    return;
  }
  if (s->id == s->block_end) {  // id % terms_per_block == 0, without dividing
    s->b = s->id / s->h->terms_per_block;
    s->block_end = s->id + s->h->terms_per_block;
    const unsigned char* p;
    uint32_t len;
    if (load_block(s->h, s->b, &p, &len) != 0) {
      s->ok = 0;
      return;
    }
    iter_begin(&s->it, p, len, s->h->terms_per_block);
  }
  s->ok = iter_next(&s->it) == 1;
  s->id++;
}

st_fclex_handle* st_fclex_merge(unsigned char* body, size_t body_size, uint32_t terms_per_block,
                                unsigned char* map, st_fclex_handle* a, st_fclex_handle* b) {
  assert(body && map && a && b && terms_per_block >= 2);
  uint32_t prov_terms = a->num_terms + b->num_terms;
  uint32_t prov_blocks = how_many_blocks(prov_terms, terms_per_block);
  st_put_be32(body, prov_terms);
  st_put_be32(body + 4, terms_per_block);
  st_put_be32(body + 8, a->uncompressed_size != 0 ? 2 * a->uncompressed_size : 1);
  lex_writer* w = (lex_writer*)malloc(sizeof *w);
  term_stream* s1 = (term_stream*)malloc(sizeof *s1);
  term_stream* s2 = (term_stream*)malloc(sizeof *s2);
  if (!w || !s1 || !s2) {
    free(w);
    free(s1);
    free(s2);
    return NULL;
  }
  writer_begin(w, body, body_size, prov_blocks, terms_per_block);
  s1->h = a;
  s1->id = s1->block_end = 0;
  s2->h = b;
  s2->id = s2->block_end = 0;
  stream_next(s1);
  stream_next(s2);
  uint32_t out = 0;
  uint64_t total = 0;
  while (s1->ok || s2->ok) {
    int c = !s1->ok ? 1 : !s2->ok ? -1 : strcmp(s1->it.term, s2->it.term);
    term_stream* src = c <= 0 ? s1 : s2;
    map[out++] = (unsigned char)(c == 0 ? 0 : c < 0 ? 1 : 2);
    update_lex(w, src->it.term, src->it.tlen);
    total += src->it.tlen + 1;
    if (c <= 0) stream_next(s1);
    if (c >= 0) stream_next(s2);
  }
  uint32_t nblocks = how_many_blocks(out, terms_per_block);
  assert(w->l == nblocks);
  st_put_be32(body, out);
  st_put_be32(body + 8, (uint32_t)total);
  st_put_be32(w->offsets + 4 * (size_t)(nblocks - 1), (uint32_t)w->k);
  memmove(body + 12 + 4 * (size_t)nblocks, w->area, w->k);
  free(w);
  free(s1);
  free(s2);
  return new_memory_handle(body);
}

uint64_t st_fclex_merge_size_estimate(const st_fclex_handle* a, const st_fclex_handle* b) {
  return (uint64_t)a->uncompressed_size + b->uncompressed_size + 8 * ((uint64_t)a->num_terms + b->num_terms) + 12;
}
