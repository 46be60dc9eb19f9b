// Hot slice: flat tables allocated once, open-addressed hashes of terms and
// values, and the sort that prepares them for the slice writer.
#include "searchthing/hotslice.h"

#include <assert.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>

#include <algorithm>

static inline uint64_t mod_magic(uint32_t d) { return UINT64_C(0xFFFFFFFFFFFFFFFF) / d + 1; }

static bool is_good_hash_size(uint32_t max_terms) { return max_terms > 256 && (max_terms & 1) == 0; }

static size_t round64(size_t n) { return (n + 63) & ~(size_t)63; }

// Every table lives in one anonymous mapping, carved at 64-byte boundaries,
// zero-filled by the kernel. Puts land at random across the term and value
// hashes, so beyond a few megabytes a TLB miss per put would dominate: the
// mapping asks for huge pages (a hint; without them it works the same).
st_hot_slice* st_hot_slice_create(uint64_t pool_size, uint32_t max_terms, uint32_t max_postings,
                                  uint32_t max_values) {
  assert(is_good_hash_size(max_terms) && "_is_good_hash_size");
  (void)is_good_hash_size;
  st_hot_slice* h = (st_hot_slice*)calloc(1, sizeof *h);
  if (!h) return NULL;
  h->pool_size = pool_size;
  h->max_terms = max_terms;
  h->max_postings = max_postings;
  h->max_values = max_values;
  h->term_mod = mod_magic(2 * max_terms);
  h->value_mod = mod_magic(2 * (max_values ? max_values : 1));
  const size_t T = max_terms, P = max_postings ? max_postings : 1, V = max_values ? max_values : 1;
  struct {
    void** at;
    size_t bytes;
  } parts[] = {
      {(void**)&h->pool, pool_size ? pool_size : 1},
      {(void**)&h->stats, sizeof(st_hot_term_stats) * T},
      {(void**)&h->term_hash, sizeof(st_hot_term_slot) * 2 * T},
      {(void**)&h->postings, sizeof(st_hot_posting) * P},
      {(void**)&h->values, sizeof(st_tsval) * V},
      {(void**)&h->value_hash, sizeof(st_tsval*) * 2 * V},
      {(void**)&h->value_numbers, sizeof(uint32_t) * V},
      {(void**)&h->sorted_terms, sizeof(char*) * T},
      {(void**)&h->postings_per_term, sizeof(uint32_t) * T},
      {(void**)&h->flat_postings, sizeof(uint32_t) * P},
      {(void**)&h->rterms, sizeof(st_hot_rterm) * T},
      {(void**)&h->term_lengths, sizeof(uint64_t) * T},
      {(void**)&h->rpool, pool_size + T},
  };
  size_t total = 0;
  for (size_t i = 0; i < sizeof parts / sizeof parts[0]; ++i) total += round64(parts[i].bytes);
  void* arena = mmap(NULL, total, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (arena == MAP_FAILED) {
    free(h);
    return NULL;
  }
  if (total >= ((size_t)2 << 20)) (void)madvise(arena, total, MADV_HUGEPAGE);
  h->arena = arena;
  h->arena_size = total;
  char* at = (char*)arena;
  for (size_t i = 0; i < sizeof parts / sizeof parts[0]; ++i) {
    *parts[i].at = at;
    at += round64(parts[i].bytes);
  }
  return h;
}

void st_hot_slice_close(st_hot_slice* h) {
  if (!h) return;
  if (h->arena) munmap(h->arena, h->arena_size);
  free(h);
}

static inline bool term_equal(const char* stored, const char* term, size_t len) {
  if (len >= ST_MAX_TERM_LEN) return strncmp(stored, term, ST_MAX_TERM_LEN) == 0;
  return strcmp(stored, term) == 0;
}

// Slot of the term: its own, or the empty one where it would go.
static st_hot_term_slot* find_term(st_hot_slice* h, const char* term, size_t len, uint32_t key) {
  const uint32_t size = 2 * h->max_terms;
  const uint32_t hash = key;
  st_hot_term_slot* s = &h->term_hash[st_hot_fast_mod(key, h->term_mod, size)];
  if (!s->text || (s->key == hash && term_equal(s->text, term, len))) return s;
  uint32_t step = 2347;
  for (size_t i = 0; i < len; ++i) step = step * 64 + (uint32_t)(int32_t)(signed char)term[i] + (step << 16) - step;
  if (!(step & 1)) step += 1;
  // The table is at most half full, so an odd step finds a free slot; after a
  // full round without one (a step sharing a factor with the size) fall back
  // to single steps.
  for (uint32_t probes = 0;; ++probes) {
    key += probes < size ? step : 1;
    s = &h->term_hash[st_hot_fast_mod(key, h->term_mod, size)];
    if (!s->text || (s->key == hash && term_equal(s->text, term, len))) return s;
  }
}

static st_tsval** find_value(st_hot_slice* h, int32_t time, uint32_t address) {
  const uint32_t size = 2 * h->max_values;
  uint32_t key = address;
  st_tsval** s = &h->value_hash[st_hot_fast_mod(key, h->value_mod, size)];
  if (!*s || (*s)->address == address) return s;
  uint32_t step = (uint32_t)time * address;
  if (!(step & 1)) step += 1;
  for (uint32_t probes = 0;; ++probes) {
    key += probes < size ? step : 1;
    s = &h->value_hash[st_hot_fast_mod(key, h->value_mod, size)];
    if (!*s || (*s)->address == address) return s;
  }
}

int st_hot_slice_put(st_hot_slice* h, const char* term, int32_t time, uint32_t address, uint32_t type,
                     uint32_t source, uint32_t source_type, uint32_t host) {
  assert(h && term);
  size_t len;
  uint32_t key = st_hot_slice_hash(term, &len);
  return st_hot_slice_put_hashed(h, term, len, key, time, address, type, source, source_type, host);
}

int st_hot_slice_put_hashed(st_hot_slice* h, const char* term, size_t len, uint32_t key, int32_t time,
                            uint32_t address, uint32_t type, uint32_t source, uint32_t source_type, uint32_t host) {
  assert(h && term);
  assert(!h->prepared);
  if (len == 0) {
    // Probe: is any table past half full?
    if (h->terms_used > h->max_terms / 2) return -1;
    if (h->values_used > h->max_values / 2) return -2;
    if (h->postings_used > h->max_postings / 2) return -3;
    if (h->pool_used > h->pool_size / 2) return -4;
    return 0;
  }
  if (h->terms_used >= h->max_terms) return -1;
  if (h->values_used >= h->max_values) return -2;
  if (h->postings_used >= h->max_postings) return -3;
  if (h->pool_used + len >= h->pool_size) return -4;

  // The value first: an event's terms arrive together, so it is nearly always
  // the previous put's, and its row settles whether this put repeats one.
  uint32_t row;
  st_tsval** vs = NULL;
  if (h->has_last && h->last_address == address) {
    row = h->last_row;
  } else {
    vs = find_value(h, time, address);
    row = *vs ? (uint32_t)(*vs - h->values) : h->values_used;
  }

  st_hot_term_slot* slot = find_term(h, term, len, key);
  if (slot->text) {
    if (slot->last_row == row) return 0;
    st_hot_term_stats* st = &h->stats[slot->term_no];
    st->count++;
    if (time < st->earliest) st->earliest = time;
    if (time > st->latest) st->latest = time;
  } else {
    char* text = h->pool + h->pool_used;
    memcpy(text, term, len);
    text[len] = 0;
    h->pool_used += len + 1;
    st_hot_term_stats* st = &h->stats[h->terms_used];
    st->count = 1;
    st->earliest = st->latest = time;
    slot->text = text;
    slot->key = key;
    slot->term_no = h->terms_used++;
  }
  slot->last_row = row;

  if (vs && !*vs) {
    st_tsval* v = &h->values[h->values_used++];
    v->time = time;
    v->address = address;
    v->type = type;
    v->source = source;
    v->source_type = source_type;
    v->host = host;
    *vs = v;
  }
  h->has_last = 1;
  h->last_address = address;
  h->last_row = row;
  st_hot_posting* node = &h->postings[h->postings_used++];
  node->value_row = row;
  node->term_no = slot->term_no;
  return 0;
}

void st_hot_slice_reset(st_hot_slice* h) {
  memset(h->term_hash, 0, 2 * (size_t)h->max_terms * sizeof(st_hot_term_slot));
  memset(h->postings, 0, (size_t)h->postings_used * sizeof(st_hot_posting));
  memset(h->value_hash, 0, 2 * (size_t)h->max_values * sizeof(st_tsval*));
  h->pool_used = 0;
  h->terms_used = 0;
  h->postings_used = 0;
  h->values_used = 0;
  h->has_last = 0;
  h->prepared = 0;
}

int st_hot_slice_prepare(st_hot_slice* h, int32_t* latest, int32_t* earliest, uint32_t* num_values,
                         uint32_t* num_terms, uint32_t* num_postings) {
  if (!h->prepared) {
    const size_t vsize = 2 * (size_t)h->max_values;
    size_t nv = 0;
    for (size_t i = 0; i < vsize; ++i)
      if (h->value_hash[i]) h->value_hash[nv++] = h->value_hash[i];
    if (nv == 0) return -1;
    memset(h->value_hash + nv, 0, (vsize - nv) * sizeof(st_tsval*));
    st_tsval_ptr_qsort(h->value_hash, nv);
    for (size_t i = 0; i < nv; ++i) h->value_numbers[h->value_hash[i] - h->values] = (uint32_t)i;

    const size_t tsize = 2 * (size_t)h->max_terms;
    size_t nt = 0;
    for (size_t i = 0; i < tsize; ++i)
      if (h->term_hash[i].text) h->term_hash[nt++] = h->term_hash[i];
    memset(h->term_hash + nt, 0, (tsize - nt) * sizeof(st_hot_term_slot));
    // Sort through rows of (text, slot), then lay the slots out in that
    // order in the upper half of the table (free: nt <= max_terms) and move
    // them down. Rows go in term-number order, which is the order of the
    // texts in the pool, so that the sort's first pass over them streams.
    st_str_row* rows = h->rterms;
    for (size_t t = 0; t < nt; ++t) {
      st_str_row* r = &rows[h->term_hash[t].term_no];
      r->text = h->term_hash[t].text;
      r->tag = (uint32_t)t;
    }
    st_str_sort(rows, nt);
    st_hot_term_slot* upper = h->term_hash + h->max_terms;
    for (size_t t = 0; t < nt; ++t) upper[t] = h->term_hash[rows[t].tag];
    memcpy(h->term_hash, upper, nt * sizeof(st_hot_term_slot));
    memset(upper, 0, nt * sizeof(st_hot_term_slot));

    // Scatter the postings, read in array order, into one run per term in
    // sorted term order; a term's run is as long as its count of postings.
    // postings_per_term serves as the write cursor per term number until the
    // compaction below fills it with the final lengths.
    uint32_t* cursor = h->postings_per_term;
    uint32_t start = 0;
    for (size_t t = 0; t < nt; ++t) {
      const uint32_t term_no = h->term_hash[t].term_no;
      cursor[term_no] = start;
      start += h->stats[term_no].count;
    }
    assert(start == h->postings_used);
    for (uint32_t i = 0; i < h->postings_used; ++i) {
      const st_hot_posting* p = &h->postings[i];
      h->flat_postings[cursor[p->term_no]++] = h->value_numbers[p->value_row];
    }

    // Sort and deduplicate each run, moving it down over the room the
    // duplicates of earlier runs left.
    uint32_t pos = 0, last_before = 0, begin = 0;
    for (size_t t = 0; t < nt; ++t) {
      h->sorted_terms[t] = h->term_hash[t].text;
      const uint32_t n = h->stats[h->term_hash[t].term_no].count;
      uint32_t* src = h->flat_postings + begin;
      begin += n;
      // Events mostly arrive oldest first while value numbers count from the
      // newest, so a run is usually descending already: reverse it then.
      if (n > 1) {
        if (std::is_sorted(src, src + n, [](uint32_t a, uint32_t b) { return a > b; }))
          std::reverse(src, src + n);
        else if (!std::is_sorted(src, src + n))
          std::sort(src, src + n);
      }
      uint32_t* run = h->flat_postings + pos;
      if (run != src) memmove(run, src, sizeof(uint32_t) * n);
      last_before = n;
      uint32_t u = n ? 1 : 0;
      for (uint32_t i = 1; i < n; ++i)
        if (run[i] != run[u - 1]) run[u++] = run[i];
      h->postings_per_term[t] = u;
      pos += u;
    }
    h->prep_latest = h->value_hash[0]->time;
    h->prep_earliest = h->value_hash[nv - 1]->time;
    h->prep_values = (uint32_t)nv;
    h->prep_terms = (uint32_t)nt;
    // The last term is counted before its duplicates were removed.
    h->prep_postings = nt ? pos - h->postings_per_term[nt - 1] + last_before : pos;
    h->prepared = 1;
  }
  if (latest) *latest = h->prep_latest;
  if (earliest) *earliest = h->prep_earliest;
  if (num_values) *num_values = h->prep_values;
  if (num_terms) *num_terms = h->prep_terms;
  if (num_postings) *num_postings = h->prep_postings;
  return 0;
}

uint64_t st_hot_slice_size_est(uint64_t pool_used, uint64_t terms, uint64_t postings, uint64_t values) {
  const uint64_t T = terms, P = postings, V = values, L = pool_used;
  return 48 * T + 12 * T + 16 * P + 24 * V + 16 * V + 4 * V + 8 * T + 4 * T + 4 * P + 16 * T + 8 * T + T + 2 * L;
}

uint64_t st_hot_slice_size(const st_hot_slice* h) {
  return st_hot_slice_size_est(h->pool_size, h->max_terms, h->max_postings, h->max_values) + 240;
}

uint32_t st_hot_slice_values(const st_hot_slice* h) { return h->values_used; }

uint32_t st_hot_slice_get_term_index(const st_hot_slice* h, uint32_t slot) {
  assert(h->prepared);
  return h->term_hash[slot].term_no;
}

static uint32_t largest(const st_hot_slice* h, size_t field) {
  uint32_t m = 0;
  for (uint32_t i = 0; i < h->values_used; ++i) {
    uint32_t v;
    memcpy(&v, (const char*)&h->values[i] + field, sizeof v);
    if (v > m) m = v;
  }
  return m;
}

uint32_t get_largest_event_type(const st_hot_slice* h) { return largest(h, offsetof(st_tsval, type)); }
uint32_t get_largest_source(const st_hot_slice* h) { return largest(h, offsetof(st_tsval, source)); }
uint32_t get_largest_source_type(const st_hot_slice* h) { return largest(h, offsetof(st_tsval, source_type)); }
uint32_t get_largest_host(const st_hot_slice* h) { return largest(h, offsetof(st_tsval, host)); }
