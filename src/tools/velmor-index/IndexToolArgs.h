// IndexToolArgs: the command line of velmor-index, read into a plain value.
//
//   add <index> <file>... [--host H] [--sourcetype T] [--sync-every N]
//   search <index> [<term>...] [--earliest T] [--latest T] [--count N]
//   roll <index>
//   info <index>
//   query <inner query text> [--user U] [--id QUERYID]
//
// Options may stand anywhere after the command, as "--name value" or
// "--name=value"; "--" ends them. parse() throws IndexToolArgs::UsageError
// with a one-line text for every mistake (the tool exits 2 on it).
#pragma once

#include <cstdint>
#include <stdexcept>
#include <vector>

#include "util/Str.h"

struct IndexToolArgs {
  class UsageError : public std::runtime_error {
   public:
    explicit UsageError(const Str& msg) : std::runtime_error(msg) {}
  };

  enum Command { kAdd, kSearch, kRoll, kInfo, kQuery, kHelp };

  Command command = kHelp;
  Str index;
  std::vector<Str> files;  // add
  Str host;
  Str sourceType;
  uint64_t syncEvery = 200000;  // events between syncs while adding
  std::vector<Str> terms;       // search
  int64_t earliest = INT32_MIN;
  int64_t latest = INT32_MAX;
  uint64_t count = 100;
  Str queryText;           // query
  Str user = "admin";      // query: the user the query runs for
  Str queryId;             // query: empty makes a fresh id

  // argv[0] is the program name.
  static IndexToolArgs parse(int argc, const char* const* argv);
  static const char* usage();
};
