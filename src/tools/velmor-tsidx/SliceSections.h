// SliceSections: what the slices of one index directory spend their bytes
// on, section by section, read from each slice's header (no engine handle,
// nothing locked: a slice is immutable once it has its name, and one that
// vanishes under a merge is skipped like any that will not open).
//
// Sections, in file order: values (time and address, 8 bytes a value), the
// attribute arrays (event type, source, source type, host codes and the
// deletion bits), posting list offsets (8 bytes a term), term metadata (12
// bytes a term), rf_map (4 bytes a term), forward lexicon, reversed lexicon,
// postings. Alignment padding is counted with the section before it, so the
// sections of a slice add up to its file size.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "searchthing/warmslice.h"

// One slice (or a sum of them) by section; st_warm_slice_sections reads it.
struct SliceSections {
  static constexpr int kCount = ST_NUM_SECTIONS;
  static const char* const kNames[kCount];

  std::string name;  // file name within the directory ("" for a total)
  uint64_t values = 0, terms = 0, postings = 0;  // postings: the header's statistic
  uint64_t bytes[kCount] = {};

  uint64_t total() const;
  void add(const SliceSections& o);
};

// Reads the sections of one slice file (st_warm_slice_sections). False
// (errno set) when it will not open or is not a whole slice.
bool readSliceSections(const std::string& path, SliceSections& out);

// Every "*.tsidx" of dir, sorted by name. False (errno set) when dir cannot
// be listed; slices that fail to read are left out and counted in *skipped.
bool readDirectorySections(const std::string& dir, std::vector<SliceSections>& out, int* skipped);

// One row per slice and a total row, then the total by section with its
// share, bytes per value and bytes per term.
void printSections(const std::vector<SliceSections>& slices, int skipped, FILE* out);
