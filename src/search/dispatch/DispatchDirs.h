// DispatchDirs: where search jobs keep their files, and how those files are
// replaced.
//
// A job lives in <dispatch root>/<sid>; the root is the one subsearches use
// (Subsearch::dispatchRoot(): <VELMOR_HOME>/var/run/velmor/dispatch unless
// the service or a test sets another). A sid names one directory below the
// root and nothing else: an empty sid, ".", "..", or one holding "/" (so
// also "../") is refused with "invalid value of id: ../ not allowed".
//
// writeCsv replaces a job file as a whole: the rows go to "<name>.tmp" in
// the same directory, which is then renamed over the file, so a reader
// polling the file sees the old rows or the new ones, never a part.
//
// Stateless; any thread may call.
#pragma once

#include <vector>

#include "util/Pathname.h"
#include "util/Str.h"

class SearchResults;

class DispatchDirs {
 public:
  static Pathname dispatchRoot();
  // Whether `sid` may name a job directory.
  static bool isValidSid(const Str& sid);
  // The job directory of `sid`. Throws SearchProcessorException "invalid
  // value of id: ../ not allowed" for a sid isValidSid refuses.
  static Pathname dispatchDir(const Str& sid);
  // Writes `rows` (header and rows, internal fields left out) over `path`
  // through "<path>.tmp" and rename(2). With `fields`, exactly those columns
  // in that order; without, every public field by name. False on failure
  // (logged); the file then keeps its old contents.
  static bool writeCsv(const SearchResults& rows, const Pathname& path, const std::vector<Str>* fields = nullptr);
};
