// Layer 3 of the engine: one index directory. Every call lists the
// directory afresh; slice names carry their time range, so slices outside a
// query's range are never opened.
#include "searchthing/tsidx.h"

#include <dirent.h>
#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cassert>

#include "searchthing/hotslice.h"
#include "searchthing/tsidx_dir.h"
#include "searchthing/warmslice.h"

static const size_t kPathMax = 4096;

st_tsidx* st_tsidx_open(const char* path, int flags) {
  if (!path || !*path) {
    errno = EINVAL;
    return nullptr;
  }
  struct stat st;
  if (stat(path, &st) != 0) return nullptr;
  if (!S_ISDIR(st.st_mode)) {
    errno = ENOTDIR;
    return nullptr;
  }
  if ((flags & ST_OPEN_WRITE) && access(path, R_OK | W_OK | X_OK) != 0) return nullptr;
  st_tsidx* t = static_cast<st_tsidx*>(calloc(1, sizeof(st_tsidx)));
  if (!t) return nullptr;
  t->path = strdup(path);
  if (!t->path) {
    free(t);
    errno = ENOMEM;
    return nullptr;
  }
  // Slice names are formed as "<dir>/<name>": no trailing slash.
  size_t len = strlen(t->path);
  while (len > 1 && t->path[len - 1] == '/') t->path[--len] = '\0';
  t->pool_size = t->max_terms = t->max_postings = t->max_values = ST_DEFAULT_HOT_SIZE;
  return t;
}

int st_tsidx_close(st_tsidx* t) {
  if (!t) {
    errno = ENOENT;
    return -1;
  }
  int rc = st_tsidx_sync(t, 0);
  st_hot_slice_close(t->hot);
  free(t->path);
  free(t);
  return rc == -1 ? -1 : 0;
}

int st_tsidx_options(st_tsidx* t, uint64_t pool, uint64_t terms, uint64_t postings, uint64_t values) {
  if (pool) t->pool_size = pool;
  if (terms) t->max_terms = terms;
  if (postings) t->max_postings = postings;
  if (values) t->max_values = values;
  if (t->hot) {
    // A slice its owner's hook would not let out is kept, in its old sizes.
    if (st_tsidx_sync(t, 0) == -1 && st_hot_slice_values(t->hot) != 0) return -1;
    st_hot_slice_close(t->hot);
    t->hot = nullptr;
  }
  return 0;
}

int st_tsidx_autotune(st_tsidx* t, uint64_t budget) {
  t->autotune = budget != 0;
  t->autotune_budget = budget;
  return 0;
}

static uint32_t clamp32(uint64_t v) { return v > 0xFFFFFFFEu ? 0xFFFFFFFEu : static_cast<uint32_t>(v); }

static int make_hot(st_tsidx* t) {
  t->hot = st_hot_slice_create(t->pool_size, clamp32(t->max_terms), clamp32(t->max_postings),
                               clamp32(t->max_values));
  if (!t->hot) {
    errno = ENOMEM;
    return -1;
  }
  return 0;
}

// Sizes each table of the next hot slice from the proportions of this one,
// scaled so that all of them together fill the autotune budget.
static void autotune_sizes(st_tsidx* t) {
  st_hot_slice* h = t->hot;
  uint64_t est = st_hot_slice_size_est(h->pool_used, h->terms_used, h->postings_used, h->values_used);
  double scale = est ? static_cast<double>(t->autotune_budget) / static_cast<double>(est) : 1.0;
  t->pool_size = static_cast<uint64_t>(static_cast<double>(h->pool_used) * scale + ST_DEFAULT_HOT_SIZE);
  t->max_terms = static_cast<uint64_t>(static_cast<double>(h->terms_used) * scale + ST_DEFAULT_HOT_SIZE);
  t->max_postings = static_cast<uint64_t>(static_cast<double>(h->postings_used) * scale + ST_DEFAULT_HOT_SIZE);
  t->max_values = static_cast<uint64_t>(static_cast<double>(h->values_used) * scale + ST_DEFAULT_HOT_SIZE);
  if (t->max_terms & 1) ++t->max_terms;
  if (t->max_values & 1) ++t->max_values;
  if (t->max_terms > 0xFFFFFFFEu) t->max_terms = 0xFFFFFFFEu;
  if (t->max_values > 0xFFFFFFFEu) t->max_values = 0xFFFFFFFEu;
}

// Whether the (reset) hot slice may serve as the next one: autotuning
// settles on nearly the same sizes slice after slice, and a fresh slice of
// some hundred megabytes costs a page fault per page on first touch. Within a
// tenth of every new size the old tables are kept.
static bool near(uint64_t have, uint64_t want) { return have >= want - want / 10 && have <= want + want / 10; }

static bool hot_fits_sizes(const st_tsidx* t) {
  const st_hot_slice* h = t->hot;
  return near(h->pool_size, t->pool_size) && near(h->max_terms, clamp32(t->max_terms)) &&
         near(h->max_postings, clamp32(t->max_postings)) && near(h->max_values, clamp32(t->max_values));
}

// One put with its hash taken; on a full table the slice is written out (and
// with autotune the next one resized) and the put tried again.
static int put_hashed(st_tsidx* t, const char* term, size_t len, uint32_t key, int32_t time, uint32_t address,
                      uint32_t type, uint32_t source, uint32_t source_type, uint32_t host) {
  if (!t->hot && make_hot(t) != 0) return -1;
  for (;;) {
    ++t->put_attempts;
    int rc = st_hot_slice_put_hashed(t->hot, term, len, key, time, address, type, source, source_type, host);
    if (rc == 0) return 0;
    ++t->failed_puts;
    switch (rc) {
      case -1: ++t->full_terms; break;
      case -2: ++t->full_values; break;
      case -3: ++t->full_postings; break;
      default: ++t->full_pool; break;
    }
    // A sync that left the slice full (its owner could not make the values
    // durable) fails the put; one that lost the slice goes on with an empty one.
    if (!t->autotune) {
      if (st_tsidx_sync(t, 0) == -1 && st_hot_slice_values(t->hot) != 0) return -1;
      if (st_hot_slice_put_hashed(t->hot, term, len, key, time, address, type, source, source_type, host) != 0) {
        errno = ENOSPC;
        return -1;
      }
      return 0;
    }
    autotune_sizes(t);
    if (st_tsidx_sync(t, 0) == -1 && st_hot_slice_values(t->hot) != 0) return -1;
    if (!hot_fits_sizes(t)) {
      st_hot_slice_close(t->hot);
      t->hot = nullptr;
      if (make_hot(t) != 0) return -1;
    }
  }
}

int st_tsidx_put(st_tsidx* t, const char* term, int32_t time, uint32_t address, uint32_t type, uint32_t source,
                 uint32_t source_type, uint32_t host) {
  size_t len;
  uint32_t key = st_hot_slice_hash(term, &len);
  return put_hashed(t, term, len, key, time, address, type, source, source_type, host);
}

int st_tsidx_put_terms(st_tsidx* t, const char* terms, size_t n, int32_t time, uint32_t address, uint32_t type,
                       uint32_t source, uint32_t source_type, uint32_t host) {
  // A put mostly waits on the cache misses of its hash slot, then of the
  // term's text and statistics. Hashing kAhead terms ahead lets the slot
  // misses of several puts overlap; kNear puts ahead the slot is likely
  // cached, and the misses behind it are started too.
  enum { kAhead = 8, kNear = 3 };
  struct Pending {
    const char* text;
    size_t len;
    uint32_t key;
  } ring[kAhead];
  const char* next = terms;
  size_t hashed = 0;
  int result = 0;
  for (size_t i = 0; i < n; ++i) {
    while (hashed < n && hashed < i + kAhead) {
      Pending& p = ring[hashed % kAhead];
      p.text = next;
      p.key = st_hot_slice_hash(next, &p.len);
      size_t whole = p.len == ST_MAX_TERM_LEN ? p.len + strlen(next + p.len) : p.len;
      next += whole + 1;
      if (t->hot) st_hot_slice_prefetch_slot(t->hot, p.key);
      ++hashed;
    }
    if (t->hot && i + kNear < hashed) st_hot_slice_prefetch_term(t->hot, ring[(i + kNear) % kAhead].key);
    const Pending& p = ring[i % kAhead];
    if (put_hashed(t, p.text, p.len, p.key, time, address, type, source, source_type, host) != 0) result = -1;
  }
  return result;
}

// Links the temporary to a fresh final name, retrying while the name is
// taken; then removes the temporary. Complains on standard error when the
// link or the unlink fails.
template <typename Namer>
static void link_into_place(const char* tmp, Namer next_name) {
  char final_name[kPathMax];
  int rc = -1;
  for (int attempt = 0; attempt < 10; ++attempt) {
    next_name(final_name, sizeof final_name);
    rc = link(tmp, final_name);
    if (rc == 0 || errno != EEXIST) break;
  }
  if (rc != 0) {
    fprintf(stderr,
            "WARN link command failed. rc=%i Please contact your friendly neighborhood Velmor Support Tech and send "
            "them the following files if you have them:\n\t%s\n\t%s\n",
            rc, tmp, final_name);
    return;
  }
  rc = unlink(tmp);
  if (rc != 0) {
    fprintf(stderr,
            "WARN unlink command failed. rc=%i Please contact your friendly neighborhood Velmor Support Tech and "
            "send them the following files if you have them:\n\t%s\n\t%s\n",
            rc, tmp, final_name);
  }
}

int st_tsidx_sync(st_tsidx* t, int fd_mode) {
  if (!t->hot || st_hot_slice_values(t->hot) == 0) return 0;
  if (t->before_write && (errno = 0, t->before_write(t->before_write_ctx)) != 0) {
    if (errno == 0) errno = EIO;
    return -1;  // the hot slice is kept for a later sync
  }
  char tmp[kPathMax];
  tmp[0] = '\0';
  if (!fd_mode) {
    st_warm_slice* ws = st_warm_slice_create(t->hot, tmp, sizeof tmp, t->path, ".pre-tsidx");
    if (ws) {
      link_into_place(tmp, [&](char* buf, size_t size) { st_warm_slice_filename(buf, size, t->path, ".tsidx", ws); });
      st_hot_slice_reset(t->hot);
      st_warm_slice_close(ws);
      return 0;
    }
    if (tmp[0]) unlink(tmp);
  }
  st_warm_slice_fd_record* rec = st_warm_slice_create_by_fd(t->hot, tmp, sizeof tmp, t->path, ".pre-tsidx");
  if (rec) {
    link_into_place(tmp,
                    [&](char* buf, size_t size) { st_warm_slice_fd_filename(buf, size, t->path, ".tsidx", rec); });
    st_hot_slice_reset(t->hot);
    free(rec);
    return -3;
  }
  int saved = errno;
  if (tmp[0]) unlink(tmp);
  st_hot_slice_reset(t->hot);
  errno = saved ? saved : EIO;
  return -1;
}

int st_tsidx_apply(st_tsidx* t, st_tsidx_apply_fn fn, void* ctx) {
  st_slice_list list;
  if (st_slice_list_read(t->path, &list) != 0) return -1;
  int rc = 0;
  for (size_t i = 0; i < list.n; ++i) {
    st_warm_slice* ws = st_warm_slice_open_fd(list.e[i].path, 0);
    if (!ws) continue;  // a slice that won't open hides its data, nothing more
    int r = fn(ws, list.e[i].path, ctx);
    st_warm_slice_close(ws);
    if (r < 0) {
      rc = r;
      break;
    }
  }
  st_slice_list_free(&list);
  return rc;
}

// Merges the sorted answers b[0..nb) into a[0..*na), both in st_tsval order,
// keeping one of any two equal in time and address and at most cap in all.
// tmp has room for cap.
static void merge_answers(st_tsval* a, uint32_t* na, const st_tsval* b, uint32_t nb, st_tsval* tmp, uint32_t cap) {
  uint32_t i = 0, j = 0, k = 0;
  while (k < cap && (i < *na || j < nb)) {
    int c;
    if (i == *na) c = 1;
    else if (j == nb) c = -1;
    else c = st_tsval_compare(&a[i], &b[j]);
    if (c < 0) {
      tmp[k++] = a[i++];
    } else if (c > 0) {
      tmp[k++] = b[j++];
    } else {
      tmp[k++] = a[i++];
      ++j;
    }
  }
  memcpy(a, tmp, k * sizeof(st_tsval));
  *na = k;
}

namespace {
// Three answer arrays of the same capacity, for st_tsidx_query's merge.
struct merge_buffers {
  st_tsval* merged = nullptr;
  st_tsval* got = nullptr;
  st_tsval* tmp = nullptr;
  uint32_t cap = 0;
  ~merge_buffers() {
    free(merged);
    free(got);
    free(tmp);
  }
};

void merge_buffers_release(merge_buffers* b) {
  free(b->merged);
  free(b->got);
  free(b->tmp);
  b->merged = b->got = b->tmp = nullptr;
  b->cap = 0;
}

// Room for n answers in each; 0, or -1 with nothing held when out of memory.
int merge_buffers_reserve(merge_buffers* b, uint32_t n) {
  if (n <= b->cap) return 0;
  merge_buffers_release(b);
  b->merged = static_cast<st_tsval*>(malloc(n * sizeof(st_tsval)));
  b->got = static_cast<st_tsval*>(malloc(n * sizeof(st_tsval)));
  b->tmp = static_cast<st_tsval*>(malloc(n * sizeof(st_tsval)));
  if (!b->merged || !b->got || !b->tmp) {
    merge_buffers_release(b);
    return -1;
  }
  b->cap = n;
  return 0;
}
}  // namespace

int st_tsidx_query(st_tsidx* t, st_query_spec* q, st_tsval* answers, uint32_t capacity, uint32_t skip) {
  st_slice_list list;
  if (st_slice_list_read(t->path, &list) != 0) return -1;
  int rc = 0;
  if (capacity == 0) {
    for (size_t i = 0; i < list.n; ++i) {
      if (!st_slice_in_range(&list.e[i], q->start, q->end)) continue;
      st_warm_slice* ws = st_warm_slice_open_fd(list.e[i].path, 0);
      if (!ws) continue;
      uint32_t no_skip = 0;
      int r = st_warm_slice_query(ws, q, nullptr, 0, &no_skip);
      st_warm_slice_close(ws);
      if (r > 0) rc += r;
    }
    st_slice_list_free(&list);
    return rc;
  }
  // One slice in range and nothing to pass over: its answers are the
  // answers, without buffers to merge through.
  if (skip == 0) {
    size_t inRange = 0, only = 0;
    for (size_t i = 0; i < list.n; ++i)
      if (st_slice_in_range(&list.e[i], q->start, q->end)) {
        ++inRange;
        only = i;
      }
    if (inRange <= 1) {
      st_warm_slice* ws = inRange ? st_warm_slice_open_fd(list.e[only].path, 0) : nullptr;
      if (ws) {
        uint32_t no_skip = 0;
        rc = st_warm_slice_query(ws, q, answers, capacity, &no_skip);
        st_warm_slice_close(ws);
        if (rc < 0 && errno == EBADMSG) rc = 0;
      }
      st_slice_list_free(&list);
      return rc;
    }
  }
  uint64_t total64 = static_cast<uint64_t>(capacity) + skip;
  uint32_t total = total64 > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<uint32_t>(total64);
  // The three merge buffers of the calling thread are kept from one query
  // to the next (a search asks chunk after chunk with the same capacity):
  // fresh pages for each query cost more than the merge itself. Buffers
  // above kKeepAnswers answers are given back after the query.
  static constexpr uint32_t kKeepAnswers = 1u << 20;
  static thread_local merge_buffers bufs;
  if (merge_buffers_reserve(&bufs, total) != 0) {
    st_slice_list_free(&list);
    errno = ENOMEM;
    return -1;
  }
  st_tsval* merged = bufs.merged;
  st_tsval* got = bufs.got;
  st_tsval* tmp = bufs.tmp;
  uint32_t held = 0;
  for (size_t i = 0; i < list.n; ++i) {
    // Newest first: once the array is full, start has been raised to the
    // oldest answer kept and older slices drop out here.
    if (!st_slice_in_range(&list.e[i], q->start, q->end)) continue;
    st_warm_slice* ws = st_warm_slice_open_fd(list.e[i].path, 0);
    if (!ws) continue;
    uint32_t no_skip = 0;
    int r = st_warm_slice_query(ws, q, got, total, &no_skip);
    st_warm_slice_close(ws);
    // A slice whose lists turn out corrupt hides its own data only, as one
    // that fails to open does.
    if (r < 0 && errno == EBADMSG) continue;
    if (r < 0) {
      rc = -1;
      break;
    }
    merge_answers(merged, &held, got, static_cast<uint32_t>(r), tmp, total);
    if (held == total) q->start = merged[total - 1].time;
  }
  if (rc == 0 && held > skip) {
    rc = static_cast<int>(held - skip);
    memcpy(answers, merged + skip, static_cast<size_t>(rc) * sizeof(st_tsval));
  }
  if (total > kKeepAnswers) merge_buffers_release(&bufs);
  st_slice_list_free(&list);
  return rc;
}

int st_tsidx_get(st_tsidx* t, const char* term, int32_t start, int32_t end, st_tsval* answers, uint32_t capacity,
                 uint32_t skip) {
  uint32_t limit = capacity / 2;
  if (!answers || limit == 0 || start > end) return 0;
  st_slice_list list;
  if (st_slice_list_read(t->path, &list) != 0) return -1;
  uint32_t held = 0;
  int rc = 0;
  for (size_t i = 0; i < list.n; ++i) {
    if (!st_slice_in_range(&list.e[i], start, end)) continue;
    st_warm_slice* ws = st_warm_slice_open_fd(list.e[i].path, 0);
    if (!ws) continue;
    uint32_t no_skip = 0;
    int r = st_warm_slice_get(ws, term, start, end, answers + held, capacity - held, &no_skip);
    st_warm_slice_close(ws);
    if (r < 0 && errno == EBADMSG) continue;  // as in st_tsidx_query
    if (r < 0) {
      rc = -1;
      break;
    }
    held += static_cast<uint32_t>(r);
    st_tsval_qsort(answers, held);
    held = static_cast<uint32_t>(st_tsval_gather(answers, held));
    if (held >= limit) {
      held = limit;
      start = answers[held - 1].time;
    }
  }
  st_slice_list_free(&list);
  if (rc < 0) return -1;
  if (held <= skip) return 0;
  memmove(answers, answers + skip, (held - skip) * sizeof(st_tsval));
  return static_cast<int>(held - skip);
}

int st_tsidx_delete(st_tsidx* t, const char* term, int32_t start, int32_t end, void* ctx, st_delete_callback cb,
                    const st_tsval* filter) {
  st_slice_list list;
  if (st_slice_list_read(t->path, &list) != 0) return -1;
  st_tsval none;
  memset(&none, 0, sizeof none);
  int marked = 0;
  for (size_t i = 0; i < list.n; ++i) {
    if (!st_slice_in_range(&list.e[i], start, end)) continue;
    st_warm_slice* ws = st_warm_slice_open(list.e[i].path, 1);
    if (!ws) continue;
    int r = st_warm_slice_delete(ws, term, start, end, ctx, cb, filter ? filter : &none);
    st_warm_slice_close(ws);
    if (r > 0) marked += r;
  }
  st_slice_list_free(&list);
  return marked;
}

int st_tsidx_meta(st_tsidx* t, const char* term, st_meta_answer* result) {
  st_slice_list list;
  if (st_slice_list_read(t->path, &list) != 0) return -1;
  result->count = 0;
  result->earliest = 0x7FFFFFFF;
  result->latest = INT32_MIN;
  int found = term == nullptr;
  for (size_t i = 0; i < list.n; ++i) {
    st_warm_slice* ws = st_warm_slice_open_fd(list.e[i].path, 0);
    if (!ws) continue;
    uint32_t count = 0;
    int32_t earliest = 0, latest = 0;
    int have = 1;
    if (term) {
      have = st_warm_slice_meta(ws, term, &count, &earliest, &latest) == 0;
    } else {
      count = st_warm_slice_values(ws);
      earliest = list.e[i].earliest;
      latest = list.e[i].latest;
    }
    st_warm_slice_close(ws);
    if (!have) continue;
    found = 1;
    result->count += static_cast<int32_t>(count);
    if (earliest < result->earliest) result->earliest = earliest;
    if (latest > result->latest) result->latest = latest;
  }
  st_slice_list_free(&list);
  return found ? 0 : 1;
}

static int enum_term_compare(const void* a, const void* b) {
  return strcmp(static_cast<const st_enum_answer*>(a)->term, static_cast<const st_enum_answer*>(b)->term);
}

uint32_t st_enum_gather(st_enum_answer* answers, uint32_t n) {
  if (n == 0) return 0;
  uint32_t k = 0;
  for (uint32_t i = 1; i < n; ++i) {
    if (strcmp(answers[k].term, answers[i].term) == 0) {
      answers[k].value += answers[i].value;
    } else if (++k != i) {
      memcpy(&answers[k], &answers[i], sizeof(st_enum_answer));
    }
  }
  return k + 1;
}

int st_tsidx_enum(st_tsidx* t, const char* prefix, int which, st_enum_answer* answers, uint32_t capacity) {
  uint32_t limit = capacity / 2;
  if (!answers || limit == 0) return 0;
  st_slice_list list;
  if (st_slice_list_read(t->path, &list) != 0) return -1;
  uint32_t held = 0;
  for (size_t i = 0; i < list.n; ++i) {
    st_warm_slice* ws = st_warm_slice_open_fd(list.e[i].path, 0);
    if (!ws) continue;
    int r = st_warm_slice_enum(ws, prefix, which, answers + held, limit);
    st_warm_slice_close(ws);
    if (r <= 0) continue;
    held += static_cast<uint32_t>(r);
    qsort(answers, held, sizeof(st_enum_answer), enum_term_compare);
    held = st_enum_gather(answers, held);
    if (held > limit) held = limit;
  }
  st_slice_list_free(&list);
  return static_cast<int>(held);
}

int st_tsidx_is_optimized(st_tsidx* t) {
  st_slice_list list;
  if (st_slice_list_read(t->path, &list) != 0) return -1;
  int rc = list.n == 1 ? 1 : 0;
  st_slice_list_free(&list);
  return rc;
}
