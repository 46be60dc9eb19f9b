// OutputCSV: `outputcsv [usexml=<bool>] [singlefile=<bool>] [collapse=<bool>]
// [internal=<bool>] [stripcr=<bool>] <filename>` writes the rows as CSV under
// <VELMOR_HOME>/var/run/velmor.
//
// The name may not contain "..", "/" or control bytes; ".csv" is added when
// it does not end so. In memory, or spilled with `singlefile` (default
// true), the rows go to that one file (through a temporary file and a
// rename, so a reader never sees half a file). Spilled with `singlefile`
// false, each chunk becomes result_file_<n>.csv in a directory named after
// the file without ".csv". `collapse` first folds the chunks into chunks of
// `maxresultrows` rows. `internal` also writes "__" fields; `stripcr` drops
// carriage returns from values.
//
// The rows pass on unchanged, and the info gets "%lu bytes written to %s" or
// "No results to write to file (%s).". With `usexml` the rows are instead
// replaced by one row whose "_xml" is the CSV text, escaped, wrapped as
//   <results type='csv'>\n ...csv... \n</results>
// with "<results type='empty'/>" when there are no rows, and the message
// form of ResultsXml when a message is all there is to say. The file itself
// is plain CSV in every case, so inputcsv reads it back. Only the first
// `maxresultrows` rows fit into "_xml"; the rest are left out with a warning.
//
// Not streamable: it sees all rows. One thread at a time.
#pragma once

#include "search/SearchProcessor.h"
#include "util/Pathname.h"

class OutputCSV : public SearchProcessor {
 public:
  explicit OutputCSV(const Str& name);
  static SearchProcessor* create(const Str& name) { return new OutputCSV(name); }

  bool isStreamable() const override { return false; }
  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

  // "var/run/velmor" under VELMOR_HOME: where the file commands read and write.
  static Pathname secureDir();

 private:
  void writeSingle(SearchResults& results, SearchResultsInfo& info, const Pathname& path);
  void writeMulti(SearchResults& results, SearchResultsInfo& info, const Pathname& dir);
  void renderXml(SearchResults& results, SearchResultsInfo& info, const Str& failure);

  Str _fileName;
  bool _useXml = false;
  bool _singleFile = true;
  bool _collapse = false;
  bool _internal = false;
  bool _stripCR = false;
};
