// AddCommand: `velmor add <file>... [--index I] [--sourcetype T] [--host H]`:
// adds files to an index of VELMOR_HOME exactly as `velmor-index add` does
// (the same IndexTool runs: events merged and timed by the props of each
// file, the optimiser after the last file). --index defaults to the
// `defaultDatabase` of indexes.conf.
//
// What the indexer says on standard error is passed on with "velmor: " in
// front. On a terminal its progress lines ("<file>: <bytes read>/<size>
// bytes, <events> events") become one line kept up to date with the
// percentage done.
//
// With --server the command is refused (status 2): files are added on the
// machine that holds the indexes (or followed by the service's inputs).
//
// Used once, on the main thread.
#pragma once

#include <cstdint>

#include "tools/velmor/CliOptions.h"

class AddCommand {
 public:
  explicit AddCommand(const CliOptions& o) : _o(o) {}
  int run();

  // Reads an indexer progress line ("velmor-index: f: 10/20 bytes, 5
  // events"); false for any other line.
  static bool parseProgress(const Str& line, Str& file, uint64_t& done, uint64_t& size, uint64_t& events);
  // An indexer line as this command prints it ("velmor-index: " becomes
  // "velmor: ").
  static Str relabel(const Str& line);

 private:
  const CliOptions& _o;
};
