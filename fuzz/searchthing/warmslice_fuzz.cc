// Arbitrary bytes as a warm slice file: every way of opening it, then lookups
// of the terms it enumerates, prefix, suffix, wildcard, OR and NOT queries,
// metadata and enumeration. Nothing may crash or read outside the file.
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include "searchthing/warmslice.h"

namespace {

void exercise(st_warm_slice* ws) {
  st_enum_answer terms[8];
  int n = st_warm_slice_enum(ws, nullptr, 1, terms, 8);
  st_tsval ans[32];
  for (int i = 0; i < n; ++i) {
    st_warm_slice_get(ws, terms[i].term, INT32_MIN, INT32_MAX, ans, 32, nullptr);
    uint32_t c;
    int32_t lo, hi;
    st_warm_slice_meta(ws, terms[i].term, &c, &lo, &hi);
  }
  char and_kw[] = "e*r", or_kw[] = "a", not_pre[] = "x", pre[] = "", suf[] = "r";
  char* ak[] = {n > 0 ? terms[0].term : and_kw, and_kw};
  char* ok[] = {or_kw, n > 1 ? terms[1].term : or_kw};
  char* np[] = {not_pre};
  char* ap[] = {pre};
  char* sf[] = {suf};
  st_query_spec spec;
  memset(&spec, 0, sizeof spec);
  spec.start = INT32_MIN;
  spec.end = INT32_MAX;
  spec.and_prefixes = {ap, 1};
  spec.or_keywords = {ok, 2};
  spec.not_prefixes = {np, 1};
  spec.or_suffixes = {sf, 1};
  st_warm_slice_query(ws, &spec, ans, 32, nullptr);
  spec.and_keywords = {ak, 2};
  uint32_t skip = 1;
  st_warm_slice_query(ws, &spec, ans, 32, &skip);
  st_warm_slice_query(ws, &spec, nullptr, 0, nullptr);
  st_warm_slice_enum(ws, "a", 2, terms, 8);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  int fd = memfd_create("warmslice_fuzz", 0);
  if (fd < 0) return 0;
  size_t done = 0;
  while (done < size) {
    ssize_t w = write(fd, data + done, size - done);
    if (w <= 0) break;
    done += (size_t)w;
  }
  char path[64];
  snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
  if (st_warm_slice* ws = st_warm_slice_open(path, 0)) {
    exercise(ws);
    st_warm_slice_close(ws);
  }
  if (st_warm_slice* ws = st_warm_slice_open_fd(path, 0)) {
    exercise(ws);
    st_warm_slice_close(ws);
  }
  if (st_warm_slice* ws = st_warm_slice_open(path, 1)) {
    st_warm_slice_delete(ws, "a", INT32_MIN, INT32_MAX, nullptr, nullptr, nullptr);
    exercise(ws);
    st_warm_slice_close(ws);
  }
  close(fd);
  return 0;
}
