// velmor-optimize: merges the slices of index directories, one pair per
// step, until the size rule finds nothing more to merge (with -f, until one
// slice is left). The indexer starts it in the background for a directory
// and waits for its exit.
#include <dirent.h>
#include <errno.h>
#include <malloc.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "searchthing/ipcver.h"

static void usage(FILE* out) {
  fprintf(out,
          "usage: velmor-optimize [-f] [-v] DIR...\n"
          "Merges the slices of each index directory DIR, one pair at a time.\n"
          "  -f  force: always merge the two smallest slices, down to one slice\n"
          "  -v  print the number of merges made in each directory\n"
          "  -h  show this help\n"
          "Exit status: 0 all directories done, 1 a merge failed, 2 bad usage.\n");
}

namespace {
// True when the directory holds a slice file ("*.tsidx", gzipped or not);
// also true when it cannot be listed, so that the engine reports why.
bool hasSlices(const char* dir) {
  DIR* d = opendir(dir);
  if (!d) return true;
  bool found = false;
  while (struct dirent* e = readdir(d)) {
    const char* name = e->d_name;
    if (strstr(name, ".tsidx") != nullptr) {
      found = true;
      break;
    }
  }
  closedir(d);
  return found;
}
}  // namespace

int main(int argc, char** argv) {
  // Each merge allocates and frees work arrays of a few megabytes (value
  // maps, decoded lists, the fixed part of the output). Kept in the heap
  // rather than mapped and unmapped every time, the next merge reuses the
  // pages instead of faulting them in afresh.
  mallopt(M_MMAP_THRESHOLD, 256 << 20);
  mallopt(M_TRIM_THRESHOLD, 512 << 20);
  int force = 0, verbose = 0, opt;
  while ((opt = getopt(argc, argv, "fvh")) != -1) {
    switch (opt) {
      case 'f':
        force = 1;
        break;
      case 'v':
        verbose = 1;
        break;
      case 'h':
        usage(stdout);
        return 0;
      default:
        usage(stderr);
        return 2;
    }
  }
  if (optind >= argc) {
    fprintf(stderr, "velmor-optimize: no index directory given\n");
    usage(stderr);
    return 2;
  }
  int status = 0;
  for (int i = optind; i < argc; ++i) {
    const char* dir = argv[i];
    // A bucket with no slice yet (an index nothing was written to) has
    // nothing to merge; that is not a failure.
    if (!hasSlices(dir)) {
      if (verbose) printf("%s: 0 merges (no slices)\n", dir);
      continue;
    }
    st_handle* h = st_open_wflags(dir, 3);
    if (!h) {
      fprintf(stderr, "velmor-optimize: %s: cannot open index directory: %s\n", dir, strerror(errno));
      status = 1;
      continue;
    }
    int merges = 0, rc;
    while ((rc = force ? st_optimize_ex(h, 1) : st_optimize(h)) == 0) ++merges;
    if (rc < 0) {
      fprintf(stderr, "velmor-optimize: %s: merge failed after %d merges: %s\n", dir, merges, strerror(errno));
      status = 1;
    } else if (verbose) {
      printf("%s: %d merges\n", dir, merges);
    }
    st_close(h);
  }
  return status;
}
