// The merge of two warm slices into one.
//
// Output file, all integers big-endian, sections laid out from the header by
// st_warm_slice_layout (each section starts at the end of the previous one
// rounded down to 8, plus 8):
//   OFFSET          SIZE                    MEANING
//   0               8                       magic "Velmor5" and a NUL
//   8               4                       num_values (merged, pairs in both inputs once)
//   12              4                       number of postings (sum of list lengths)
//   16              4                       num_terms (merged forward lexicon)
//   20              20                      byte sizes of et, s, st, h, d arrays:
//                                           ((num_values >> 3) + 1) * bits
//   40              20                      bits of et, s, st, h (the larger of the
//                                           inputs'), and 1 for d
//   60              4                       reserved, 0
//   values_off      8 * num_values          time, address of each value, newest first
//   attr_off[0..4]  sizes above             packed code arrays and deletion bits
//   pl_offsets_off  8 * num_terms           end of each term's list in the postings
//   metadata_off    12 * num_terms          count (sum of the inputs'), earliest, latest
//   rf_map_off      4 * num_terms           forward id of each reversed term
//   flex_off        lexicon, padded to 4    forward lexicon, 64 terms per block
//   ...             lexicon                 reversed lexicon, 64 terms per block
//   ...             postings                per term: first value number, then
//                                           differences; a 0 byte and a word r
//                                           stand for r values each 1 above the last
// Everything before flex_off is built in memory and written at offset 0 last
// (its list offsets are known only once the postings are out); the lexicons
// and postings are appended with write() behind it.
#include "searchthing/warmslice_merge.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cassert>

#include "searchthing/codes.h"
#include "searchthing/extio.h"

// Postings go out in writes of about a megabyte: one write per list (most
// lists are a few bytes) made a merge of a million terms spend most of its
// time in the kernel. The bytes on disk are the same either way.
static const size_t kFlushAt = 1 << 20;

// A term found in both inputs whose lists hold at least one byte per this
// many output values is joined in a bitmap rather than by comparing lists.
static const uint64_t kDenseRatio = 32;

static int verbose_level() {
  const char* v = getenv("ST_VERBOSE");
  return v ? atoi(v) : 0;
}

static const unsigned char* value_pair(const st_warm_slice* ws, uint32_t i) { return ws->values + 8 * (size_t)i; }

// st_ntsval_compare, inline: newest first, then the higher address. Time is
// signed; flipping its sign bit orders it as unsigned.
static inline int compare_values(const unsigned char* x, const unsigned char* y) {
  uint64_t kx = ((uint64_t)(st_get_be32(x) ^ 0x80000000u) << 32) | st_get_be32(x + 4);
  uint64_t ky = ((uint64_t)(st_get_be32(y) ^ 0x80000000u) << 32) | st_get_be32(y + 4);
  return kx > ky ? -1 : kx < ky ? 1 : 0;
}

// Number of distinct (time, address) pairs over both value tables.
static uint32_t _merge_tsval_count(const st_warm_slice* a, const st_warm_slice* b) {
  uint32_t na = a->lay.num_values, nb = b->lay.num_values, i = 0, j = 0, n = 0;
  while (i < na && j < nb) {
    int c = compare_values(value_pair(a, i), value_pair(b, j));
    if (c <= 0) ++i;
    if (c >= 0) ++j;
    ++n;
  }
  return n + (na - i) + (nb - j);
}

// Stores value i of an input as value k of the output, as decoding it
// (st_warm_slice_decode_tsval: a deleted value's source reads as
// ST_DELETED_SOURCE) and encoding it (st_warm_slice_encode_tsval: that
// source sets the deletion bit) would. REQUIRES: k ascending.
static inline void copy_value(const st_warm_slice* in, uint32_t i, unsigned char* values,
                              unsigned char* const* attr, const uint32_t* bits, uint32_t k) {
  memcpy(values + 8 * (size_t)k, value_pair(in, i), 8);
  const uint32_t* ib = in->lay.attr_bits;
  unsigned char* const* ia = in->attr;
  uint32_t source = st_bits_get(ia[ST_ATTR_S], i, ib[ST_ATTR_S]);
  if (st_bits_get(ia[ST_ATTR_D], i, 1)) source = ST_DELETED_SOURCE;
  st_bits_put(attr[ST_ATTR_ET], k, bits[ST_ATTR_ET], st_bits_get(ia[ST_ATTR_ET], i, ib[ST_ATTR_ET]));
  st_bits_put(attr[ST_ATTR_S], k, bits[ST_ATTR_S], source);
  st_bits_put(attr[ST_ATTR_ST], k, bits[ST_ATTR_ST], st_bits_get(ia[ST_ATTR_ST], i, ib[ST_ATTR_ST]));
  st_bits_put(attr[ST_ATTR_H], k, bits[ST_ATTR_H], st_bits_get(ia[ST_ATTR_H], i, ib[ST_ATTR_H]));
  st_bits_put(attr[ST_ATTR_D], k, 1, source == ST_DELETED_SOURCE ? 1 : 0);
}

// Metadata row t of a mapped input (the inputs of a merge are), read in
// place.
static inline void get_metadata(const st_warm_slice* ws, uint32_t t, uint32_t* count, int32_t* earliest,
                                int32_t* latest) {
  const unsigned char* r = ws->metadata + 12 * (size_t)t;
  *count = st_get_be32(r);
  *earliest = (int32_t)st_get_be32(r + 4);
  *latest = (int32_t)st_get_be32(r + 8);
}

// Entry r of an input's rf_map; an entry beyond the input's terms (a
// damaged slice) reads as 0 rather than sending the merge outside its
// tables.
static inline uint32_t rf_map_entry(const st_warm_slice* ws, uint32_t r) {
  uint32_t fwd = st_get_be32(ws->rf_map + 4 * (size_t)r);
  return fwd < ws->lay.num_terms ? fwd : 0;
}

// Largest difference between neighbouring times of the value table.
static uint32_t _max_event_time_gap(const st_warm_slice* ws) {
  uint32_t gap = 0;
  for (uint32_t i = 1; i < ws->lay.num_values; ++i) {
    int64_t d = (int64_t)(int32_t)st_get_be32(value_pair(ws, i - 1)) - (int32_t)st_get_be32(value_pair(ws, i));
    if (d < 0) d = -d;
    if ((uint64_t)d > gap) gap = (uint32_t)d;
  }
  return gap;
}

static inline unsigned char* put_vbe(unsigned char* d, uint32_t v) {
  while (v >= 0x80) {
    *d++ = (unsigned char)((v & 0x7F) | 0x80);
    v >>= 7;
  }
  *d++ = (unsigned char)v;
  return d;
}

size_t st_merge_encode_list(const uint32_t* values, uint32_t n, unsigned char* buf) {
  if (n == 0) return 0;
  unsigned char* d = put_vbe(buf, values[0]);
  uint32_t k = 1;
  while (k < n) {
    if (values[k] == values[k - 1] + 1) {
      uint32_t from = k;
      while (k < n && values[k] == values[k - 1] + 1) ++k;
      *d++ = 0;
      d = put_vbe(d, k - from);
      if (k == n) break;
    }
    assert(values[k] > values[k - 1] && "count == 0 || cur_value > dest_value");
    d = put_vbe(d, values[k] - values[k - 1]);
    ++k;
  }
  return (size_t)(d - buf);
}

// st_decode_from_vbe_safe, with the bounds tests only near the end.
static inline int get_vbe(uint32_t* word, const unsigned char* p, size_t len) {
  if (len < 5) return st_decode_from_vbe_safe(word, p, len);
  uint32_t v = p[0] & 0x7F;
  if (!(p[0] & 0x80)) {
    *word = v;
    return 1;
  }
  v |= (uint32_t)(p[1] & 0x7F) << 7;
  if (!(p[1] & 0x80)) {
    *word = v;
    return 2;
  }
  v |= (uint32_t)(p[2] & 0x7F) << 14;
  if (!(p[2] & 0x80)) {
    *word = v;
    return 3;
  }
  v |= (uint32_t)(p[3] & 0x7F) << 21;
  if (!(p[3] & 0x80)) {
    *word = v;
    return 4;
  }
  if (p[4] & 0xF0) return 0;  // more than 32 bits, or a continuation flag
  *word = v | (uint32_t)p[4] << 28;
  return 5;
}

// Where decoded values go: an array in list order, or bits of a bitmap over
// the output's value numbers (which joins two lists and folds a value in
// both for free).
struct array_sink {
  uint32_t* out;
  void put(uint32_t n, uint32_t v) { out[n] = v; }
};
struct bitmap_sink {
  uint64_t* bits;
  void put(uint32_t, uint32_t v) { bits[v >> 6] |= (uint64_t)1 << (v & 63); }
};

// The list reader's rules, over a whole list in memory: stop at the first
// bad word (cut off, a 0 difference, a 0 run, a value at or above nv) with
// the values before it kept. Each value v goes out as vmap[v], or as itself
// without a map. Returns the number of values.
template <bool kMapped, class Sink>
static inline uint32_t decode_list(const unsigned char* p, size_t len, uint32_t nv, const uint32_t* vmap, Sink out,
                                   int* bad) {
  const unsigned char* end = p + len;
  uint32_t n = 0, cur, word;
  *bad = 1;
  if (len == 0) {
    *bad = 0;
    return 0;
  }
  // The first word is the first value itself (0 included).
  int used = get_vbe(&word, p, len);
  if (!used || word >= nv) return 0;
  cur = word;
  out.put(n++, kMapped ? vmap[cur] : cur);
  p += used;
  while (p < end) {
    unsigned c = *p;
    if (c - 1 < 0x7F) {  // 1 to 127: the common one-byte difference
      uint64_t v = (uint64_t)cur + c;
      if (v >= nv) return n;
      cur = (uint32_t)v;
      out.put(n++, kMapped ? vmap[cur] : cur);
      ++p;
      continue;
    }
    if (c == 0) {
      // A run: the next `word` values, each 1 above the one before.
      int m = get_vbe(&word, p + 1, (size_t)(end - p - 1));
      if (!m || word == 0) return n;
      p += m + 1;
      uint64_t room = (uint64_t)nv - 1 - cur;
      uint32_t take = (uint64_t)word > room ? (uint32_t)room : word;
      for (uint32_t k = 1; k <= take; ++k) out.put(n++, kMapped ? vmap[cur + k] : cur + k);
      cur += take;
      if (take < word) return n;
      continue;
    }
    used = get_vbe(&word, p, (size_t)(end - p));
    if (!used || word == 0) return n;  // a long-written 0 is no difference
    uint64_t v = (uint64_t)cur + word;
    if (v >= nv) return n;
    cur = (uint32_t)v;
    out.put(n++, kMapped ? vmap[cur] : cur);
    p += used;
  }
  *bad = 0;
  return n;
}

// Encodes the values set in a bitmap as st_merge_encode_list encodes them in
// a list, and clears the bitmap. A word at a time, the places where a bit
// differs from the one below it are where runs start (bit set) and end (bit
// clear); whole words inside a run or a gap cost one test. REQUIRES: the
// last word is 0. Returns the bytes written; *count gets the number of
// values.
static size_t encode_bitmap(uint64_t* bits, uint64_t nwords, unsigned char* buf, uint32_t* count) {
  unsigned char* d = buf;
  uint32_t n = 0, last = 0, start = 0;
  uint64_t carry = 0, lo = nwords, hi = 0;
  for (uint64_t wi = 0; wi < nwords; ++wi) {
    uint64_t w = bits[wi];
    uint64_t t = w ^ ((w << 1) | carry);
    carry = w >> 63;
    if (t == 0) continue;
    if (lo == nwords) lo = wi;
    hi = wi;
    do {
      unsigned b = (unsigned)__builtin_ctzll(t);
      t &= t - 1;
      uint32_t pos = (uint32_t)(wi * 64 + b);
      if ((w >> b) & 1) {
        start = pos;
        continue;
      }
      // The run [start, pos - 1] ends here.
      d = put_vbe(d, n == 0 ? start : start - last);
      uint32_t len = pos - start;
      if (len > 1) {
        *d++ = 0;
        d = put_vbe(d, len - 1);
      }
      n += len;
      last = pos - 1;
    } while (t);
  }
  if (n) memset(bits + lo, 0, (hi + 1 - lo) * sizeof(uint64_t));
  *count = n;
  return (size_t)(d - buf);
}

uint32_t st_merge_decode_list(const unsigned char* p, size_t len, uint32_t nv, uint32_t* out, int* bad) {
  return decode_list<false>(p, len, nv, nullptr, array_sink{out}, bad);
}

// Fills, from a lexicon merge map, the table from each input's term ids to
// output term ids (null tables are skipped).
static void term_tables(const unsigned char* map, uint32_t n, uint32_t* to_new1, uint32_t* to_new2) {
  uint32_t i1 = 0, i2 = 0;
  for (uint32_t k = 0; k < n; ++k) {
    switch (map[k]) {
      case 0:
        to_new1[i1++] = k;
        to_new2[i2++] = k;
        break;
      case 1:
        to_new1[i1++] = k;
        break;
      case 2:
        to_new2[i2++] = k;
        break;
      default:
        assert(!"reverse_map[i] == 2");
    }
  }
}

// The postings section of one input, whole in memory: mapped read-only
// (pages populated up front), or read into a buffer if mapping is refused.
struct pl_source {
  const unsigned char* p;
  uint64_t size;
  void* map;
  size_t map_len;
  unsigned char* owned;
};

static int source_open(pl_source* s, st_warm_slice* ws) {
  memset(s, 0, sizeof *s);
  s->size = ws->postings_size;
  if (s->size == 0) return 0;
  uint64_t page = (uint64_t)sysconf(_SC_PAGESIZE);
  uint64_t at = ws->postings_base & ~(page - 1);
  size_t len = (size_t)(ws->postings_base + s->size - at);
  void* m = mmap(nullptr, len, PROT_READ, MAP_PRIVATE | MAP_POPULATE, ws->fd, (off_t)at);
  if (m != MAP_FAILED) {
    s->map = m;
    s->map_len = len;
    s->p = (const unsigned char*)m + (ws->postings_base - at);
    return 0;
  }
  s->owned = (unsigned char*)malloc((size_t)s->size);
  if (!s->owned) return -1;
  for (uint64_t done = 0; done < s->size;) {
    ssize_t r = pread(ws->fd, s->owned + done, (size_t)(s->size - done), (off_t)(ws->postings_base + done));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) {
      // A file cut short under us: what is missing reads as the end of the
      // postings, and the lists that reach into it as corrupt.
      s->size = done;
      break;
    }
    done += (uint64_t)r;
  }
  s->p = s->owned;
  return 0;
}

static void source_close(pl_source* s) {
  if (s->map) munmap(s->map, s->map_len);
  free(s->owned);
  memset(s, 0, sizeof *s);
}

// The bytes of term t's list of an input; a list whose offsets run
// backwards or past the postings reads as empty.
struct pl_span {
  const unsigned char* p;
  size_t len;
};
static pl_span source_span(const pl_source* s, const st_warm_slice* ws, uint32_t t) {
  uint64_t start, end;
  if (ws->lay.offsets_64) {
    start = t ? st_get_be64(ws->pl_offsets + 8 * (size_t)(t - 1)) : 0;
    end = st_get_be64(ws->pl_offsets + 8 * (size_t)t);
  } else {
    start = t ? st_get_be32(ws->pl_offsets + 4 * (size_t)(t - 1)) : 0;
    end = st_get_be32(ws->pl_offsets + 4 * (size_t)t);
  }
  if (end < start || end > ws->postings_size) return pl_span{nullptr, 0};
  if (end > s->size) end = s->size;
  if (start >= end) return pl_span{nullptr, 0};
  return pl_span{s->p + start, (size_t)(end - start)};
}

// Output postings: encoded lists gather in one buffer that goes to the file
// when it holds kFlushAt bytes or more.
struct pl_writer {
  int fd;
  unsigned char* buf;
  size_t cap, used;
  uint64_t written;  // bytes of postings handed to write() so far
  uint64_t total_values;
};

// Room for a list of up to n values: at most 6 bytes a value (a run of one
// is a 0 byte and a word of 1). 0, or -1 out of memory.
static int pl_reserve(pl_writer* w, uint64_t n) {
  size_t need = 6 * (size_t)n + 16;
  if (w->cap - w->used >= need) return 0;
  size_t cap = w->used + need > kFlushAt * 2 ? w->used + need : kFlushAt * 2;
  unsigned char* nb = (unsigned char*)realloc(w->buf, cap);
  if (!nb) return -1;
  w->buf = nb;
  w->cap = cap;
  return 0;
}

// Ends a list of n values and `bytes` bytes written at buf + used; returns
// its end offset within the postings.
static uint64_t pl_commit(pl_writer* w, size_t bytes, uint32_t n) {
  w->used += bytes;
  w->total_values += n;
  uint64_t end = w->written + w->used;
  if (w->used >= kFlushAt) {
    writeall_or_assert(w->fd, w->buf, w->used);
    w->written += w->used;
    w->used = 0;
  }
  return end;
}

static inline void renumber(uint32_t* v, uint32_t n, const uint32_t* vmap) {
  for (uint32_t k = 0; k < n; ++k) v[k] = vmap[v[k]];
}

// Both sorted lists into out; a number in both goes out once. Returns the
// count.
static uint32_t merge_sorted(const uint32_t* x, uint32_t nx, const uint32_t* y, uint32_t ny, uint32_t* out) {
  uint32_t i = 0, j = 0, n = 0;
  while (i < nx && j < ny) {
    uint32_t a = x[i], b = y[j];
    out[n++] = a < b ? a : b;
    i += a <= b;
    j += b <= a;
  }
  while (i < nx) out[n++] = x[i++];
  while (j < ny) out[n++] = y[j++];
  return n;
}


static void summary(char* out, size_t size, int n, uint32_t flex_terms, uint32_t rlex_terms, uint32_t values,
                    uint32_t postings, int32_t earliest, int32_t latest, uint32_t gap) {
  // Counts and times appear byte-swapped, as they stand in the file.
  snprintf(out, size,
           "name_s%i=%s, flex_size_s%i=%u, rlex_size_s%i=%u, values_s%i=%u, postings_s%i=%u, earliest_s%i=%u, "
           "latest_s%i=%u, max_gap_s%i=%u",
           n, "NA", n, flex_terms, n, rlex_terms, n, st_htonl(values), n, st_htonl(postings), n,
           st_htonl((uint32_t)earliest), n, st_htonl((uint32_t)latest), n, gap);
}

st_warm_slice* st_warm_slice_merge(const char* out_path, st_warm_slice* a, st_warm_slice* b) {
  return st_warm_slice_merge_log(out_path, a, b, 0);
}

st_warm_slice* st_warm_slice_merge_log(const char* out_path, st_warm_slice* a, st_warm_slice* b, int log) {
  assert(a && b && a->flex && b->flex && a->rlex && b->rlex);
  assert(a->metadata && b->metadata && a->rf_map && b->rf_map && "inputs opened mapped");
  int verbose = verbose_level() > 0;
  if (verbose) fprintf(stderr, "begin of merge\n");

  const uint32_t na = a->lay.num_values, nb = b->lay.num_values;
  const uint32_t ta = a->lay.num_terms, tb = b->lay.num_terms;
  const uint32_t num_values = _merge_tsval_count(a, b);

  st_warm_slice* result = nullptr;
  st_fclex_handle* lex = nullptr;
  unsigned char* out = nullptr;
  size_t out_size = 0;
  int fd = -1;
  uint32_t num_terms = 0, flex_terms_out = 0, rlex_terms_out = 0;
  uint64_t lexbuf_size = st_fclex_merge_size_estimate(a->flex, b->flex);
  uint64_t rest = st_fclex_merge_size_estimate(a->rlex, b->rlex);
  if (rest > lexbuf_size) lexbuf_size = rest;
  size_t map_bytes = ((size_t)ta + tb) * 2;
  pl_source src1, src2;
  memset(&src1, 0, sizeof src1);
  memset(&src2, 0, sizeof src2);
  pl_writer w;
  memset(&w, 0, sizeof w);

  // Work memory: value maps, lexicon maps and term tables, one buffer for
  // the merged lexicons, and the decoded lists of a term (each input's, and
  // their union).
  uint32_t* vmap1 = (uint32_t*)malloc((na ? na : 1) * sizeof(uint32_t));
  uint32_t* vmap2 = (uint32_t*)malloc((nb ? nb : 1) * sizeof(uint32_t));
  unsigned char* fmap = (unsigned char*)calloc(map_bytes, 1);
  unsigned char* rmap = (unsigned char*)calloc(map_bytes, 1);
  uint32_t* fnew1 = (uint32_t*)malloc((ta ? ta : 1) * sizeof(uint32_t));
  uint32_t* fnew2 = (uint32_t*)malloc((tb ? tb : 1) * sizeof(uint32_t));
  unsigned char* lexbuf = (unsigned char*)malloc(lexbuf_size);
  uint32_t* list1 = (uint32_t*)malloc((na ? na : 1) * sizeof(uint32_t));
  uint32_t* list2 = (uint32_t*)malloc((nb ? nb : 1) * sizeof(uint32_t));
  uint32_t* both = (uint32_t*)malloc(((size_t)na + nb + 1) * sizeof(uint32_t));
  const uint64_t nwords = ((uint64_t)num_values + 63) / 64 + 1;
  uint64_t* bits = (uint64_t*)calloc(nwords, sizeof(uint64_t));
  if (!vmap1 || !vmap2 || !fmap || !rmap || !fnew1 || !fnew2 || !lexbuf || !list1 || !list2 || !both || !bits) {
    errno = ENOMEM;
    goto done;
  }

  // Forward lexicon first: it gives the term count that the header needs.
  lex = st_fclex_merge(lexbuf, lexbuf_size, 64, fmap, a->flex, b->flex);
  if (!lex) {
    errno = ENOMEM;
    goto done;
  }
  num_terms = flex_terms_out = st_fclex_terms(lex);
  if (verbose) fprintf(stderr, "merged forward lexicon: num_terms=%u\n", num_terms);
  term_tables(fmap, num_terms, fnew1, fnew2);

  {
    unsigned char header[ST_WARM_HEADER_SIZE];
    memset(header, 0, sizeof header);
    memcpy(header, ST_WARM_MAGIC, 8);
    st_put_be32(header + 8, num_values);
    st_put_be32(header + 16, num_terms);
    for (int k = 0; k < ST_NUM_ATTRS; ++k) {
      uint32_t bits = k == ST_ATTR_D ? 1 : (a->lay.attr_bits[k] > b->lay.attr_bits[k] ? a->lay.attr_bits[k]
                                                                                       : b->lay.attr_bits[k]);
      if (bits == 0) bits = 1;
      st_put_be32(header + 20 + 4 * k, ((num_values >> 3) + 1) * bits);
      st_put_be32(header + 40 + 4 * k, bits);
    }
    st_warm_layout lay;
    if (st_warm_slice_layout(header, &lay) != 0) {
      errno = EINVAL;
      goto done;
    }
    // The fixed part is built in memory, zeros between sections, and
    // written at offset 0 once the postings have filled in its list
    // offsets; the lexicons and postings go out behind it as they are made.
    out_size = (size_t)lay.flex_off;
    out = (unsigned char*)calloc(out_size, 1);
    if (!out) {
      errno = ENOMEM;
      goto done;
    }
    fd = open(out_path, O_RDWR | O_CREAT | O_TRUNC, 0600);
    if (fd < 0) goto done;
    memcpy(out, header, sizeof header);

    // Values, newest first; a pair in both inputs is stored once, from the
    // second input (its deleted state included).
    if (verbose) fprintf(stderr, "about to merge values: num_values=%u\n", num_values);
    unsigned char* attr[ST_NUM_ATTRS];
    for (int k = 0; k < ST_NUM_ATTRS; ++k) attr[k] = out + lay.attr_off[k];
    {
      uint32_t i = 0, j = 0, k = 0;
      while (i < na || j < nb) {
        int c = i == na ? 1 : j == nb ? -1 : compare_values(value_pair(a, i), value_pair(b, j));
        if (c < 0) {
          copy_value(a, i, out + lay.values_off, attr, lay.attr_bits, k);
          vmap1[i++] = k;
        } else {
          copy_value(b, j, out + lay.values_off, attr, lay.attr_bits, k);
          vmap2[j++] = k;
          if (c == 0) vmap1[i++] = k;
        }
        ++k;
      }
      assert(k == num_values);
    }

    // Term metadata: counts add up (a value in both inputs counts twice),
    // times widen.
    {
      uint32_t i1 = 0, i2 = 0;
      for (uint32_t k = 0; k < num_terms; ++k) {
        uint32_t c1 = 0, c2 = 0;
        int32_t e1 = 0, l1 = 0, e2 = 0, l2 = 0;
        uint32_t count;
        int32_t earliest, latest;
        if (fmap[k] == 0) {
          get_metadata(a, i1++, &c1, &e1, &l1);
          get_metadata(b, i2++, &c2, &e2, &l2);
          count = c1 + c2;
          earliest = e1 < e2 ? e1 : e2;
          latest = l1 > l2 ? l1 : l2;
        } else if (fmap[k] == 1) {
          get_metadata(a, i1++, &count, &earliest, &latest);
        } else {
          get_metadata(b, i2++, &count, &earliest, &latest);
        }
        unsigned char* row = out + lay.metadata_off + 12 * (size_t)k;
        st_put_be32(row, count);
        st_put_be32(row + 4, (uint32_t)earliest);
        st_put_be32(row + 8, (uint32_t)latest);
      }
    }

    // Forward lexicon at the end of the fixed part, padded to 4.
    uint64_t flex_size = st_fclex_size(lex);
    uint64_t padded = (flex_size + 3) & ~(uint64_t)3;
    if (lseek(fd, (off_t)out_size, SEEK_SET) != (off_t)out_size) goto done;
    writeall_or_assert(fd, lexbuf, flex_size);
    if (padded > flex_size) {
      static const unsigned char pad[4] = {0, 0, 0, 0};
      writeall_or_assert(fd, pad, padded - flex_size);
    }
    st_fclex_close(lex);

    // Reversed lexicon into the same buffer, written directly behind.
    lex = st_fclex_merge(lexbuf, lexbuf_size, 64, rmap, a->rlex, b->rlex);
    if (!lex) {
      errno = ENOMEM;
      goto done;
    }
    rlex_terms_out = st_fclex_terms(lex);
    if (rlex_terms_out != num_terms) {
      // The lexicons of an input disagree (a damaged slice): no merge.
      errno = EBADMSG;
      goto done;
    }
    writeall_or_assert(fd, lexbuf, st_fclex_size(lex));
    st_fclex_close(lex);
    lex = nullptr;

    // rf_map: each new reversed term's forward id, taken from the input that
    // has it (the first when both do) and translated to new forward ids.
    {
      uint32_t i1 = 0, i2 = 0;
      for (uint32_t r = 0; r < num_terms; ++r) {
        uint32_t fwd;
        switch (rmap[r]) {
          case 0:
            fwd = fnew1[rf_map_entry(a, i1++)];
            ++i2;
            break;
          case 1:
            fwd = fnew1[rf_map_entry(a, i1++)];
            break;
          default:
            assert(rmap[r] == 2 && "reverse_map2[i] == 2");
            fwd = fnew2[rf_map_entry(b, i2++)];
            break;
        }
        st_put_be32(out + lay.rf_map_off + 4 * (size_t)r, fwd);
      }
    }

    // Postings, term by term: each input's list decoded whole (a corrupt
    // list ends at its first bad word), numbered anew through the value
    // maps, joined (a value in both once) and encoded.
    if (verbose) fprintf(stderr, "about to merge postings lists\n");
    if (source_open(&src1, a) != 0 || source_open(&src2, b) != 0) {
      errno = ENOMEM;
      goto done;
    }
    w.fd = fd;
    {
      uint32_t i1 = 0, i2 = 0;
      for (uint32_t k = 0; k < num_terms; ++k) {
        pl_span s1{nullptr, 0}, s2{nullptr, 0};
        if (fmap[k] != 2) s1 = source_span(&src1, a, i1++);
        if (fmap[k] != 1) s2 = source_span(&src2, b, i2++);
        uint32_t n;
        int bad;
        uint64_t end;
        if (s1.len && s2.len && (s1.len + s2.len) * kDenseRatio >= num_values) {
          // Long lists in both: joined in a bitmap of the output's values.
          uint32_t n1 = decode_list<true>(s1.p, s1.len, na, vmap1, bitmap_sink{bits}, &bad);
          uint32_t n2 = decode_list<true>(s2.p, s2.len, nb, vmap2, bitmap_sink{bits}, &bad);
          if (pl_reserve(&w, (uint64_t)n1 + n2) != 0) {
            errno = ENOMEM;
            goto done;
          }
          size_t bytes = encode_bitmap(bits, nwords, w.buf + w.used, &n);
          end = pl_commit(&w, bytes, n);
        } else {
          // Decoded first and numbered anew after: the loads from the value
          // maps, scattered over megabytes, then overlap.
          uint32_t n1 = s1.len ? decode_list<false>(s1.p, s1.len, na, nullptr, array_sink{list1}, &bad) : 0;
          uint32_t n2 = s2.len ? decode_list<false>(s2.p, s2.len, nb, nullptr, array_sink{list2}, &bad) : 0;
          renumber(list1, n1, vmap1);
          renumber(list2, n2, vmap2);
          const uint32_t* list = list1;
          n = n1;
          if (n1 == 0) {
            list = list2;
            n = n2;
          } else if (n2 != 0) {
            list = both;
            n = merge_sorted(list1, n1, list2, n2, both);
          }
          if (pl_reserve(&w, n) != 0) {
            errno = ENOMEM;
            goto done;
          }
          end = pl_commit(&w, st_merge_encode_list(list, n, w.buf + w.used), n);
        }
        st_put_be64(out + lay.pl_offsets_off + 8 * (size_t)k, end);
        // Counts of terms in both inputs are summed without folding shared
        // values. A query takes a count equal to num_values to mean "in every
        // value" and skips the list, so a sum that reaches num_values while
        // the list is shorter would widen answers: store the list's length.
        unsigned char* row = out + lay.metadata_off + 12 * (size_t)k;
        if (st_get_be32(row) >= num_values && n < num_values) st_put_be32(row, n);
      }
    }
    if (w.used) writeall_or_assert(fd, w.buf, w.used);
    source_close(&src1);
    source_close(&src2);
    st_put_be32(out + 12, (uint32_t)w.total_values);
    for (size_t done_bytes = 0; done_bytes < out_size;) {
      ssize_t r = pwrite(fd, out + done_bytes, out_size - done_bytes, (off_t)done_bytes);
      if (r < 0 && errno == EINTR) continue;
      if (r <= 0) goto done;
      done_bytes += (size_t)r;
    }
    if (verbose) fprintf(stderr, "merged postings lists\n");

    close(fd);
    fd = -1;
    result = st_warm_slice_open(out_path, 0);

    if (log && result) {
      char s1[512], s2[512], s3[512], dir[4096];
      snprintf(dir, sizeof dir, "%s", out_path);
      char* slash = strrchr(dir, '/');
      if (slash) *slash = '\0';
      summary(s1, sizeof s1, 1, st_fclex_terms(a->flex), st_fclex_terms(a->rlex), na, a->lay.num_postings,
              st_warm_slice_earliest(a), st_warm_slice_latest(a), _max_event_time_gap(a));
      summary(s2, sizeof s2, 2, st_fclex_terms(b->flex), st_fclex_terms(b->rlex), nb, b->lay.num_postings,
              st_warm_slice_earliest(b), st_warm_slice_latest(b), _max_event_time_gap(b));
      summary(s3, sizeof s3, 3, flex_terms_out, rlex_terms_out, num_values, (uint32_t)w.total_values,
              st_warm_slice_earliest(result), st_warm_slice_latest(result), _max_event_time_gap(result));
      fprintf(stderr, "event=tsidx_merge, bucket=\"%s\", %s, %s, %s\n", dir, s1, s2, s3);
    }
  }

done:
  source_close(&src1);
  source_close(&src2);
  free(out);
  if (fd >= 0) close(fd);
  if (lex) st_fclex_close(lex);
  free(vmap1);
  free(vmap2);
  free(fmap);
  free(rmap);
  free(fnew1);
  free(fnew2);
  free(lexbuf);
  free(list1);
  free(list2);
  free(both);
  free(bits);
  free(w.buf);
  return result;
}

int64_t st_warm_slice_merge_size_estimate(st_warm_slice* a, st_warm_slice* b) {
  int64_t size = (int64_t)a->file_size + (int64_t)b->file_size;
  size -= (int64_t)(st_fclex_size(a->flex) + st_fclex_size(a->rlex) + st_fclex_size(b->flex) +
                    st_fclex_size(b->rlex));
  size += (int64_t)(st_fclex_merge_size_estimate(a->flex, b->flex) + st_fclex_merge_size_estimate(a->rlex, b->rlex));
  for (int k = 0; k < ST_NUM_ATTRS; ++k) size -= (int64_t)a->lay.attr_size[k] + b->lay.attr_size[k];
  // New code arrays, in 32-bit arithmetic. The first keeps the form in which
  // it was first written.
  int32_t n = (int32_t)(a->lay.num_values + b->lay.num_values);
  for (int k = ST_ATTR_ET; k <= ST_ATTR_H; ++k) {
    int32_t bits = (int32_t)(a->lay.attr_bits[k] > b->lay.attr_bits[k] ? a->lay.attr_bits[k] : b->lay.attr_bits[k]);
    int32_t nb = (int32_t)((uint32_t)n * (uint32_t)bits);
    size += k == ST_ATTR_ET ? nb - 7 * (nb / 8) : nb / 8 + nb % 8;
  }
  return size;
}

uint64_t st_warm_slice_pl_hash(st_warm_slice* ws, uint32_t term_id) {
  st_pl_reader* r = (st_pl_reader*)malloc(sizeof(st_pl_reader));
  assert(r);
  st_pl_reader_init(r, ws);
  st_pl_reader_seek(r, term_id);
  uint64_t h = 5381;
  for (int64_t v; (v = st_pl_reader_next(r)) >= 0;) h = h * 33 + (uint64_t)v;
  free(r);
  return h;
}
