// JsonRows: reads the JSON that the service writes for rows back into
// SearchResults: a job's results ("[ {"k": "v", ...}, ... ]") and the
// lines of a live tail (one object per line). Values are strings; a number,
// true/false or an array of strings (a multi-value field, joined by
// newlines) is taken as its text; null leaves the field out. Field names
// keep the order in which they first appear.
//
// Stateless; any thread.
#pragma once

#include "util/Str.h"

class SearchResults;

class JsonRows {
 public:
  // Appends the rows of an array of objects (or of one object) to `out`.
  // False with `err` (naming the byte offset) on text that is not JSON of
  // that shape; rows read before the fault stay.
  static bool parse(const Str& text, SearchResults& out, Str& err);
};
