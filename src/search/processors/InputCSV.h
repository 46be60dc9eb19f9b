// InputCSV: `inputcsv [keeptempdir=<bool>] [usefilecolumnorder=<bool>]
// [start=<n>] [max=<n>] [chunk=<bool>] <filename>` replaces the rows with
// those of a CSV file under <VELMOR_HOME>/var/run/velmor (the secure
// directory); `internalinputcsv` may also read "__" fields.
//
// The name is taken relative to the secure directory; when no such file
// exists and the name does not end in ".csv", the name with ".csv" is tried.
// The path, with every symbolic link resolved, must stay inside the secure
// directory. The file is first copied into a fresh directory
// inputcsvtmp_<n> of the secure directory (so a writer replacing the file
// meanwhile does no harm); the directory goes with the results unless
// `keeptempdir`. `start` rows are skipped and at most `max` are read. With
// `chunk` the copy is read through the spill machinery: the rows are cut
// into chunk files of `maxresultrows` rows and only the first chunk is
// loaded, so a file larger than memory can be read. `usefilecolumnorder`
// sets the info's column order to the file's header. Lines with the wrong
// number of cells are dropped and counted in one warning.
//
// Not streamable: it makes the rows. One thread at a time.
#pragma once

#include "search/SearchProcessor.h"
#include "search/SearchResults.h"
#include "util/FileStar.h"
#include "util/Pathname.h"

class InputCSV : public SearchProcessor {
 public:
  // The largest `max`, and one more than the largest `start`.
  static constexpr unsigned long kAllRows = SearchResults::kAllRows;

  InputCSV(const Str& name, bool internal);
  static SearchProcessor* create(const Str& name);

  bool isStreamable() const override { return false; }
  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

 private:
  // The file to read, checked against the secure directory.
  Pathname resolve() const;
  // A fresh inputcsvtmp_<n> directory.
  Pathname makeTempDir() const;
  void copyFile(const Pathname& from, const Pathname& to) const;
  // Reads the rows of `f` into `results` (chunk files go to chunkDir);
  // answers the count of lines dropped for a wrong number of cells.
  size_t readRows(SearchResults& results, FileStar f, const Pathname& chunkDir);

  bool _internal;
  bool _keepTempDir = false;
  bool _useFileColumnOrder = false;
  bool _chunk = false;
  unsigned long _start = 0;
  unsigned long _max = kAllRows;
  Str _fileName;
};
