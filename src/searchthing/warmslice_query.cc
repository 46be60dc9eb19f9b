// Query evaluation against one warm slice: exact AND terms narrow the time
// window and are intersected shortest first, then prefixes, suffixes,
// wildcards, the OR group and the NOT group filter the candidates through bit
// arrays; a range search on time picks the answers.
#include <assert.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "searchthing/codes.h"
#include "searchthing/heur.h"
#include "searchthing/warmslice.h"

// ---------------------------------------------------------------------------
// Wildcard matcher

#define MAX_PARTS 256

typedef struct st_matcher {
  char* copy;
  const char* parts[MAX_PARTS];
  size_t lens[MAX_PARTS];
  int nparts;
  int hard_start, hard_end, single_word;
} st_matcher;

void* createMatcher(const char* pattern) {
  if (!pattern) return NULL;
  st_matcher* m = (st_matcher*)calloc(1, sizeof *m);
  if (!m) return NULL;
  m->copy = strdup(pattern);
  if (!m->copy) {
    free(m);
    return NULL;
  }
  size_t len = strlen(pattern);
  m->hard_start = len == 0 || pattern[0] != '*';
  m->hard_end = len == 0 || pattern[len - 1] != '*';
  m->single_word = strchr(pattern, '*') == NULL;
  for (char* p = m->copy; *p;) {
    char* star = strchr(p, '*');
    if (star) *star = 0;
    if (*p) {
      if (m->nparts == MAX_PARTS) {  // more parts than a matcher holds
        freeOpaqueMatcher(m);
        return NULL;
      }
      m->parts[m->nparts] = p;
      m->lens[m->nparts++] = strlen(p);
    }
    if (!star) break;
    p = star + 1;
  }
  return m;
}

void freeOpaqueMatcher(void* vm) {
  st_matcher* m = (st_matcher*)vm;
  if (!m) return;
  free(m->copy);
  free(m);
}

int isMatch(void* vm, const char* term) {
  st_matcher* m = (st_matcher*)vm;
  if (!m || !term) return 0;
  if (m->single_word) return strcmp(term, m->copy) == 0;
  if (m->nparts == 0) return 1;
  const char* pos = term;
  int from = 0, to = m->nparts;
  if (m->hard_start) {
    if (strncmp(term, m->parts[0], m->lens[0]) != 0) return 0;
    pos += m->lens[0];
    from = 1;
  }
  if (m->hard_end) --to;
  for (int i = from; i < to; ++i) {
    const char* f = strstr(pos, m->parts[i]);
    if (!f) return 0;
    pos = f + m->lens[i];
  }
  if (!m->hard_end || to < from) return 1;
  // Occurrences of the last part are taken left to right without overlap.
  const char* term_end = term + strlen(term);
  const char* last = m->parts[m->nparts - 1];
  size_t llen = m->lens[m->nparts - 1];
  for (;;) {
    const char* f = strstr(pos, last);
    if (!f) return 0;
    if (f + llen == term_end) return 1;
    pos = f + llen;
  }
}

int getMatcherType(void* vm) {
  st_matcher* m = (st_matcher*)vm;
  if (!m) return -1;
  if (m->single_word) return 4;
  if (m->nparts > 0) return 3;
  if (m->hard_start && m->hard_end) return 2;
  if (m->hard_start) return 1;
  if (m->hard_end) return 0;
  return -1;
}

const char* getHardStart(void* vm) {
  st_matcher* m = (st_matcher*)vm;
  return m && m->hard_start && m->nparts > 0 ? m->parts[0] : NULL;
}

const char* getHardEnd(void* vm) {
  st_matcher* m = (st_matcher*)vm;
  return m && m->hard_end && m->nparts > 0 ? m->parts[m->nparts - 1] : NULL;
}

const char* getWord(void* vm, int i) {
  st_matcher* m = (st_matcher*)vm;
  return m && i >= 0 && i < m->nparts ? m->parts[i] : NULL;
}

void debugOpaqueMatcher(void* vm) {
  st_matcher* m = (st_matcher*)vm;
  if (!m) {
    fprintf(stderr, "matcher: null\n");
    return;
  }
  fprintf(stderr, "matcher: parts=%d hard_start=%d hard_end=%d single=%d type=%d\n", m->nparts, m->hard_start,
          m->hard_end, m->single_word, getMatcherType(m));
  for (int i = 0; i < m->nparts; ++i) fprintf(stderr, "  part[%d]=\"%s\"\n", i, m->parts[i]);
}

// ---------------------------------------------------------------------------
// Query

typedef struct query_ctx {
  st_warm_slice* ws;
  st_pl_reader* reader;
  uint32_t* cand;     // candidate value numbers, ascending
  uint32_t ncand;
  int all;            // every value is a candidate; cand not filled
  unsigned char* bits;
  int by_value;       // mark bits by value number, else by candidate position
  int reversed;       // term ids come from the reversed lexicon
  void* matcher;
  int32_t start, end;
} query_ctx;

static inline void set_bit(unsigned char* b, uint64_t i) { b[i >> 3] |= (unsigned char)(1u << (i & 7)); }
static inline int get_bit(const unsigned char* b, uint64_t i) { return (b[i >> 3] >> (i & 7)) & 1; }

// Marks the values of term `id` (a forward id) that are candidates.
static void mark_term(query_ctx* q, uint32_t id) {
  st_pl_reader* r = q->reader;
  st_pl_reader_seek(r, id);
  if (q->by_value || q->all) {
    for (int64_t v; (v = st_pl_reader_next(r)) >= 0;) set_bit(q->bits, (uint64_t)v);
    return;
  }
  uint32_t j = 0;
  for (int64_t v; j < q->ncand && (v = st_pl_reader_next(r)) >= 0;) {
    while (j < q->ncand && q->cand[j] < (uint32_t)v) ++j;
    if (j < q->ncand && q->cand[j] == (uint32_t)v) set_bit(q->bits, j++);
  }
}

static int term_callback(uint32_t id, const char* term, uint32_t len, void* vctx) {
  (void)len;
  query_ctx* q = (query_ctx*)vctx;
  st_warm_slice* ws = q->ws;
  if (id >= ws->lay.num_terms) return 1;
  if (q->reversed) {
    id = st_warm_slice_rf_map_entry(ws, id);
    if (id >= ws->lay.num_terms) return 1;
  }
  int32_t earliest, latest;
  st_warm_slice_get_metadata(ws, id, NULL, &earliest, &latest);
  if (earliest > q->end || latest < q->start) return 1;
  if (q->matcher && !isMatch(q->matcher, term)) return 1;
  mark_term(q, id);
  return 1;
}

static size_t bit_bytes(uint64_t n) { return (size_t)((n >> 3) + 1); }

// Keeps candidates whose bit (by position or by value) equals `want`.
// Candidates become explicit; returns the new count, or -1 out of memory.
static int64_t filter_candidates(query_ctx* q, int by_value, int want) {
  if (q->all) {
    uint32_t nv = q->ws->lay.num_values, n = 0;
    for (uint32_t v = 0; v < nv; ++v) n += get_bit(q->bits, v) == want;
    uint32_t* c = (uint32_t*)malloc(sizeof(uint32_t) * (n ? n : 1));
    if (!c) return -1;
    n = 0;
    for (uint32_t v = 0; v < nv; ++v)
      if (get_bit(q->bits, v) == want) c[n++] = v;
    free(q->cand);
    q->cand = c;
    q->ncand = n;
    q->all = 0;
    return n;
  }
  uint32_t n = 0;
  for (uint32_t j = 0; j < q->ncand; ++j)
    if (get_bit(q->bits, by_value ? q->cand[j] : j) == want) q->cand[n++] = q->cand[j];
  q->ncand = n;
  return n;
}

static int has_star(const char* s) { return strchr(s, '*') != NULL; }

// Walks a lexicon from `start` with the matcher (if any) active.
static int walk(query_ctx* q, st_fclex_handle* lex, const char* from, int reversed, void* matcher) {
  q->reversed = reversed;
  q->matcher = matcher;
  int rc = st_fclex_apply(lex, from, term_callback, q);
  q->reversed = 0;
  q->matcher = NULL;
  return rc;
}

// Marks, by value number, every value of a wildcard pattern's terms.
static int mark_wildcard(query_ctx* q, const char* pattern) {
  void* m = createMatcher(pattern);
  if (!m) return 0;
  walk(q, q->ws->flex, getHardStart(m), 0, m);
  freeOpaqueMatcher(m);
  return 0;
}

// Marks, by value number, the values of the OR or NOT group.
static void mark_group(query_ctx* q, const st_strlist* kw, const st_strlist* pre, const st_strlist* suf) {
  for (uint32_t i = 0; i < kw->count; ++i) {
    if (has_star(kw->strs[i])) {
      mark_wildcard(q, kw->strs[i]);
    } else {
      uint32_t id = st_fclex_get(q->ws->flex, kw->strs[i]);
      if (id != ST_FCLEX_NONE) term_callback(id, kw->strs[i], 0, q);
    }
  }
  for (uint32_t i = 0; i < pre->count; ++i) walk(q, q->ws->flex, pre->strs[i], 0, NULL);
  for (uint32_t i = 0; i < suf->count; ++i) walk(q, q->ws->rlex, suf->strs[i], 1, NULL);
}

typedef struct found_term {
  uint32_t id, count;
} found_term;

static int found_compare(const void* a, const void* b) {
  const found_term* x = (const found_term*)a;
  const found_term* y = (const found_term*)b;
  if (x->count != y->count) return x->count < y->count ? -1 : 1;
  return x->id < y->id ? -1 : x->id > y->id;
}

// Reads term id's list as the first set of candidates.
static int64_t decompress_list_as_conjunction(query_ctx* q, uint32_t id, uint32_t count) {
  // A list holds distinct value numbers, so never more than the slice's
  // values, whatever its stated count (merged counts overstate).
  if (count > q->ws->lay.num_values) count = q->ws->lay.num_values;
  uint32_t* c = (uint32_t*)malloc(sizeof(uint32_t) * (count ? count : 1));
  if (!c) return -1;
  st_pl_reader_seek(q->reader, id);
  uint32_t n = 0;
  for (int64_t v; n < count && (v = st_pl_reader_next(q->reader)) >= 0;)
    if (n == 0 || (uint32_t)v > c[n - 1]) c[n++] = (uint32_t)v;
  free(q->cand);
  q->cand = c;
  q->ncand = n;
  q->all = 0;
  return n;
}

// Intersects term id's list into the candidates, in place.
static uint32_t intersect(query_ctx* q, uint32_t id) {
  st_pl_reader_seek(q->reader, id);
  uint32_t n = 0, j = 0;
  int64_t v = st_pl_reader_next(q->reader);
  while (v >= 0 && j < q->ncand) {
    if (q->cand[j] < (uint32_t)v) {
      ++j;
    } else if (q->cand[j] > (uint32_t)v) {
      v = st_pl_reader_next(q->reader);
    } else {
      q->cand[n++] = q->cand[j++];
      v = st_pl_reader_next(q->reader);
    }
  }
  q->ncand = n;
  return n;
}

static const void* time_key(void* ctx, const void* elem) {
  const st_warm_slice* ws = (const st_warm_slice*)ctx;
  return ws->values + 8 * (uint64_t)*(const uint32_t*)elem;
}

// The same over the value table itself (8 bytes a value, time first).
static const void* value_time_key(void* ctx, const void* elem) {
  (void)ctx;
  return elem;
}

// Keys are big-endian signed times; the array runs from newest to oldest.
static int time_cmp(void* ctx, const void* a, const void* b) {
  (void)ctx;
  int32_t x = (int32_t)st_get_be32(a), y = (int32_t)st_get_be32(b);
  return y > x ? 1 : y == x ? 0 : -1;
}

static int run_query(query_ctx* q, const st_query_spec* spec, st_tsval* answers, uint32_t capacity, uint32_t* skip);

int st_warm_slice_query(st_warm_slice* ws, const st_query_spec* spec, st_tsval* answers, uint32_t capacity,
                        uint32_t* skip) {
  assert(ws && spec);
  query_ctx q;
  memset(&q, 0, sizeof q);
  q.ws = ws;
  q.all = 1;
  q.ncand = ws->lay.num_values;
  q.start = spec->start;
  q.end = spec->end;
  q.reader = (st_pl_reader*)malloc(sizeof *q.reader);
  if (!q.reader) return -1;
  st_pl_reader_init(q.reader, ws);
  int rc = run_query(&q, spec, answers, capacity, skip);
  if (q.reader->bad) {
    // A list the query read was corrupt: its answers can't be trusted.
    rc = -1;
    errno = EBADMSG;
  }
  free(q.reader);
  free(q.cand);
  free(q.bits);
  return rc;
}

static int run_query(query_ctx* q, const st_query_spec* spec, st_tsval* answers, uint32_t capacity, uint32_t* skip) {
  st_warm_slice* ws = q->ws;
  const uint32_t nv = ws->lay.num_values;

  // 1-3: exact AND keywords narrow the window, then shortest lists first.
  const st_strlist* and_kw = &spec->and_keywords;
  found_term* found = NULL;
  uint32_t nfound = 0;
  if (and_kw->count) {
    found = (found_term*)malloc(sizeof(found_term) * and_kw->count);
    if (!found) return -1;
  }
  for (uint32_t i = 0; i < and_kw->count; ++i) {
    uint32_t id = st_fclex_get(ws->flex, and_kw->strs[i]);
    if (id != ST_FCLEX_NONE && id < ws->lay.num_terms) {
      uint32_t count;
      int32_t earliest, latest;
      st_warm_slice_get_metadata(ws, id, &count, &earliest, &latest);
      found[nfound].id = id;
      found[nfound++].count = count;
      if (earliest > q->start) q->start = earliest;
      if (latest < q->end) q->end = latest;
    } else if (!has_star(and_kw->strs[i])) {
      free(found);
      return 0;
    }
  }
  if (q->start > q->end) {
    free(found);
    return 0;
  }
  if (nfound > 1) qsort(found, nfound, sizeof(found_term), found_compare);
  int read_one = 0;
  for (uint32_t i = 0; i < nfound; ++i) {
    if (found[i].count == nv) continue;
    if (!read_one) {
      if (decompress_list_as_conjunction(q, found[i].id, found[i].count) < 0) {
        free(found);
        return -1;
      }
      read_one = 1;
    } else {
      intersect(q, found[i].id);
    }
    if (q->ncand == 0) {
      free(found);
      return 0;
    }
  }
  free(found);

  // One bit array, big enough for every value, serves all later steps.
  q->bits = (unsigned char*)malloc(bit_bytes(nv));
  if (!q->bits) return -1;

  // 4: AND prefixes, then AND suffixes, marking candidate positions.
  const st_strlist* lists[2] = {&spec->and_prefixes, &spec->and_suffixes};
  for (int l = 0; l < 2; ++l) {
    for (uint32_t i = 0; i < lists[l]->count; ++i) {
      memset(q->bits, 0, bit_bytes(q->ncand));
      q->by_value = 0;
      walk(q, l == 0 ? ws->flex : ws->rlex, lists[l]->strs[i], l == 1, NULL);
      int64_t n = filter_candidates(q, 0, 1);
      if (n <= 0) return n < 0 ? -1 : 0;
    }
  }

  // 5: AND wildcards, marking value numbers.
  for (uint32_t i = 0; i < and_kw->count; ++i) {
    if (!has_star(and_kw->strs[i])) continue;
    memset(q->bits, 0, bit_bytes(nv));
    q->by_value = 1;
    mark_wildcard(q, and_kw->strs[i]);
    int64_t n = filter_candidates(q, 1, 1);
    if (n <= 0) return n < 0 ? -1 : 0;
  }

  // 6-7: the OR group keeps marked candidates, the NOT group unmarked ones.
  if (spec->or_keywords.count || spec->or_prefixes.count || spec->or_suffixes.count) {
    memset(q->bits, 0, bit_bytes(nv));
    q->by_value = 1;
    mark_group(q, &spec->or_keywords, &spec->or_prefixes, &spec->or_suffixes);
    int64_t n = filter_candidates(q, 1, 1);
    if (n <= 0) return n < 0 ? -1 : 0;
  }
  if (spec->not_keywords.count || spec->not_prefixes.count || spec->not_suffixes.count) {
    memset(q->bits, 0, bit_bytes(nv));
    q->by_value = 1;
    mark_group(q, &spec->not_keywords, &spec->not_prefixes, &spec->not_suffixes);
    int64_t n = filter_candidates(q, 1, 0);
    if (n <= 0) return n < 0 ? -1 : 0;
  }

  // 8-9: time cut over the candidates, newest first. When every value is
  // a candidate, position and value number are one: the cut runs over the
  // value table itself, and no list of candidates is made (a query of a
  // time window of a large slice then costs the window, not the slice).
  if (q->ncand == 0) return 0;
  unsigned char lower[4], upper[4];
  st_put_be32(lower, (uint32_t)q->end);
  st_put_be32(upper, (uint32_t)q->start);
  int64_t first = 0, last = (int64_t)(q->all ? nv : q->ncand) - 1;
  int hr = q->all ? st_heur_search(ws, ws->values, 8, &first, &last, lower, upper, value_time_key, time_cmp, NULL)
                  : st_heur_search(ws, q->cand, sizeof(uint32_t), &first, &last, lower, upper, time_key, time_cmp,
                                   NULL);
  if (hr == 2) return 0;
  if (hr == 1) return -1;
  const int identity = q->all;

  // 10: counting only.
  if (capacity == 0) return (int)(last - first);

  // 11: passing over the first *skip live answers.
  if (skip && *skip > 0 && first < last) {
    uint32_t passed = 0;
    int64_t pos = first;
    while (pos <= last && passed < *skip) {
      // The deletion test looks at the position, not the value at it.
      if (!st_warm_slice_is_deleted(ws, (uint32_t)pos)) ++passed;
      ++pos;
    }
    *skip -= passed;
    first = pos;
  }

  // 12: decode, dropping deleted values.
  uint32_t kept = 0;
  for (int64_t pos = first; pos <= last && kept < capacity; ++pos) {
    st_warm_slice_decode_tsval(ws, identity ? (uint32_t)pos : q->cand[pos], &answers[kept]);
    if (answers[kept].source != ST_DELETED_SOURCE) ++kept;
  }
  return (int)kept;
}

int st_warm_slice_get(st_warm_slice* ws, const char* term, int32_t start, int32_t end, st_tsval* answers,
                      uint32_t capacity, uint32_t* skip) {
  st_query_spec spec;
  memset(&spec, 0, sizeof spec);
  spec.start = start;
  spec.end = end;
  char* one[1] = {(char*)term};
  if (term && *term) {
    spec.and_keywords.strs = one;
    spec.and_keywords.count = 1;
  }
  return st_warm_slice_query(ws, &spec, answers, capacity, skip);
}
