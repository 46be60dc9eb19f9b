// Layer 2 of the engine: argument checks, the private copy of a query, and
// tokenizing, in front of one st_tsidx.
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "searchthing/tsidx.h"

// ---------------------------------------------------------------- query spec

static st_strlist* spec_lists(st_query_spec* q, int i) {
  st_strlist* lists[9] = {&q->and_keywords, &q->or_keywords,  &q->not_keywords,
                          &q->and_prefixes, &q->or_prefixes,  &q->not_prefixes,
                          &q->and_suffixes, &q->or_suffixes,  &q->not_suffixes};
  return lists[i];
}

void st_query_init(st_query_spec* q) { memset(q, 0, sizeof *q); }

int st_query_copy(st_query_spec* dst, const st_query_spec* src) {
  st_query_init(dst);
  dst->start = src->start;
  dst->end = src->end;
  for (int i = 0; i < 9; ++i) {
    const st_strlist* from = spec_lists(const_cast<st_query_spec*>(src), i);
    st_strlist* to = spec_lists(dst, i);
    if (!from->strs || from->count == 0) continue;
    to->strs = static_cast<char**>(calloc(from->count, sizeof(char*)));
    if (!to->strs) goto fail;
    to->count = from->count;
    for (uint32_t j = 0; j < from->count; ++j) {
      to->strs[j] = strdup(from->strs[j] ? from->strs[j] : "");
      if (!to->strs[j]) goto fail;
    }
  }
  return 0;
fail:
  st_query_free(dst);
  errno = ENOMEM;
  return -1;
}

void st_query_free(st_query_spec* q) {
  for (int i = 0; i < 9; ++i) {
    st_strlist* l = spec_lists(q, i);
    for (uint32_t j = 0; l->strs && j < l->count; ++j) free(l->strs[j]);
    free(l->strs);
    l->strs = nullptr;
    l->count = 0;
  }
}

// Walks both strings from their last byte toward the first, stopping when
// either reaches its first byte, then compares those two bytes.
int st_suffix_compare(const char* a, const char* b) {
  size_t la = strlen(a), lb = strlen(b);
  if (la == 0 || lb == 0) return (la > 0) - (lb > 0);
  size_t i = la - 1, j = lb - 1;
  while (i > 0 && j > 0 && a[i] == b[j]) {
    --i;
    --j;
  }
  return static_cast<int>(static_cast<unsigned char>(a[i])) - static_cast<int>(static_cast<unsigned char>(b[j]));
}

static int cmp_strcmp(const void* a, const void* b) {
  return strcmp(*static_cast<char* const*>(a), *static_cast<char* const*>(b));
}

static int cmp_suffix(const void* a, const void* b) {
  return st_suffix_compare(*static_cast<char* const*>(a), *static_cast<char* const*>(b));
}

// Sorts a list and drops repeated strings, freeing them. The suffix order
// can call two different strings equal, so only identical ones are dropped.
static void cleanup_list(st_strlist* l, int suffix) {
  if (!l->strs || l->count < 2) return;
  qsort(l->strs, l->count, sizeof(char*), suffix ? cmp_suffix : cmp_strcmp);
  uint32_t kept = 0;
  for (uint32_t i = 0; i < l->count; ++i) {
    int dup = 0;
    for (uint32_t k = kept; k-- > 0;) {
      int c = suffix ? st_suffix_compare(l->strs[k], l->strs[i]) : strcmp(l->strs[k], l->strs[i]);
      if (c != 0) break;  // only neighbours equal in the order can be identical
      if (strcmp(l->strs[k], l->strs[i]) == 0) {
        dup = 1;
        break;
      }
    }
    if (dup) {
      free(l->strs[i]);
    } else {
      l->strs[kept++] = l->strs[i];
    }
  }
  l->count = kept;
}

void st_query_cleanup(st_query_spec* q) {
  for (int i = 0; i < 9; ++i) cleanup_list(spec_lists(q, i), i >= 6);
}

// ---------------------------------------------------------------- front

st_real_handle* REAL_st_open(const char* path) { return REAL_st_open_wflags(path, 3); }

st_real_handle* REAL_st_open_wflags(const char* path, int flags) {
  if (!path) {
    errno = EINVAL;
    return nullptr;
  }
  st_real_handle* h = static_cast<st_real_handle*>(calloc(1, sizeof(st_real_handle)));
  if (!h) return nullptr;
  h->path = strdup(path);
  h->idx = h->path ? st_tsidx_open(path, flags) : nullptr;
  if (!h->idx) {
    int saved = h->path ? errno : ENOMEM;
    free(h->path);
    free(h);
    errno = saved;
    return nullptr;
  }
  return h;
}

int32_t REAL_st_close(st_real_handle* h) {
  if (!h) {
    errno = ENOENT;
    return -1;
  }
  int rc = st_tsidx_close(h->idx);
  int saved = errno;
  free(h->path);
  free(h);
  errno = saved;
  return rc;
}

#define CHECK_HANDLE(h)  \
  do {                   \
    if (!(h)) {          \
      errno = EINVAL;    \
      return -1;         \
    }                    \
  } while (0)

int32_t REAL_st_options(st_real_handle* h, uint32_t pool, uint32_t terms, uint32_t postings, uint32_t values) {
  CHECK_HANDLE(h);
  // The hot slice needs an even term table of more than 256 rows.
  if (terms != 0 && (terms <= 256 || (terms & 1))) {
    errno = EINVAL;
    return -1;
  }
  return st_tsidx_options(h->idx, pool, terms, postings, values);
}

int32_t REAL_st_autotune(st_real_handle* h, uint64_t budget) {
  CHECK_HANDLE(h);
  return st_tsidx_autotune(h->idx, budget);
}

int32_t REAL_st_put(st_real_handle* h, const char* term, int32_t time, uint32_t address, uint32_t type,
                    uint32_t source, uint32_t source_type, uint32_t host) {
  CHECK_HANDLE(h);
  if (!term) {
    errno = EINVAL;
    return -1;
  }
  return st_tsidx_put(h->idx, term, time, address, type, source, source_type, host);
}

int32_t REAL_st_put_terms(st_real_handle* h, const char* terms, size_t n, int32_t time, uint32_t address,
                          uint32_t type, uint32_t source, uint32_t source_type, uint32_t host) {
  CHECK_HANDLE(h);
  if (!terms && n) {
    errno = EINVAL;
    return -1;
  }
  return st_tsidx_put_terms(h->idx, terms, n, time, address, type, source, source_type, host);
}

// Byte classes of the tokenizer.
static bool is_major(unsigned char c) {
  switch (c) {
    case '\n': case '\r': case ' ': case '"': case '\'': case '(': case ')': case '*': case ',':
    case ';': case '<': case '>': case '[': case ']': case '{': case '|': case '}':
      return true;
    default:
      return false;
  }
}

static bool is_minor(unsigned char c) {
  switch (c) {
    case '#': case '$': case '%': case '&': case '+': case '-': case '.': case '/': case ':':
    case '=': case '?': case '@': case '\\':
      return true;
    default:
      return false;
  }
}

// Puts text[from, to) as one term, cut to the term limit. Empty pieces
// (two breakers in a row) are not put: an empty term would be a probe.
static int put_piece(st_real_handle* h, const char* text, size_t from, size_t to, int32_t time, uint32_t address,
                     uint32_t type, uint32_t source, uint32_t source_type, uint32_t host) {
  if (to <= from) return 0;
  char term[ST_MAX_TERM_LEN + 1];
  size_t len = to - from > ST_MAX_TERM_LEN ? ST_MAX_TERM_LEN : to - from;
  memcpy(term, text + from, len);
  term[len] = '\0';
  return st_tsidx_put(h->idx, term, time, address, type, source, source_type, host) == 0 ? 0 : -1;
}

int32_t REAL_st_tokenize(st_real_handle* h, const char* text, int32_t time, uint32_t address, uint32_t type,
                         uint32_t source, uint32_t source_type, uint32_t host) {
  CHECK_HANDLE(h);
  if (!text) {
    errno = EINVAL;
    return -1;
  }
  size_t major = 0, minor = 0, i = 0;
  int rc = 0;
#define PUT(a, b) \
  rc |= put_piece(h, text, (a), (b), time, address, type, source, source_type, host)
  for (; text[i]; ++i) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    bool maj = is_major(c);
    if (!maj && !is_minor(c)) continue;
    PUT(major, i);
    if (minor > major) PUT(minor, i);
    minor = i + 1;
    if (maj) major = i + 1;
  }
  // At the end only one token goes in: the last minor one if it started
  // later than the major one, else the major one.
  if (minor > major) {
    PUT(minor, i);
  } else {
    PUT(major, i);
  }
#undef PUT
  return rc;
}

int32_t REAL_st_get(st_real_handle* h, const char* term, int32_t start, int32_t end, st_tsval* answers,
                    uint32_t capacity, uint32_t skip) {
  CHECK_HANDLE(h);
  if (!answers || capacity == 0 || start > end) return 0;
  return st_tsidx_get(h->idx, term, start, end, answers, capacity, skip);
}

int32_t REAL_st_query(st_real_handle* h, const st_query_spec* q, st_tsval* answers, uint32_t capacity,
                      uint32_t skip) {
  CHECK_HANDLE(h);
  if (!q || (capacity > 0 && !answers)) {
    errno = EINVAL;
    return -1;
  }
  if (q->start > q->end) return 0;
  // The answers merged across slices are capacity + skip long, held three
  // times over: refuse what can't be meant.
  if (static_cast<uint64_t>(capacity) + skip > ST_MAX_QUERY_ANSWERS) {
    errno = EINVAL;
    return -1;
  }
  st_query_spec copy;
  if (st_query_copy(&copy, q) != 0) return -1;
  st_query_cleanup(&copy);
  int rc = st_tsidx_query(h->idx, &copy, answers, capacity, skip);
  int saved = errno;
  st_query_free(&copy);
  errno = saved;
  return rc;
}

int32_t REAL_st_delete(st_real_handle* h, const char* term, int32_t start, int32_t end, void* ctx,
                       st_delete_callback cb, const st_tsval* filter) {
  CHECK_HANDLE(h);
  if (!term) {
    errno = EINVAL;
    return -1;
  }
  if (start > end) return 0;
  return st_tsidx_delete(h->idx, term, start, end, ctx, cb, filter);
}

int32_t REAL_st_meta(st_real_handle* h, const char* term, st_meta_answer* result) {
  CHECK_HANDLE(h);
  if (!result) {
    errno = EINVAL;
    return -1;
  }
  return st_tsidx_meta(h->idx, term, result);
}

int32_t REAL_st_enum(st_real_handle* h, const char* prefix, int which, st_enum_answer* answers,
                     uint32_t capacity) {
  CHECK_HANDLE(h);
  if (which != 1 && which != 2) {
    errno = EINVAL;
    return -1;
  }
  if (!answers || capacity == 0) return 0;
  return st_tsidx_enum(h->idx, prefix, which, answers, capacity);
}

int32_t REAL_st_is_optimized(st_real_handle* h) {
  CHECK_HANDLE(h);
  return st_tsidx_is_optimized(h->idx);
}

int32_t REAL_st_sync(st_real_handle* h) {
  CHECK_HANDLE(h);
  return st_tsidx_sync(h->idx, 0);
}

int32_t REAL_st_set_before_write(st_real_handle* h, int (*fn)(void* ctx), void* ctx) {
  CHECK_HANDLE(h);
  h->idx->before_write = fn;
  h->idx->before_write_ctx = ctx;
  return 0;
}

int32_t REAL_st_sync_fd(st_real_handle* h) {
  CHECK_HANDLE(h);
  return st_tsidx_sync(h->idx, 1);
}

int32_t REAL_st_optimize(st_real_handle* h) { return REAL_st_optimize_ex(h, 0); }

int32_t REAL_st_optimize_ex(st_real_handle* h, int force) {
  CHECK_HANDLE(h);
  return st_tsidx_optimize(h->idx, force);
}

const char* REAL_st_version(void) { return "VELMOR_VERSION"; }
