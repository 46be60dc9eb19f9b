// GenOptions: the command line of velmor-genlogs, parsed and checked.
//
// parse() fills the options or returns an error text; it never exits, so it
// can be driven from tests. A value type; any thread.
#pragma once

#include <cstdint>
#include <string>

enum class LogFormat : unsigned { Syslog, Access, Kv, Java, Json };
constexpr unsigned kLogFormatCount = 5;

struct GenOptions {
  uint64_t seed = 1;
  std::string outDir = "samples";
  uint64_t sizeBytes = 10 * 1000 * 1000;  // total over all files, when lines == 0
  uint64_t lines = 0;                     // total events over all files; 0: use sizeBytes
  int days = 1;
  int64_t startDays = 0;  // first day of the span, days since the epoch
  unsigned hosts = 6;
  bool formats[kLogFormatCount] = {true, true, true, true, true};
  std::string csvPath;  // empty: no CSV
  bool help = false;

  // Parses argv[1..argc-1]. Returns an empty string on success, otherwise a
  // one-line description of the first fault.
  std::string parse(int argc, const char* const* argv);

  static const char* usage();
  static const char* formatName(LogFormat f);
};
