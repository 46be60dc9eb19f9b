// The two writers of warm slice files: one that builds the whole file in a
// buffer and keeps it as an in-memory handle, and one that writes sections
// straight to the descriptor.
#include <assert.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "searchthing/codes.h"
#include "searchthing/warmslice.h"
#include "searchthing/warmslice_internal.h"

// Warm slice file, every integer big-endian:
//   OFFSET                           SIZE          MEANING
//   0                                8             magic "Velmor5\0" ("Velmor3"/"Velmor4" also read)
//   8                                4             num_values
//   12                               4             number of postings (a statistic)
//   16                               4             num_terms
//   20 + 4a (a = 0..4)               4             byte size of attribute array a (et, s, st, h, d)
//   40 + 4a (a = 0..4)               4             bits per entry of attribute array a (d: 1)
//   60                               4             reserved, 0
//   64                               8*num_values  values: signed time, address; value 0 newest
//   72 + 8*num_values                size(et)      et_array, packed bits, one entry per value
//   prev + (prev size & ~7) + 8      size(a)       s_array, st_array, h_array, d_array likewise
//   prev + (prev size & ~7) + 8      8*num_terms   end of each term's list within the postings
//                                                  (4*num_terms, 32-bit, for "Velmor3")
//   prev + (prev size & ~7) + 8      12*num_terms  term metadata: count, earliest, latest
//   prev + (12*num_terms & ~7) + 8   4*num_terms   rf_map: forward id of each reversed term
//   rf_map + 4*num_terms             lexicon size  forward lexicon (terms_per_block 8)
//   previous, rounded up to 4        lexicon size  reversed lexicon (terms reversed, sorted)
//   directly behind                  last offset   postings: per term in id order, vbe words:
//                                                  first value number, then differences (> 0);
//                                                  a later 0 byte + word r = r consecutive values
static void fill_header(unsigned char* hdr, uint32_t nv, uint32_t np, uint32_t nt, const uint32_t* sizes,
                        const uint32_t* bits) {
  memset(hdr, 0, ST_WARM_HEADER_SIZE);
  memcpy(hdr, ST_WARM_MAGIC, 8);
  st_put_be32(hdr + 8, nv);
  st_put_be32(hdr + 12, np);
  st_put_be32(hdr + 16, nt);
  for (int a = 0; a < ST_NUM_ATTRS; ++a) {
    st_put_be32(hdr + 20 + 4 * a, sizes[a]);
    st_put_be32(hdr + 40 + 4 * a, bits[a]);
  }
}

static void attr_bits(st_hot_slice* hot, uint32_t* bits) {
  bits[ST_ATTR_ET] = log2n(get_largest_event_type(hot));
  bits[ST_ATTR_S] = log2n(get_largest_source(hot));
  bits[ST_ATTR_ST] = log2n(get_largest_source_type(hot));
  bits[ST_ATTR_H] = log2n(get_largest_host(hot));
  bits[ST_ATTR_D] = 1;
}

// Term lengths, the reversed terms in sorted order, and rf_map entries.
static uint64_t reverse_and_sort_array(st_hot_slice* hot, uint32_t nt) {
  uint64_t bytes = 0;
  char* out = hot->rpool;
  for (uint32_t t = 0; t < nt; ++t) {
    const char* s = hot->sorted_terms[t];
    size_t len = strlen(s);
    hot->term_lengths[t] = len;
    bytes += len;
    for (size_t i = 0; i < len; ++i) out[i] = s[len - 1 - i];
    out[len] = 0;
    hot->rterms[t].text = out;
    hot->rterms[t].tag = t;
    out += len + 1;
  }
  st_str_sort(hot->rterms, nt);
  return bytes;
}

static int write_all_at(int fd, const void* buf, size_t n, uint64_t off) {
  size_t done = 0;
  while (done < n) {
    ssize_t w = pwrite(fd, (const char*)buf + done, n - done, (off_t)(off + done));
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) return -1;
    done += (size_t)w;
  }
  return 0;
}

// Encodes one list; returns bytes written, or -1 when it would come within
// 6 bytes of `limit`.
static int64_t encode_list(unsigned char* out, uint64_t room, const uint32_t* list, uint32_t n) {
  uint64_t k = 0;
  uint32_t prev = 0;
  for (uint32_t i = 0; i < n; ++i) {
    if (k + 6 > room) {
      fprintf(stderr, "%d overrun writing posting list: %u\n", (int)time(NULL), list[i]);
      return -1;
    }
    k += (uint64_t)st_encode_to_vbe(out + k, i == 0 ? list[i] : list[i] - prev);
    prev = list[i];
  }
  return (int64_t)k;
}

// Builds the fixed part (header, values, attribute arrays, metadata, rf_map)
// into `base`, which is lay->flex_off bytes, zeroed.
static void fill_fixed(st_hot_slice* hot, unsigned char* base, const st_warm_layout* lay) {
  unsigned char* arr[ST_NUM_ATTRS];
  for (int a = 0; a < ST_NUM_ATTRS; ++a) arr[a] = base + lay->attr_off[a];
  for (uint32_t i = 0; i < lay->num_values; ++i)
    st_warm_slice_encode_tsval(base + lay->values_off, arr, lay->attr_bits, i, hot->value_hash[i]);
  for (uint32_t t = 0; t < lay->num_terms; ++t) {
    const st_hot_term_stats* st = &hot->stats[st_hot_slice_get_term_index(hot, t)];
    unsigned char* m = base + lay->metadata_off + 12 * (uint64_t)t;
    st_put_be32(m, hot->postings_per_term[t]);
    st_put_be32(m + 4, (uint32_t)st->earliest);
    st_put_be32(m + 8, (uint32_t)st->latest);
  }
  for (uint32_t r = 0; r < lay->num_terms; ++r) st_put_be32(base + lay->rf_map_off + 4 * (uint64_t)r, hot->rterms[r].tag);
}

static const char** reversed_texts(st_hot_slice* hot, uint32_t nt) {
  const char** v = (const char**)malloc(sizeof(char*) * nt);
  if (v)
    for (uint32_t r = 0; r < nt; ++r) v[r] = hot->rterms[r].text;
  return v;
}

static uint64_t round4(uint64_t v) { return (v + 3) & ~(uint64_t)3; }

st_warm_slice* st_warm_slice_create(st_hot_slice* hot, char* fname, size_t fname_size, const char* prefix,
                                    const char* suffix) {
  int32_t latest, earliest;
  uint32_t nv, nt, np;
  if (st_hot_slice_prepare(hot, &latest, &earliest, &nv, &nt, &np) != 0 || nt == 0) return NULL;
  uint32_t bits[ST_NUM_ATTRS], sizes[ST_NUM_ATTRS];
  attr_bits(hot, bits);
  for (int a = 0; a < ST_NUM_ATTRS; ++a) sizes[a] = ((nv >> 3) + 1) * bits[a];
  unsigned char hdr[ST_WARM_HEADER_SIZE];
  fill_header(hdr, nv, np, nt, sizes, bits);
  st_warm_layout lay;
  if (st_warm_slice_layout(hdr, &lay) != 0) return NULL;
  uint64_t term_bytes = reverse_and_sort_array(hot, nt);
  const uint64_t T = nt, P = np;
  const uint64_t lex_room = T + term_bytes + 4 * (2 * T + 3);
  const uint64_t bufsize = lay.flex_off + 2 * lex_room + 4 + 5 * P + 8 * T;
  // The file is built in place: its room is reserved (so that a full disk
  // is an error here, not a fault while filling the mapping), mapped, filled
  // (reserved blocks read as zeros) and cut to its length. That spares a
  // buffer of the same size and the copy of it into the file.
  st_warm_slice_fd_record rec = {latest, earliest};
  st_warm_slice_fd_filename(fname, fname_size, prefix, suffix, &rec);
  const char** rtexts = reversed_texts(hot, nt);
  int fd = rtexts ? open(fname, O_RDWR | O_CREAT | O_TRUNC, 0600) : -1;
  unsigned char* buf = NULL;
  if (fd >= 0 && posix_fallocate(fd, 0, (off_t)bufsize) == 0) {
    void* m = mmap(NULL, bufsize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (m != MAP_FAILED) buf = (unsigned char*)m;
  }
  // Any failure from here: the partial file goes, and the caller may take
  // the descriptor road.
  auto give_up = [&]() -> st_warm_slice* {
    free(rtexts);
    if (buf) munmap(buf, bufsize);
    if (fd >= 0) {
      close(fd);
      unlink(fname);
    }
    return NULL;
  };
  if (!buf) return give_up();
  memcpy(buf, hdr, sizeof hdr);
  fill_fixed(hot, buf, &lay);

  st_fclex_handle* fl = st_fclex_create(buf + lay.flex_off, lex_room, hot->sorted_terms, nt, 8, (uint32_t)hot->pool_used);
  uint64_t rlex_off = fl ? lay.flex_off + round4(st_fclex_size(fl)) : 0;
  st_fclex_handle* rl = fl ? st_fclex_create(buf + rlex_off, lex_room, rtexts, nt, 8, (uint32_t)hot->pool_used) : NULL;
  st_fclex_close(fl);
  if (!rl) return give_up();
  free(rtexts);
  rtexts = NULL;
  uint64_t base = rlex_off + st_fclex_size(rl);
  st_fclex_close(rl);

  uint64_t k = 0, pos = 0;
  for (uint32_t t = 0; t < nt; ++t) {
    uint32_t n = hot->postings_per_term[t];
    int64_t w = encode_list(buf + base + k, bufsize - base - k, hot->flat_postings + pos, n);
    if (w < 0) return give_up();
    pos += n;
    k += (uint64_t)w;
    st_put_be64(buf + lay.pl_offsets_off + 8 * (uint64_t)t, k);
  }
  uint64_t total = base + k;
  munmap(buf, bufsize);
  buf = NULL;
  if (ftruncate(fd, (off_t)total) != 0) return give_up();
  close(fd);
  fd = -1;
  st_warm_slice* ws = st_warm_slice_open(fname, 0);
  if (!ws) unlink(fname);
  return ws;
}

st_warm_slice_fd_record* st_warm_slice_create_by_fd(st_hot_slice* hot, char* fname, size_t fname_size,
                                                    const char* prefix, const char* suffix) {
  int32_t latest, earliest;
  uint32_t nv, nt, np;
  if (st_hot_slice_prepare(hot, &latest, &earliest, &nv, &nt, &np) != 0 || nt == 0) return NULL;
  uint32_t bits[ST_NUM_ATTRS], sizes[ST_NUM_ATTRS];
  attr_bits(hot, bits);
  for (int a = 0; a < ST_NUM_ATTRS; ++a) {
    uint32_t x = bits[a] * nv;
    sizes[a] = (x >> 3) - (x & 7) + 8;
  }
  unsigned char hdr[ST_WARM_HEADER_SIZE];
  fill_header(hdr, nv, np, nt, sizes, bits);
  st_warm_layout lay;
  if (st_warm_slice_layout(hdr, &lay) != 0) return NULL;
  uint64_t term_bytes = reverse_and_sort_array(hot, nt);
  const uint64_t T = nt;
  const uint64_t lex_room = T + term_bytes + 4 * (2 * T + 3);
  st_warm_slice_fd_record* rec = (st_warm_slice_fd_record*)malloc(sizeof *rec);
  unsigned char* fixed = (unsigned char*)calloc(1, lay.flex_off);
  unsigned char* lex = (unsigned char*)malloc(lex_room);
  const char** rtexts = reversed_texts(hot, nt);
  unsigned char* pbuf = (unsigned char*)malloc(8192 + 8);
  int fd = -1;
  bool ok = rec && fixed && lex && rtexts && pbuf;
  if (ok) {
    rec->latest = latest;
    rec->earliest = earliest;
    st_warm_slice_fd_filename(fname, fname_size, prefix, suffix, rec);
    fd = open(fname, O_RDWR | O_CREAT | O_TRUNC, 0600);
    ok = fd >= 0;
  }
  // Reserve the upper limit of the file first.
  if (ok) {
    unsigned char zero = 0;
    uint64_t cap = st_hot_slice_size(hot);
    ok = write_all_at(fd, &zero, 1, cap > 0 ? cap - 1 : 0) == 0;
  }
  uint64_t off = lay.flex_off;
  if (ok) {
    memcpy(fixed, hdr, sizeof hdr);
    fill_fixed(hot, fixed, &lay);
    st_fclex_handle* fl = st_fclex_create(lex, lex_room, hot->sorted_terms, nt, 8, (uint32_t)hot->pool_used);
    ok = fl && write_all_at(fd, lex, st_fclex_size(fl), off) == 0;
    if (fl) off += round4(st_fclex_size(fl));
    st_fclex_close(fl);
  }
  if (ok) {
    memset(lex, 0, lex_room);
    st_fclex_handle* rl = st_fclex_create(lex, lex_room, rtexts, nt, 8, (uint32_t)hot->pool_used);
    ok = rl && write_all_at(fd, lex, st_fclex_size(rl), off) == 0;
    if (rl) off += st_fclex_size(rl);
    st_fclex_close(rl);
  }
  uint64_t base = off, k = 0, fill = 0, pos = 0;
  for (uint32_t t = 0; ok && t < nt; ++t) {
    const uint32_t* list = hot->flat_postings + pos;
    uint32_t n = hot->postings_per_term[t];
    for (uint32_t i = 0; i < n; ++i) {
      fill += (uint64_t)st_encode_to_vbe(pbuf + fill, i == 0 ? list[i] : list[i] - list[i - 1]);
      if (fill >= 8192) {
        ok = write_all_at(fd, pbuf, fill, base + k) == 0;
        k += fill;
        fill = 0;
        if (!ok) break;
      }
    }
    pos += n;
    st_put_be64(fixed + lay.pl_offsets_off + 8 * (uint64_t)t, k + fill);
  }
  if (ok && fill) {
    ok = write_all_at(fd, pbuf, fill, base + k) == 0;
    k += fill;
  }
  if (ok) ok = write_all_at(fd, fixed, lay.flex_off, 0) == 0;
  if (ok) ok = ftruncate(fd, (off_t)(base + k)) == 0;
  if (fd >= 0) {
    if (close(fd) != 0) ok = false;
    if (!ok) unlink(fname);
  }
  free(fixed);
  free(lex);
  free(rtexts);
  free(pbuf);
  if (!ok) {
    free(rec);
    return NULL;
  }
  return rec;
}

static long name_counter = 0;

void st_warm_slice_fd_filename(char* buf, size_t size, const char* prefix, const char* suffix,
                               const st_warm_slice_fd_record* rec) {
  assert(prefix && *prefix && prefix[strlen(prefix) - 1] != '/');
  snprintf(buf, size, "%s/%d-%d-%ld%d%s", prefix, rec->latest, rec->earliest, (long)getpid(),
           (int)__atomic_fetch_add(&name_counter, 1, __ATOMIC_RELAXED), suffix ? suffix : "");
}

void st_warm_slice_filename(char* buf, size_t size, const char* prefix, const char* suffix, const st_warm_slice* ws) {
  st_warm_slice_fd_record rec = {st_warm_slice_latest(ws), st_warm_slice_earliest(ws)};
  st_warm_slice_fd_filename(buf, size, prefix, suffix, &rec);
}
