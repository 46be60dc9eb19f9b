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
// Everything before flex_off is written through a shared mapping; lexicons
// and postings are appended with write().
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

static int verbose_level() {
  const char* v = getenv("ST_VERBOSE");
  return v ? atoi(v) : 0;
}

static const unsigned char* value_pair(const st_warm_slice* ws, uint32_t i) { return ws->values + 8 * (size_t)i; }

// Number of distinct (time, address) pairs over both value tables.
static uint32_t _merge_tsval_count(const st_warm_slice* a, const st_warm_slice* b) {
  uint32_t na = a->lay.num_values, nb = b->lay.num_values, i = 0, j = 0, n = 0;
  while (i < na && j < nb) {
    int c = st_ntsval_compare(value_pair(a, i), value_pair(b, j));
    if (c <= 0) ++i;
    if (c >= 0) ++j;
    ++n;
  }
  return n + (na - i) + (nb - j);
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

// Streams the posting lists of the output into the file.
struct pl_writer {
  int fd;
  unsigned char buf[kFlushAt + 32];
  size_t used;
  uint64_t written;  // bytes of postings handed to write() so far
  uint32_t prev, count, run;
  uint64_t total_values;
};

static void pl_flush(pl_writer* w) {
  if (w->used == 0) return;
  writeall_or_assert(w->fd, w->buf, w->used);
  w->written += w->used;
  w->used = 0;
}

static void pl_flush_run(pl_writer* w) {
  if (w->run == 0) return;
  w->buf[w->used++] = 0;
  w->used += (size_t)st_encode_to_vbe(w->buf + w->used, w->run);
  w->run = 0;
}

static void pl_begin(pl_writer* w) { w->prev = w->count = w->run = 0; }

static void pl_emit(pl_writer* w, uint32_t v) {
  if (w->count == 0) {
    w->used += (size_t)st_encode_to_vbe(w->buf + w->used, v);
  } else {
    assert((w->count == 0 || v > w->prev) && "count == 0 || cur_value > dest_value");
    if (v == w->prev + 1) {
      ++w->run;
    } else {
      pl_flush_run(w);
      w->used += (size_t)st_encode_to_vbe(w->buf + w->used, v - w->prev);
    }
  }
  w->prev = v;
  ++w->count;
  ++w->total_values;
  if (w->used >= kFlushAt) pl_flush(w);
}

// Ends the list; the postings so far (written and buffered) are returned as
// its end offset.
static uint64_t pl_end(pl_writer* w) {
  pl_flush_run(w);
  if (w->used >= kFlushAt) pl_flush(w);
  return w->written + w->used;
}

size_t st_merge_encode_list(const uint32_t* values, uint32_t n, unsigned char* buf) {
  size_t used = 0;
  uint32_t prev = 0, run = 0;
  for (uint32_t k = 0; k < n; ++k) {
    uint32_t v = values[k];
    if (k == 0) {
      used += (size_t)st_encode_to_vbe(buf + used, v);
    } else if (v == prev + 1) {
      ++run;
    } else {
      if (run) {
        buf[used++] = 0;
        used += (size_t)st_encode_to_vbe(buf + used, run);
        run = 0;
      }
      used += (size_t)st_encode_to_vbe(buf + used, v - prev);
    }
    prev = v;
  }
  if (run) {
    buf[used++] = 0;
    used += (size_t)st_encode_to_vbe(buf + used, run);
  }
  return used;
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

  // Work memory: value maps, lexicon maps and term tables, one buffer for
  // the merged lexicons, two list readers and the posting writer.
  uint32_t* vmap1 = (uint32_t*)calloc(na ? na : 1, 4);
  uint32_t* vmap2 = (uint32_t*)calloc(nb ? nb : 1, 4);
  unsigned char* fmap = (unsigned char*)calloc(map_bytes, 1);
  unsigned char* rmap = (unsigned char*)calloc(map_bytes, 1);
  uint32_t* fnew1 = (uint32_t*)calloc(ta, 4);
  uint32_t* fnew2 = (uint32_t*)calloc(tb, 4);
  unsigned char* lexbuf = (unsigned char*)malloc(lexbuf_size);
  st_pl_reader* r1 = (st_pl_reader*)malloc(sizeof(st_pl_reader));
  st_pl_reader* r2 = (st_pl_reader*)malloc(sizeof(st_pl_reader));
  pl_writer* w = (pl_writer*)calloc(1, sizeof(pl_writer));
  if (!vmap1 || !vmap2 || !fmap || !rmap || !fnew1 || !fnew2 || !lexbuf || !r1 || !r2 || !w) {
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
    out_size = (size_t)lay.flex_off;

    fd = open(out_path, O_RDWR | O_CREAT | O_TRUNC, 0600);
    if (fd < 0) goto done;
    unsigned char zero = 0;
    if (pwrite(fd, &zero, 1, (off_t)out_size - 1) != 1) goto done;
    void* m = mmap(nullptr, out_size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (m == MAP_FAILED) {
      int saved = errno;
      if (ftruncate(fd, 0) != 0) { /* removed below anyway */ }
      close(fd);
      fd = -1;
      unlink(out_path);
      errno = saved;
      goto done;
    }
    out = (unsigned char*)m;
    memcpy(out, header, sizeof header);

    // Values, newest first; a pair in both inputs is stored once, from the
    // second input (its deleted state included).
    if (verbose) fprintf(stderr, "about to merge values: num_values=%u\n", num_values);
    unsigned char* attr[ST_NUM_ATTRS];
    for (int k = 0; k < ST_NUM_ATTRS; ++k) attr[k] = out + lay.attr_off[k];
    {
      uint32_t i = 0, j = 0, k = 0;
      st_tsval v;
      while (i < na || j < nb) {
        int c = i == na ? 1 : j == nb ? -1 : st_ntsval_compare(value_pair(a, i), value_pair(b, j));
        if (c < 0) {
          st_warm_slice_decode_tsval(a, i, &v);
          vmap1[i++] = k;
        } else {
          st_warm_slice_decode_tsval(b, j, &v);
          vmap2[j++] = k;
          if (c == 0) vmap1[i++] = k;
        }
        st_warm_slice_encode_tsval(out + lay.values_off, attr, lay.attr_bits, k, &v);
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
          st_warm_slice_get_metadata(a, i1++, &c1, &e1, &l1);
          st_warm_slice_get_metadata(b, i2++, &c2, &e2, &l2);
          count = c1 + c2;
          earliest = e1 < e2 ? e1 : e2;
          latest = l1 > l2 ? l1 : l2;
        } else if (fmap[k] == 1) {
          st_warm_slice_get_metadata(a, i1++, &count, &earliest, &latest);
        } else {
          st_warm_slice_get_metadata(b, i2++, &count, &earliest, &latest);
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
    assert(rlex_terms_out == num_terms);
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
            fwd = fnew1[st_warm_slice_rf_map_entry(a, i1++)];
            ++i2;
            break;
          case 1:
            fwd = fnew1[st_warm_slice_rf_map_entry(a, i1++)];
            break;
          default:
            assert(rmap[r] == 2 && "reverse_map2[i] == 2");
            fwd = fnew2[st_warm_slice_rf_map_entry(b, i2++)];
            break;
        }
        st_put_be32(out + lay.rf_map_off + 4 * (size_t)r, fwd);
      }
    }

    // Postings, term by term, both inputs walked in step through the value
    // maps; a value in both is written once.
    if (verbose) fprintf(stderr, "about to merge postings lists\n");
    if (lseek(fd, 0, SEEK_CUR) < 0) goto done;  // the postings base
    w->fd = fd;
    st_pl_reader_init(r1, a);
    st_pl_reader_init(r2, b);
    {
      uint32_t i1 = 0, i2 = 0;
      for (uint32_t k = 0; k < num_terms; ++k) {
        int has1 = fmap[k] != 2, has2 = fmap[k] != 1;
        int64_t x1 = -1, x2 = -1;
        if (has1) {
          st_pl_reader_seek(r1, i1++);
          x1 = st_pl_reader_next(r1);
        }
        if (has2) {
          st_pl_reader_seek(r2, i2++);
          x2 = st_pl_reader_next(r2);
        }
        pl_begin(w);
        while (x1 >= 0 || x2 >= 0) {
          uint32_t v1 = x1 >= 0 && (uint64_t)x1 < na ? vmap1[x1] : 0xFFFFFFFFu;
          uint32_t v2 = x2 >= 0 && (uint64_t)x2 < nb ? vmap2[x2] : 0xFFFFFFFFu;
          if (x1 >= 0 && (uint64_t)x1 >= na) x1 = -1;  // a corrupt number ends that list
          if (x2 >= 0 && (uint64_t)x2 >= nb) x2 = -1;
          if (x1 < 0 && x2 < 0) break;
          if (x2 < 0 || (x1 >= 0 && v1 < v2)) {
            pl_emit(w, v1);
            x1 = st_pl_reader_next(r1);
          } else if (x1 < 0 || v2 < v1) {
            pl_emit(w, v2);
            x2 = st_pl_reader_next(r2);
          } else {
            pl_emit(w, v1);
            x1 = st_pl_reader_next(r1);
            x2 = st_pl_reader_next(r2);
          }
        }
        st_put_be64(out + lay.pl_offsets_off + 8 * (size_t)k, pl_end(w));
        // Counts of terms in both inputs are summed without folding shared
        // values. A query takes a count equal to num_values to mean "in every
        // value" and skips the list, so a sum that reaches num_values while
        // the list is shorter would widen answers: store the list's length.
        unsigned char* row = out + lay.metadata_off + 12 * (size_t)k;
        if (st_get_be32(row) >= num_values && w->count < num_values) st_put_be32(row, w->count);
      }
    }
    pl_flush(w);
    st_put_be32(out + 12, (uint32_t)w->total_values);
    if (verbose) fprintf(stderr, "merged postings lists\n");

    if (msync(out, out_size, MS_SYNC) != 0) goto done;
    munmap(out, out_size);
    out = nullptr;
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
      summary(s3, sizeof s3, 3, flex_terms_out, rlex_terms_out, num_values, (uint32_t)w->total_values,
              st_warm_slice_earliest(result), st_warm_slice_latest(result), _max_event_time_gap(result));
      fprintf(stderr, "event=tsidx_merge, bucket=\"%s\", %s, %s, %s\n", dir, s1, s2, s3);
    }
  }

done:
  if (out) munmap(out, out_size);
  if (fd >= 0) close(fd);
  if (lex) st_fclex_close(lex);
  free(vmap1);
  free(vmap2);
  free(fmap);
  free(rmap);
  free(fnew1);
  free(fnew2);
  free(lexbuf);
  free(r1);
  free(r2);
  free(w);
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
