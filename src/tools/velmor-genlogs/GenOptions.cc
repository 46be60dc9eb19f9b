#include "GenOptions.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "CivilTime.h"

namespace {

const char* const kFormatNames[kLogFormatCount] = {"syslog", "access", "kv", "java", "json"};

// Digits only, with an optional unit where allowed: KB, MB, GB are decimal
// (10^3, 10^6, 10^9), KiB, MiB, GiB binary (2^10, 2^20, 2^30), and a bare
// K, M or G (either case) is binary too.
bool parseCount(const char* text, uint64_t& value, bool allowSuffix) {
  if (!*text || *text < '0' || *text > '9') return false;
  errno = 0;
  char* end = nullptr;
  const unsigned long long v = std::strtoull(text, &end, 10);
  if (errno == ERANGE) return false;
  struct Unit {
    const char* name;
    uint64_t mult;
  };
  static const Unit kUnits[] = {
      {"K", 1ULL << 10},      {"k", 1ULL << 10},      {"M", 1ULL << 20},      {"m", 1ULL << 20},
      {"G", 1ULL << 30},      {"g", 1ULL << 30},      {"KiB", 1ULL << 10},    {"MiB", 1ULL << 20},
      {"GiB", 1ULL << 30},    {"KB", 1000},           {"kB", 1000},           {"MB", 1000 * 1000},
      {"GB", 1000ULL * 1000 * 1000},
  };
  uint64_t mult = 1;
  if (*end) {
    if (!allowSuffix) return false;
    const Unit* u = std::begin(kUnits);
    while (u != std::end(kUnits) && std::strcmp(end, u->name) != 0) ++u;
    if (u == std::end(kUnits)) return false;
    mult = u->mult;
  }
  if (v > UINT64_MAX / mult) return false;
  value = v * mult;
  return true;
}

}  // namespace

const char* GenOptions::formatName(LogFormat f) { return kFormatNames[static_cast<unsigned>(f)]; }

const char* GenOptions::usage() {
  return "usage: velmor-genlogs [options]\n"
         "Writes realistic sample logs, the same bytes for the same seed and options.\n"
         "  --seed N          seed of the random sequence (default 1)\n"
         "  --out DIR         output directory; files go to DIR/<host>/<name>.log (default samples)\n"
         "  --size BYTES      total size over all files (default 10000000); a unit may follow:\n"
         "                    KB, MB, GB = 10^3, 10^6, 10^9 bytes; KiB, MiB, GiB = 2^10, 2^20, 2^30;\n"
         "                    K, M, G alone are binary (1000M = 1000 MiB)\n"
         "  --lines N         total number of events instead of a size (a stack trace counts once)\n"
         "  --days N          length of the time span in days (default 1)\n"
         "  --start DATE      first day of the span, YYYY-MM-DD, UTC (default 2026-11-01)\n"
         "  --hosts N         number of hosts (default 6)\n"
         "  --formats LIST    comma-separated subset of syslog,access,kv,java,json (default all)\n"
         "  --csv FILE        also write the web access events as CSV\n"
         "  --help            this text\n"
         "Prints one line per file on standard output, tab-separated: path, lines, bytes,\n"
         "source type, events (a stack trace is one event with the line it follows).\n";
}

std::string GenOptions::parse(int argc, const char* const* argv) {
  int64_t days0 = 0;
  CivilTime::parseDate("2026-11-01", days0);
  startDays = days0;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      help = true;
      continue;
    }
    if (arg.rfind("--", 0) != 0) return "unexpected argument '" + arg + "'";
    // Options take their value either as "--opt=value" or in the next word.
    std::string name = arg, value;
    const size_t eq = arg.find('=');
    if (eq != std::string::npos) {
      name = arg.substr(0, eq);
      value = arg.substr(eq + 1);
    } else {
      if (i + 1 >= argc) return "option " + arg + " needs a value";
      value = argv[++i];
    }
    uint64_t n = 0;
    if (name == "--seed") {
      if (!parseCount(value.c_str(), n, false)) return "bad --seed '" + value + "'";
      seed = n;
    } else if (name == "--out") {
      if (value.empty()) return "empty --out";
      outDir = value;
    } else if (name == "--size") {
      if (!parseCount(value.c_str(), n, true) || n == 0) return "bad --size '" + value + "'";
      sizeBytes = n;
      lines = 0;
    } else if (name == "--lines") {
      if (!parseCount(value.c_str(), n, false) || n == 0) return "bad --lines '" + value + "'";
      lines = n;
    } else if (name == "--days") {
      if (!parseCount(value.c_str(), n, false) || n == 0 || n > 3660) return "bad --days '" + value + "' (1 to 3660)";
      days = static_cast<int>(n);
    } else if (name == "--start") {
      if (!CivilTime::parseDate(value.c_str(), startDays)) return "bad --start '" + value + "' (YYYY-MM-DD)";
    } else if (name == "--hosts") {
      if (!parseCount(value.c_str(), n, false) || n == 0 || n > 10000) return "bad --hosts '" + value + "' (1 to 10000)";
      hosts = static_cast<unsigned>(n);
    } else if (name == "--formats") {
      bool any = false;
      for (bool& f : formats) f = false;
      size_t pos = 0;
      while (pos <= value.size()) {
        const size_t comma = value.find(',', pos);
        const std::string word = value.substr(pos, comma == std::string::npos ? std::string::npos : comma - pos);
        unsigned k = 0;
        while (k < kLogFormatCount && word != kFormatNames[k]) ++k;
        if (k == kLogFormatCount) return "unknown format '" + word + "' in --formats";
        formats[k] = any = true;
        if (comma == std::string::npos) break;
        pos = comma + 1;
      }
      if (!any) return "empty --formats";
    } else if (name == "--csv") {
      if (value.empty()) return "empty --csv";
      csvPath = value;
    } else {
      return "unknown option '" + name + "'";
    }
  }
  return {};
}
