// tsidx_dir: the listing of an index directory. The names of the slice files
// are the only catalogue of an index: "<latest>-<earliest>-<pid><seq>.tsidx".
// A listing is a plain array owned by the caller (st_slice_list_free); it is
// taken afresh by every operation and never cached.
#ifndef VELMOR_SEARCHTHING_TSIDX_DIR_H
#define VELMOR_SEARCHTHING_TSIDX_DIR_H

#include <stddef.h>
#include <stdint.h>

typedef struct st_slice_entry {
  char* path;        // "<dir>/<name>", owned by the list
  int32_t latest;    // newest time in the slice, from its name
  int32_t earliest;  // oldest time
  long id;           // the number at the end of the name
} st_slice_entry;

typedef struct st_slice_list {
  st_slice_entry* e;
  size_t n, cap;
} st_slice_list;

// Lists the slices of dir, newest (by latest time) first. 0, or -1 with
// errno when the directory can't be read.
int st_slice_list_read(const char* dir, st_slice_list* out);
void st_slice_list_free(st_slice_list* list);

// 0 when the slice lies wholly outside [start, end]: its earliest is above
// end or its latest below start.
int st_slice_in_range(const st_slice_entry* e, int32_t start, int32_t end);

#endif
