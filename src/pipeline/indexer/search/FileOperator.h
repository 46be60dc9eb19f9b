// FileOperator: the `file` command. Reads the lines of a text file as
// events, one row per line.
//
//   file <path> [sourcetype=<st>] [host=<h>]
//
// Each row gets _raw (the line without its line break), _time (the file's
// modification time, whole seconds), _serial (0, 1, ... in file order),
// source (the path as given), host (this machine's name unless host= is
// given) and sourcetype (unless sourcetype= is given: the file's base name
// up to its first "."; "file" when that is empty). At most the result row
// limit of lines are read; a longer file warns with the number read. A file
// that cannot be read fails with "Unable to read the file '<path>': <why>".
//
// One search thread owns the command.
#pragma once

#include "search/SearchProcessor.h"

class FileOperator : public SearchProcessor {
 public:
  explicit FileOperator(const Str& name) : SearchProcessor(name) {}
  static SearchProcessor* create(const Str& name) { return new FileOperator(name); }

  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

  // The source type a file gets by default.
  static Str sourceTypeFromPath(const Str& path);

 private:
  Str _path;
  Str _sourceType;
  Str _host;
};
