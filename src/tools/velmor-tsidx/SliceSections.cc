#include "SliceSections.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "searchthing/fclex.h"
#include "searchthing/warmslice.h"

const char* const SliceSections::kNames[kCount] = {
    "values (time, address)", "attribute arrays", "posting list offsets", "term metadata",
    "rf_map",                 "forward lexicon",  "reversed lexicon",     "postings"};

uint64_t SliceSections::total() const {
  uint64_t t = 0;
  for (uint64_t b : bytes) t += b;
  return t;
}

void SliceSections::add(const SliceSections& o) {
  values += o.values;
  terms += o.terms;
  postings += o.postings;
  for (int i = 0; i < kCount; ++i) bytes[i] += o.bytes[i];
}

namespace {

uint64_t be64(const unsigned char* p) {
  uint64_t v = 0;
  for (int i = 0; i < 8; ++i) v = v << 8 | p[i];
  return v;
}

bool preadAll(int fd, void* buf, size_t n, uint64_t off) {
  return pread(fd, buf, n, off_t(off)) == ssize_t(n);
}

}  // namespace

bool readSliceSections(const std::string& path, SliceSections& out) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  bool ok = false;
  unsigned char hdr[64];
  st_warm_layout lay;
  struct stat st;
  if (fstat(fd, &st) == 0 && preadAll(fd, hdr, sizeof hdr, 0) && st_warm_slice_layout(hdr, &lay) == 0) {
    const uint64_t size = uint64_t(st.st_size);
    // The postings end where the last term's list ends (32-bit offsets in
    // the oldest format).
    unsigned char last[8] = {};
    const unsigned width = lay.offsets_64 ? 8 : 4;
    uint64_t postings = 0;
    if (lay.num_terms && preadAll(fd, last, width, lay.pl_offsets_off + width * (uint64_t(lay.num_terms) - 1)))
      postings = width == 8 ? be64(last) : be64(last) >> 32;
    const uint64_t flexSize = st_fclex_size_fd(fd, lay.flex_off);
    const uint64_t rlexOff = lay.flex_off + ((flexSize + 3) & ~uint64_t(3));
    if (lay.flex_off <= size && rlexOff <= size && postings <= size - rlexOff) {
      out.values = lay.num_values;
      out.terms = lay.num_terms;
      out.postings = lay.num_postings;
      out.bytes[1] = lay.pl_offsets_off - lay.values_off - 8 * uint64_t(lay.num_values);
      out.bytes[2] = lay.metadata_off - lay.pl_offsets_off;
      out.bytes[3] = lay.rf_map_off - lay.metadata_off;
      out.bytes[4] = lay.flex_off - lay.rf_map_off;
      out.bytes[5] = rlexOff - lay.flex_off;
      out.bytes[6] = size - rlexOff - postings;
      out.bytes[7] = postings;
      // The header and the gap before the first attribute array go with
      // the values.
      out.bytes[0] = size - (out.bytes[1] + out.bytes[2] + out.bytes[3] + out.bytes[4] + out.bytes[5] +
                             out.bytes[6] + out.bytes[7]);
      ok = true;
    } else {
      errno = EINVAL;
    }
  } else if (errno == 0) {
    errno = EINVAL;
  }
  int saved = errno;
  close(fd);
  errno = saved;
  return ok;
}

bool readDirectorySections(const std::string& dir, std::vector<SliceSections>& out, int* skipped) {
  DIR* d = opendir(dir.c_str());
  if (!d) return false;
  std::vector<std::string> names;
  while (struct dirent* e = readdir(d)) {
    size_t n = strlen(e->d_name);
    if (n > 6 && strcmp(e->d_name + n - 6, ".tsidx") == 0) names.emplace_back(e->d_name);
  }
  closedir(d);
  std::sort(names.begin(), names.end());
  *skipped = 0;
  for (const std::string& n : names) {
    SliceSections s;
    s.name = n;
    if (readSliceSections(dir + "/" + n, s))
      out.push_back(s);
    else
      ++*skipped;
  }
  return true;
}

void printSections(const std::vector<SliceSections>& slices, int skipped, FILE* out) {
  SliceSections all;
  fprintf(out, "%-44s %10s %10s %12s %14s\n", "slice", "values", "terms", "postings", "bytes");
  for (const SliceSections& s : slices) {
    fprintf(out, "%-44s %10llu %10llu %12llu %14llu\n", s.name.c_str(), (unsigned long long)s.values,
            (unsigned long long)s.terms, (unsigned long long)s.postings, (unsigned long long)s.total());
    all.add(s);
  }
  fprintf(out, "%-44s %10llu %10llu %12llu %14llu\n", "all slices", (unsigned long long)all.values,
          (unsigned long long)all.terms, (unsigned long long)all.postings, (unsigned long long)all.total());
  if (skipped) fprintf(out, "(%d slice%s could not be read)\n", skipped, skipped == 1 ? "" : "s");
  fprintf(out, "\n%-24s %14s %7s %10s %10s\n", "section", "bytes", "share", "per value", "per term");
  const double total = double(all.total());
  for (int i = 0; i < SliceSections::kCount; ++i) {
    const double b = double(all.bytes[i]);
    fprintf(out, "%-24s %14llu %6.1f%% %10.2f %10.2f\n", SliceSections::kNames[i],
            (unsigned long long)all.bytes[i], total > 0 ? 100.0 * b / total : 0.0,
            all.values ? b / double(all.values) : 0.0, all.terms ? b / double(all.terms) : 0.0);
  }
  fprintf(out, "%-24s %14llu %6.1f%% %10.2f %10.2f\n", "total", (unsigned long long)all.total(),
          total > 0 ? 100.0 : 0.0, all.values ? total / double(all.values) : 0.0,
          all.terms ? total / double(all.terms) : 0.0);
}
