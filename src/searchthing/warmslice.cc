// Warm slice files: section layout, opening (mapped or by descriptor),
// value decoding, posting list reading, metadata, enumeration and deletion.
#include "searchthing/warmslice.h"

#include <assert.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "searchthing/codes.h"
#include "searchthing/warmslice_internal.h"

static uint64_t round4(uint64_t v) { return (v + 3) & ~(uint64_t)3; }
static uint64_t next_section(uint64_t off, uint64_t size) { return off + (size & ~(uint64_t)7) + 8; }

int st_warm_slice_layout(const unsigned char* h, st_warm_layout* L) {
  memset(L, 0, sizeof *L);
  if (memcmp(h, "Velmor5", 8) == 0 || memcmp(h, "Velmor4", 8) == 0)
    L->offsets_64 = 1;
  else if (memcmp(h, "Velmor3", 8) == 0)
    L->offsets_64 = 0;
  else
    return -1;
  L->num_values = st_get_be32(h + 8);
  L->num_postings = st_get_be32(h + 12);
  L->num_terms = st_get_be32(h + 16);
  for (int a = 0; a < ST_NUM_ATTRS; ++a) {
    L->attr_size[a] = st_get_be32(h + 20 + 4 * a);
    L->attr_bits[a] = st_get_be32(h + 40 + 4 * a);
  }
  L->values_off = ST_WARM_HEADER_SIZE;
  uint64_t off = L->values_off, size = 8 * (uint64_t)L->num_values;
  for (int a = 0; a < ST_NUM_ATTRS; ++a) {
    L->attr_off[a] = off = next_section(off, size);
    size = L->attr_size[a];
  }
  L->pl_offsets_off = off = next_section(off, size);
  L->metadata_off = off = next_section(off, (L->offsets_64 ? 8 : 4) * (uint64_t)L->num_terms);
  L->rf_map_off = next_section(off, 12 * (uint64_t)L->num_terms);
  L->flex_off = L->rf_map_off + 4 * (uint64_t)L->num_terms;
  return 0;
}

// Counts non-zero, widths usable, each attribute array long enough for its
// entries and the spare bit, the fixed part inside the file.
static int check_layout(const st_warm_layout* L, uint64_t file_size) {
  if (!L->num_values || !L->num_terms) return -1;
  for (int a = 0; a < ST_NUM_ATTRS; ++a) {
    if (L->attr_bits[a] < 1 || L->attr_bits[a] > 32) return -1;
    if (8 * (uint64_t)L->attr_size[a] < (uint64_t)L->num_values * L->attr_bits[a] + 1) return -1;
  }
  if (L->attr_bits[ST_ATTR_D] != 1) return -1;
  return L->flex_off <= file_size ? 0 : -1;
}

static void set_sections(st_warm_slice* ws, unsigned char* base, int pointers) {
  const st_warm_layout* L = &ws->lay;
  ws->body = base;
  ws->values = base + L->values_off;
  for (int a = 0; a < ST_NUM_ATTRS; ++a) ws->attr[a] = base + L->attr_off[a];
  ws->pl_offsets = base + L->pl_offsets_off;
  if (pointers) {
    ws->metadata = base + L->metadata_off;
    ws->rf_map = base + L->rf_map_off;
    ws->metadata_offset = ws->rf_map_offset = ST_WARM_NO_OFFSET;
  } else {
    ws->metadata = ws->rf_map = NULL;
    ws->metadata_offset = L->metadata_off;
    ws->rf_map_offset = L->rf_map_off;
  }
}

// The last posting list ends inside the file. With `all`, also every list
// offset ascends: a walk over every term, kept for the mapped forms (merge,
// optimise, delete, which go over every list anyway) and for
// st_warm_slice_verify. The query form checks one list's bounds as it seeks
// to it instead, so that opening costs the same for ten terms or ten million.
static int check_postings(st_warm_slice* ws, bool all) {
  uint64_t prev = 0;
  if (all) {
    for (uint32_t t = 0; t < ws->lay.num_terms; ++t) {
      uint64_t e = st_warm_slice_pl_offset(ws, t);
      if (e < prev) return -1;
      prev = e;
    }
  } else {
    prev = st_warm_slice_pl_offset(ws, (int64_t)ws->lay.num_terms - 1);
  }
  ws->postings_size = prev;
  return ws->postings_base <= ws->file_size && prev <= ws->file_size - ws->postings_base ? 0 : -1;
}

static int check_lexicons(st_warm_slice* ws) {
  if (!ws->flex || !ws->rlex) return -1;
  if (st_fclex_terms(ws->flex) != ws->lay.num_terms || st_fclex_terms(ws->rlex) != ws->lay.num_terms) return -1;
  return 0;
}

static st_warm_slice* new_handle(void) {
  st_warm_slice* ws = (st_warm_slice*)calloc(1, sizeof *ws);
  if (ws) ws->fd = -1;
  return ws;
}

static int pread_all(int fd, void* buf, size_t n, uint64_t off) {
  size_t done = 0;
  while (done < n) {
    ssize_t r = pread(fd, (char*)buf + done, n - done, (off_t)(off + done));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return -1;
    done += (size_t)r;
  }
  return 0;
}

enum open_mode { OPEN_MAPPED = 0, OPEN_UPDATE = 1, OPEN_FD = 2 };

static st_warm_slice* open_slice(const char* path, int mode) {
  st_warm_slice* ws = new_handle();
  if (!ws) return NULL;
  ws->for_updating = mode == OPEN_UPDATE;
  ws->fd = open(path, mode == OPEN_UPDATE ? O_RDWR : O_RDONLY);
  struct stat sb;
  unsigned char hdr[ST_WARM_HEADER_SIZE];
  bool ok = ws->fd >= 0 && fstat(ws->fd, &sb) == 0 && S_ISREG(sb.st_mode);
  if (ok) {
    ws->file_size = (uint64_t)sb.st_size;
    ok = ws->file_size >= ST_WARM_HEADER_SIZE && pread_all(ws->fd, hdr, sizeof hdr, 0) == 0 &&
         st_warm_slice_layout(hdr, &ws->lay) == 0 && check_layout(&ws->lay, ws->file_size) == 0;
  }
  // The query form checks what costs the same for any size of slice; the
  // mapped forms, whose lexicons are read in memory without further bounds
  // checks, check every block offset.
  uint64_t fo = ws->lay.flex_off, fs = ws->file_size;
  int (*check_lex)(int, uint64_t, uint64_t) = mode == OPEN_FD ? st_fclex_check_head_fd : st_fclex_check_fd;
  ok = ok && check_lex(ws->fd, fo, fs - fo) == 0;
  if (ok) {
    ws->rlex_off = fo + round4(st_fclex_size_fd(ws->fd, fo));
    ok = ws->rlex_off <= fs && check_lex(ws->fd, ws->rlex_off, fs - ws->rlex_off) == 0;
  }
  if (ok) {
    ws->postings_base = ws->rlex_off + st_fclex_size_fd(ws->fd, ws->rlex_off);
    ok = ws->postings_base <= fs;
  }
  if (ok) {
    ws->map_size = mode == OPEN_UPDATE ? fs : mode == OPEN_MAPPED ? ws->postings_base : fo;
    int prot = mode == OPEN_UPDATE ? PROT_READ | PROT_WRITE : PROT_READ;
    void* m = mmap(NULL, ws->map_size, prot, MAP_SHARED, ws->fd, 0);
    ok = m != MAP_FAILED;
    ws->map = ok ? (unsigned char*)m : NULL;
  }
  if (ok) {
    set_sections(ws, ws->map, mode != OPEN_FD);
    ok = check_postings(ws, mode != OPEN_FD) == 0;
  }
  if (ok) {
    if (mode == OPEN_FD) {
      ws->flex = st_fclex_open_fd(ws->fd, fo);
      ws->rlex = st_fclex_open_fd(ws->fd, ws->rlex_off);
    } else {
      ws->flex = st_fclex_open(ws->map + fo);
      ws->rlex = st_fclex_open(ws->map + ws->rlex_off);
    }
    ok = check_lexicons(ws) == 0;
  }
  if (!ok) {
    int saved = errno;
    st_fclex_close(ws->flex);
    st_fclex_close(ws->rlex);
    if (ws->map) munmap(ws->map, ws->map_size);
    if (ws->fd >= 0) close(ws->fd);
    free(ws);
    errno = saved ? saved : EINVAL;
    return NULL;
  }
  return ws;
}

st_warm_slice* st_warm_slice_open(const char* path, int for_updating) {
  return open_slice(path, for_updating ? OPEN_UPDATE : OPEN_MAPPED);
}

st_warm_slice* st_warm_slice_open_fd(const char* path, int for_updating) {
  assert(for_updating == 0);
  (void)for_updating;
  return open_slice(path, OPEN_FD);
}

int st_warm_slice_close(st_warm_slice* ws) {
  if (!ws) return 0;
  int rc = 0;
  st_fclex_close(ws->flex);
  st_fclex_close(ws->rlex);
  if (ws->map) {
    // Only a writable mapping can hold changes (deletion bits) to flush.
    if (ws->for_updating && msync(ws->map, ws->map_size, MS_SYNC) != 0) rc = -1;
    if (munmap(ws->map, ws->map_size) != 0) rc = -1;
  }
  if (ws->fd >= 0) close(ws->fd);
  free(ws);
  return rc;
}

uint64_t st_warm_slice_size(const st_warm_slice* ws) { return ws->map ? ws->map_size : ws->file_size; }
uint32_t st_warm_slice_terms(const st_warm_slice* ws) { return ws->lay.num_terms; }
uint32_t st_warm_slice_values(const st_warm_slice* ws) { return ws->lay.num_values; }
uint32_t st_warm_slice_blocksize(const st_warm_slice* ws) { return st_fclex_blocksize(ws->flex); }
int32_t st_warm_slice_latest(const st_warm_slice* ws) { return (int32_t)st_get_be32(ws->values); }
int32_t st_warm_slice_earliest(const st_warm_slice* ws) {
  return (int32_t)st_get_be32(ws->values + 8 * (uint64_t)(ws->lay.num_values - 1));
}
uint64_t st_warm_slice_postings_size(const st_warm_slice* ws) { return ws->postings_size; }
uint64_t size_without_vardata(const st_warm_slice* ws) { return ws->lay.flex_off; }

uint64_t st_warm_slice_pl_offset(st_warm_slice* ws, int64_t t) {
  if (t < 0) return 0;
  assert(t < (int64_t)ws->lay.num_terms);
  if (ws->lay.offsets_64) return st_get_be64(ws->pl_offsets + 8 * (uint64_t)t);
  return st_get_be32(ws->pl_offsets + 4 * (uint64_t)t);
}

uint64_t st_warm_slice_pl_size(st_warm_slice* ws, uint32_t term_id) {
  return st_warm_slice_pl_offset(ws, term_id) - st_warm_slice_pl_offset(ws, (int64_t)term_id - 1);
}

static const unsigned char* fixed_row(st_warm_slice* ws, const unsigned char* mapped, uint64_t file_off,
                                      uint64_t row_off, size_t n) {
  if (mapped) return mapped + row_off;
  if (pread_all(ws->fd, ws->scratch, n, file_off + row_off) != 0) {
    fprintf(stderr, "read failed in _get_metadata_fd\n");
    assert(0 && "read failed in _get_metadata_fd");
    abort();
  }
  return ws->scratch;
}

void st_warm_slice_get_metadata(st_warm_slice* ws, uint32_t t, uint32_t* count, int32_t* earliest, int32_t* latest) {
  assert(t < ws->lay.num_terms);
  const unsigned char* r = fixed_row(ws, ws->metadata, ws->metadata_offset, 12 * (uint64_t)t, 12);
  if (count) *count = st_get_be32(r);
  if (earliest) *earliest = (int32_t)st_get_be32(r + 4);
  if (latest) *latest = (int32_t)st_get_be32(r + 8);
}

uint32_t st_warm_slice_rf_map_entry(st_warm_slice* ws, uint32_t r) {
  assert(r < ws->lay.num_terms);
  return st_get_be32(fixed_row(ws, ws->rf_map, ws->rf_map_offset, 4 * (uint64_t)r, 4));
}

int st_warm_slice_is_deleted(const st_warm_slice* ws, uint32_t i) {
  return decode_from_byte_str(ws->attr[ST_ATTR_D], i, 1) != 0;
}

void st_warm_slice_decode_tsval(const st_warm_slice* ws, uint32_t i, st_tsval* out) {
  const unsigned char* v = ws->values + 8 * (uint64_t)i;
  const uint32_t* bits = ws->lay.attr_bits;
  out->time = (int32_t)st_get_be32(v);
  out->address = st_get_be32(v + 4);
  out->type = decode_from_byte_str(ws->attr[ST_ATTR_ET], i, bits[ST_ATTR_ET]);
  out->source = decode_from_byte_str(ws->attr[ST_ATTR_S], i, bits[ST_ATTR_S]);
  out->source_type = decode_from_byte_str(ws->attr[ST_ATTR_ST], i, bits[ST_ATTR_ST]);
  out->host = decode_from_byte_str(ws->attr[ST_ATTR_H], i, bits[ST_ATTR_H]);
  if (st_warm_slice_is_deleted(ws, i)) out->source = ST_DELETED_SOURCE;
}

// Value row i:
//   OFFSET  SIZE  MEANING
//   8*i     4     time, signed, big-endian
//   8*i+4   4     address, big-endian
// plus entry i of each attribute array (et, s, st, h: the codes; d: 1 when
// the source is ST_DELETED_SOURCE).
void st_warm_slice_encode_tsval(unsigned char* values, unsigned char* const* attr, const uint32_t* bits, uint32_t i,
                                const st_tsval* v) {
  st_put_be32(values + 8 * (uint64_t)i, (uint32_t)v->time);
  st_put_be32(values + 8 * (uint64_t)i + 4, v->address);
  encode_to_byte_str(attr[ST_ATTR_ET], v->type, i, bits[ST_ATTR_ET]);
  encode_to_byte_str(attr[ST_ATTR_S], v->source, i, bits[ST_ATTR_S]);
  encode_to_byte_str(attr[ST_ATTR_ST], v->source_type, i, bits[ST_ATTR_ST]);
  encode_to_byte_str(attr[ST_ATTR_H], v->host, i, bits[ST_ATTR_H]);
  encode_to_byte_str(attr[ST_ATTR_D], v->source == ST_DELETED_SOURCE ? 1 : 0, i, 1);
}

// ---------------------------------------------------------------------------
// Posting lists

int64_t st_warm_slice_read_postings(st_warm_slice* ws, uint64_t off, void* buf, size_t len) {
  if (off >= ws->postings_size) return 0;
  if (len > ws->postings_size - off) len = (size_t)(ws->postings_size - off);
  uint64_t at = ws->postings_base + off;
  if (ws->map && at + len <= ws->map_size) {
    memcpy(buf, ws->map + at, len);
    return (int64_t)len;
  }
  ssize_t r;
  do {
    r = pread(ws->fd, buf, len, (off_t)at);
  } while (r < 0 && errno == EINTR);
  return r;
}

void st_pl_reader_init(st_pl_reader* r, st_warm_slice* ws) {
  r->ws = ws;
  r->postings_base = ws->postings_base;
  r->postings_size = ws->postings_size;
  r->window_offset = 0;
  r->i = r->n = 0;
  r->pl_left = 0;
  r->cur = r->count = r->run = 0;
  r->bad = 0;
}

// A list whose offsets run backwards or past the postings is corrupt: it
// reads as empty and sets `bad`, which stays set until the next init so that
// a caller can tell after a whole walk over many lists.
void st_pl_reader_seek(st_pl_reader* r, uint32_t t) {
  uint64_t start = st_warm_slice_pl_offset(r->ws, (int64_t)t - 1);
  uint64_t end = st_warm_slice_pl_offset(r->ws, t);
  r->cur = r->count = r->run = 0;
  if (end < start || end > r->postings_size) {
    r->bad = 1;
    r->pl_left = 0;
    return;
  }
  r->pl_left = end - start;
  if (start < r->window_offset || start >= r->window_offset + r->n) {
    r->window_offset = start;
    r->i = r->n = 0;
  } else {
    r->i = (uint32_t)(start - r->window_offset);
  }
}

static int64_t reader_fail(st_pl_reader* r) {
  r->bad = 1;
  r->pl_left = 0;
  r->run = 0;
  return -1;
}

int64_t st_pl_reader_next(st_pl_reader* r) {
  const uint32_t nv = r->ws->lay.num_values;
  if (r->run) {
    r->run--;
    if (r->cur + 1 >= nv) return reader_fail(r);
    return ++r->cur;
  }
  if (r->pl_left == 0) return -1;
  if (r->n - r->i < 5 && r->window_offset + r->n < r->postings_size) {
    r->window_offset += r->i;
    r->i = 0;
    int64_t got = st_warm_slice_read_postings(r->ws, r->window_offset, r->window, ST_PL_WINDOW);
    if (got <= 0) return reader_fail(r);
    r->n = (uint32_t)got;
  }
  uint64_t avail = r->n - r->i;
  if (avail > r->pl_left) avail = r->pl_left;
  const unsigned char* p = r->window + r->i;
  uint32_t word;
  uint64_t value;
  int used;
  if (r->count != 0 && avail > 0 && p[0] == 0) {
    int m = st_decode_from_vbe_safe(&word, p + 1, avail - 1);
    if (!m || word == 0) return reader_fail(r);
    used = m + 1;
    r->run = word - 1;
    value = (uint64_t)r->cur + 1;
  } else {
    used = st_decode_from_vbe_safe(&word, p, avail);
    if (!used || (r->count != 0 && word == 0)) return reader_fail(r);
    value = r->count == 0 ? word : (uint64_t)r->cur + word;
  }
  if (value >= nv) return reader_fail(r);
  r->i += (uint32_t)used;
  r->pl_left -= (uint64_t)used;
  r->count++;
  r->cur = (uint32_t)value;
  return (int64_t)value;
}

int st_warm_slice_verify(st_warm_slice* ws) {
  const uint64_t fs = ws->file_size;
  if (st_fclex_check_fd(ws->fd, ws->lay.flex_off, fs - ws->lay.flex_off) != 0) return -1;
  if (st_fclex_check_fd(ws->fd, ws->rlex_off, fs - ws->rlex_off) != 0) return -1;
  st_pl_reader* r = (st_pl_reader*)malloc(sizeof *r);
  if (!r) return -1;
  st_pl_reader_init(r, ws);
  int rc = 0;
  for (uint32_t t = 0; rc == 0 && t < ws->lay.num_terms; ++t) {
    st_pl_reader_seek(r, t);
    while (st_pl_reader_next(r) >= 0) {
    }
    if (r->bad) rc = -1;
  }
  free(r);
  return rc;
}

// ---------------------------------------------------------------------------
// Metadata, enumeration, deletion

int st_warm_slice_meta(st_warm_slice* ws, const char* term, uint32_t* count, int32_t* earliest, int32_t* latest) {
  uint32_t id = st_fclex_get(ws->flex, term);
  if (id == ST_FCLEX_NONE || id >= ws->lay.num_terms) return 1;
  st_warm_slice_get_metadata(ws, id, count, earliest, latest);
  return 0;
}

int st_warm_slice_enum(st_warm_slice* ws, const char* prefix, int which, st_enum_answer* answers, uint32_t capacity) {
  assert(which == 1 || which == 2);
  uint32_t n = st_fclex_enum(which == 1 ? ws->flex : ws->rlex, prefix, answers, capacity);
  for (uint32_t i = 0; i < n; ++i) {
    uint32_t id = answers[i].value;
    if (which == 2) id = id < ws->lay.num_terms ? st_warm_slice_rf_map_entry(ws, id) : ST_FCLEX_NONE;
    uint32_t count = 0;
    if (id < ws->lay.num_terms) st_warm_slice_get_metadata(ws, id, &count, NULL, NULL);
    answers[i].value = count;
  }
  return (int)n;
}

int st_warm_slice_delete(st_warm_slice* ws, const char* term, int32_t start, int32_t end, void* ctx,
                         st_delete_callback cb, const st_tsval* filter) {
  assert(ws->for_updating && ws->map);
  uint32_t id = st_fclex_get(ws->flex, term);
  if (id == ST_FCLEX_NONE || id >= ws->lay.num_terms) return 0;
  st_pl_reader* r = (st_pl_reader*)malloc(sizeof *r);
  if (!r) return -1;
  st_pl_reader_init(r, ws);
  st_pl_reader_seek(r, id);
  int marked = 0;
  for (int64_t v; (v = st_pl_reader_next(r)) >= 0;) {
    st_tsval val;
    st_warm_slice_decode_tsval(ws, (uint32_t)v, &val);
    if (val.time < start) break;
    if (val.time > end) continue;
    if (val.source == ST_DELETED_SOURCE) continue;
    if (filter) {
      if (filter->source && filter->source != val.source) continue;
      if (filter->source_type && filter->source_type != val.source_type) continue;
      if (filter->host && filter->host != val.host) continue;
    }
    ++marked;
    if (cb) cb(ctx, val);
    encode_to_byte_str(ws->attr[ST_ATTR_D], 1, (uint32_t)v, 1);
  }
  free(r);
  return marked;
}

int st_warm_slice_sections(const char* path, st_slice_sections* out) {
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -1;
  int rc = -1;
  unsigned char hdr[64];
  unsigned char last[8] = {0};
  st_warm_layout lay;
  struct stat st;
  errno = 0;
  if (fstat(fd, &st) == 0 && pread(fd, hdr, sizeof hdr, 0) == (ssize_t)sizeof hdr &&
      st_warm_slice_layout(hdr, &lay) == 0) {
    const uint64_t size = (uint64_t)st.st_size;
    // The postings end where the last term's list ends.
    const unsigned width = lay.offsets_64 ? 8 : 4;
    uint64_t postings = 0;
    if (lay.num_terms &&
        pread(fd, last, width, (off_t)(lay.pl_offsets_off + width * ((uint64_t)lay.num_terms - 1))) == (ssize_t)width)
      postings = width == 8 ? st_get_be64(last) : st_get_be32(last);
    const uint64_t flex_size = st_fclex_size_fd(fd, lay.flex_off);
    const uint64_t rlex_off = lay.flex_off + ((flex_size + 3) & ~(uint64_t)3);
    if (lay.pl_offsets_off <= lay.flex_off && rlex_off <= size && postings <= size - rlex_off) {
      out->num_values = lay.num_values;
      out->num_terms = lay.num_terms;
      out->num_postings = lay.num_postings;
      out->bytes[ST_SECTION_ATTRS] = lay.pl_offsets_off - lay.values_off - 8 * (uint64_t)lay.num_values;
      out->bytes[ST_SECTION_PL_OFFSETS] = lay.metadata_off - lay.pl_offsets_off;
      out->bytes[ST_SECTION_METADATA] = lay.rf_map_off - lay.metadata_off;
      out->bytes[ST_SECTION_RF_MAP] = lay.flex_off - lay.rf_map_off;
      out->bytes[ST_SECTION_FLEX] = rlex_off - lay.flex_off;
      out->bytes[ST_SECTION_RLEX] = size - rlex_off - postings;
      out->bytes[ST_SECTION_POSTINGS] = postings;
      out->bytes[ST_SECTION_VALUES] = lay.values_off + 8 * (uint64_t)lay.num_values;
      rc = 0;
    }
  }
  int saved = errno ? errno : EINVAL;
  close(fd);
  errno = saved;
  return rc;
}
