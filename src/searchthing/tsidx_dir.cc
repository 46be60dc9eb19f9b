#include "searchthing/tsidx_dir.h"

#include <dirent.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <cassert>

#include "searchthing/tsidx.h"

int st_tsidx_parse_name(const char* name, int32_t* latest, int32_t* earliest, long* id) {
  size_t len = strlen(name);
  static const char kExt[] = ".tsidx";
  if (len <= sizeof kExt - 1 || strcmp(name + len - (sizeof kExt - 1), kExt) != 0) return 0;
  int l = 0, e = 0, used = -1;
  long n = 0;
  if (sscanf(name, "%d-%d-%ld%n", &l, &e, &n, &used) != 3 || used < 0) return 0;
  if (strcmp(name + used, kExt) != 0) return 0;
  if (latest) *latest = l;
  if (earliest) *earliest = e;
  if (id) *id = n;
  return 1;
}

int st_slice_in_range(const st_slice_entry* e, int32_t start, int32_t end) {
  return !(e->earliest > end || e->latest < start);
}

static int newest_first(const void* a, const void* b) {
  const st_slice_entry* x = static_cast<const st_slice_entry*>(a);
  const st_slice_entry* y = static_cast<const st_slice_entry*>(b);
  if (x->latest != y->latest) return x->latest > y->latest ? -1 : 1;
  return strcmp(x->path, y->path);
}

int st_slice_list_read(const char* dir, st_slice_list* out) {
  out->e = nullptr;
  out->n = out->cap = 0;
  DIR* d = opendir(dir);
  if (!d) return -1;
  out->cap = 256;
  out->e = static_cast<st_slice_entry*>(malloc(out->cap * sizeof(st_slice_entry)));
  assert(out->e && "unable to allocate warms");
  size_t dlen = strlen(dir);
  struct dirent* de;
  while ((de = readdir(d)) != nullptr) {
    st_slice_entry ent;
    if (!st_tsidx_parse_name(de->d_name, &ent.latest, &ent.earliest, &ent.id)) continue;
    size_t nlen = strlen(de->d_name);
    ent.path = static_cast<char*>(malloc(dlen + 1 + nlen + 1));
    assert(ent.path && "unable to allocate warms");
    memcpy(ent.path, dir, dlen);
    ent.path[dlen] = '/';
    memcpy(ent.path + dlen + 1, de->d_name, nlen + 1);
    if (out->n == out->cap) {
      out->cap *= 2;
      st_slice_entry* grown = static_cast<st_slice_entry*>(realloc(out->e, out->cap * sizeof(st_slice_entry)));
      assert(grown && "unable to reallocate warms");
      out->e = grown;
    }
    out->e[out->n++] = ent;
  }
  closedir(d);
  qsort(out->e, out->n, sizeof(st_slice_entry), newest_first);
  return 0;
}

void st_slice_list_free(st_slice_list* list) {
  for (size_t i = 0; i < list->n; ++i) free(list->e[i].path);
  free(list->e);
  list->e = nullptr;
  list->n = list->cap = 0;
}
