#include "SliceSections.h"

#include <dirent.h>

#include <algorithm>
#include <cstring>

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

bool readSliceSections(const std::string& path, SliceSections& out) {
  st_slice_sections s;
  if (st_warm_slice_sections(path.c_str(), &s) != 0) return false;
  out.values = s.num_values;
  out.terms = s.num_terms;
  out.postings = s.num_postings;
  for (int i = 0; i < SliceSections::kCount; ++i) out.bytes[i] = s.bytes[i];
  return true;
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
