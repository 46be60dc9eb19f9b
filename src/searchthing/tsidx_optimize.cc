// One optimisation step of an index directory: choose two slices under the
// directory lock, lock both, merge them, and swap the result in by link.
//
// Pair choice: slices sorted by size ascending; the first neighbours i, i+1
// where twice size i is above size i+1 or size i+1 is at most 999999 bytes
// (forced: the two smallest). So slices of like size merge, small ones
// always, and sizes grow geometrically.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "searchthing/lock.h"
#include "searchthing/osfile.h"
#include "searchthing/tsidx.h"
#include "searchthing/tsidx_dir.h"
#include "searchthing/warmslice.h"
#include "searchthing/warmslice_merge.h"

static const size_t kPathMax = 4096;

struct sized_slice {
  const st_slice_entry* e;
  int64_t size;
};

static int by_size(const void* a, const void* b) {
  const sized_slice* x = static_cast<const sized_slice*>(a);
  const sized_slice* y = static_cast<const sized_slice*>(b);
  if (x->size != y->size) return x->size < y->size ? -1 : 1;
  return strcmp(x->e->path, y->e->path);
}

// Locks path with st_lock, retrying while someone else holds it.
static int lock_slice(const char* path) {
  int rc;
  while ((rc = st_lock(path)) > 0) usleep(10000);
  return rc;
}

// Opens a slice for merging; one that won't open is set aside as
// "<path>-invalid" and never read again.
static st_warm_slice* open_or_set_aside(const char* path) {
  st_warm_slice* ws = st_warm_slice_open(path, 0);
  if (!ws) {
    char invalid[kPathMax];
    if (snprintf(invalid, sizeof invalid, "%s-invalid", path) < (int)sizeof invalid) rename(path, invalid);
  }
  return ws;
}

int st_tsidx_optimize(st_tsidx* t, int force) {
  // A result of 1 (still held by another) goes on as if taken; the unlock
  // below then removes the other's lock.
  if (st_forced_lock(t->path, 10) < 0) return -1;
  st_slice_list list;
  if (st_slice_list_read(t->path, &list) != 0) {
    st_unlock(t->path);
    return -1;
  }
  sized_slice* cands = static_cast<sized_slice*>(malloc((list.n ? list.n : 1) * sizeof(sized_slice)));
  if (!cands) {
    st_slice_list_free(&list);
    st_unlock(t->path);
    errno = ENOMEM;
    return -1;
  }
  size_t n = 0;
  for (size_t i = 0; i < list.n; ++i) {
    int locked = st_islocked(list.e[i].path);
    if (locked < 0) {
      free(cands);
      st_slice_list_free(&list);
      st_unlock(t->path);
      return -1;
    }
    if (locked == 1) continue;
    int64_t size = ospath_get_size(list.e[i].path);
    if (size <= 0) continue;
    cands[n].e = &list.e[i];
    cands[n].size = size;
    ++n;
  }
  if (n == 0) {
    free(cands);
    st_slice_list_free(&list);
    st_unlock(t->path);
    errno = ENOENT;
    return -1;
  }
  qsort(cands, n, sizeof(sized_slice), by_size);
  size_t pick = n;  // past the last pair: nothing to merge
  if (force) {
    if (n >= 2) pick = 0;
  } else {
    for (size_t i = 0; i + 1 < n; ++i) {
      if (2 * cands[i].size > cands[i + 1].size || cands[i + 1].size <= 999999) {
        pick = i;
        break;
      }
    }
  }
  if (pick + 1 >= n) {
    free(cands);
    st_slice_list_free(&list);
    st_unlock(t->path);
    return 1;
  }
  const st_slice_entry* e1 = cands[pick].e;
  const st_slice_entry* e2 = cands[pick + 1].e;
  free(cands);
  if (lock_slice(e1->path) < 0) {
    st_slice_list_free(&list);
    st_unlock(t->path);
    return -1;
  }
  if (lock_slice(e2->path) < 0) {
    st_unlock(e1->path);
    st_slice_list_free(&list);
    st_unlock(t->path);
    return -1;
  }
  st_unlock(t->path);

  int rc = -1;
  st_warm_slice* a = open_or_set_aside(e1->path);
  st_warm_slice* b = open_or_set_aside(e2->path);
  if (a && b) {
    char merge_name[kPathMax], final_name[kPathMax];
    int len = snprintf(merge_name, sizeof merge_name, "%s/%d:%d:%ld-%d:%d:%ld%s", t->path, e1->earliest, e2->earliest,
                       e1->id, e1->latest, e2->latest, e2->id, ".merge");
    // An existing ".merge" of this pair (an interrupted merge) stops it.
    if (len > 0 && len < static_cast<int>(sizeof merge_name) && ospath_try_stat(merge_name) == 0) {
      st_warm_slice* m = st_warm_slice_merge(merge_name, a, b);
      if (m) {
        st_warm_slice_filename(final_name, sizeof final_name, t->path, ".tsidx", m);
        st_warm_slice_close(m);
      }
      st_warm_slice_close(a);
      st_warm_slice_close(b);
      a = b = nullptr;
      if (m && link(merge_name, final_name) == 0) {
        unlink(e1->path);
        unlink(e2->path);
        rc = 0;
      }
      unlink(merge_name);
    } else {
      errno = EEXIST;
    }
  }
  if (a) st_warm_slice_close(a);
  if (b) st_warm_slice_close(b);
  st_unlock(e1->path);
  st_unlock(e2->path);
  st_slice_list_free(&list);
  return rc;
}
