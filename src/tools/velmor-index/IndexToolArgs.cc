#include "tools/velmor-index/IndexToolArgs.h"

#include <cstring>

#include "pipeline/analysis/LeadingTime.h"

namespace {

uint64_t positive(const Str& name, const Str& v, bool zeroOk) {
  uint64_t n = 0;
  bool ok = !v.empty() && v.size() <= 18;
  for (char c : v) ok = ok && c >= '0' && c <= '9';
  if (ok) n = std::stoull(v);
  if (!ok || (!zeroOk && n == 0))
    throw IndexToolArgs::UsageError(Str::fromFormat("--%s needs a %s number, not '%s'", name.c_str(),
                                                    zeroOk ? "non-negative" : "positive", v.c_str()));
  return n;
}

int64_t bound(const Str& name, const Str& v) {
  int64_t t = 0;
  if (!LeadingTime::parseBound(StrSegment(v), t) || t < INT32_MIN || t > INT32_MAX)
    throw IndexToolArgs::UsageError(Str::fromFormat(
        "--%s needs seconds since 1970 or a date like 2026-11-23 or 2026-11-23T10:00:00Z, not '%s'", name.c_str(),
        v.c_str()));
  return t;
}

}  // namespace

const char* IndexToolArgs::usage() {
  return "usage: velmor-index add <index> <file>... [--host H] [--sourcetype T] [--sync-every N]\n"
         "       velmor-index search <index> [<term>...] [--earliest T] [--latest T] [--count N]\n"
         "       velmor-index roll <index>\n"
         "       velmor-index info <index>\n"
         "       velmor-index query '<inner query>' [--user U] [--id QUERYID]\n"
         "Indexes of $VELMOR_HOME, as the indexes configuration names them.\n"
         "  add     adds every line of each file as an event, timed by its leading time stamp\n"
         "          (ISO-8601, syslog, common log, JSON \"time\"); a line without one takes the\n"
         "          time of the stamped line above it (the file's modification time before any)\n"
         "          the source type is --sourcetype, else the file's name without directories,\n"
         "          rotation numbers and extension (/var/log/auth.log.1 -> auth); a long file\n"
         "          reports on stderr at each sync: <file>: <bytes read>/<size> bytes, <events> events\n"
         "  search  prints the events holding every term (no term: every event), newest first:\n"
         "          time, _cd, text; a term is cut into words as a search cuts it, and one of\n"
         "          several words (10.0.0.2, action=delete) must also stand in the text\n"
         "  roll    turns the hot bucket into a warm one\n"
         "  info    lists the buckets with state, time range, event count and size\n"
         "  query   runs an inner query (\"SEARCH <terms> GET events::0-9 OUTPUT velmorui::2.2\")\n"
         "          over every index and prints its result document (exit 0 whatever it says)\n"
         "Times: seconds since 1970, or YYYY-MM-DD[THH:MM:SS[Z|+HH:MM]] (UTC unless a zone is given).\n"
         "Exit status: 0 done, 1 failed, 2 bad usage.\n";
}

IndexToolArgs IndexToolArgs::parse(int argc, const char* const* argv) {
  IndexToolArgs a;
  if (argc < 2) throw UsageError("no command given");
  Str cmd = argv[1];
  if (cmd == "-h" || cmd == "--help" || cmd == "help") return a;
  if (cmd == "add")
    a.command = kAdd;
  else if (cmd == "search")
    a.command = kSearch;
  else if (cmd == "roll")
    a.command = kRoll;
  else if (cmd == "info")
    a.command = kInfo;
  else if (cmd == "query")
    a.command = kQuery;
  else
    throw UsageError("unknown command '" + cmd + "'");

  std::vector<Str> words;
  bool optionsEnded = false;
  for (int i = 2; i < argc; ++i) {
    Str w = argv[i];
    if (optionsEnded || w.size() < 2 || w[0] != '-' || w[1] != '-') {
      words.push_back(w);
      continue;
    }
    if (w == "--") {
      optionsEnded = true;
      continue;
    }
    Str name = w.substr(2), value;
    size_t eq = name.find('=');
    if (eq != Str::npos) {
      value = name.substr(eq + 1);
      name = name.substr(0, eq);
    } else {
      if (i + 1 >= argc) throw UsageError("--" + name + " needs a value");
      value = argv[++i];
    }
    bool forAdd = name == "host" || name == "sourcetype" || name == "sync-every";
    bool forSearch = name == "earliest" || name == "latest" || name == "count";
    bool forQuery = name == "user" || name == "id";
    if (!forAdd && !forSearch && !forQuery) throw UsageError("unknown option --" + name);
    if ((forAdd && a.command != kAdd) || (forSearch && a.command != kSearch) || (forQuery && a.command != kQuery))
      throw UsageError("--" + name + " does not apply to " + cmd);
    if (name == "host") {
      if (value.empty()) throw UsageError("--host needs a value");
      a.host = value;
    } else if (name == "sourcetype") {
      if (value.empty()) throw UsageError("--sourcetype needs a value");
      a.sourceType = value;
    } else if (name == "sync-every") {
      a.syncEvery = positive(name, value, false);
    } else if (name == "user") {
      if (value.empty()) throw UsageError("--user needs a value");
      a.user = value;
    } else if (name == "id") {
      if (value.empty() || value.find_first_of("/\\") != Str::npos || value[0] == '.')
        throw UsageError("--id needs a query id without '/', '\\' or a leading '.'");
      a.queryId = value;
    } else if (name == "earliest") {
      a.earliest = bound(name, value);
    } else if (name == "latest") {
      a.latest = bound(name, value);
    } else {
      a.count = positive(name, value, false);
    }
  }
  if (a.command == kQuery) {
    if (words.size() != 1) throw UsageError("query needs the query text as one argument");
    if (words[0].find_first_not_of(" \t") == Str::npos) throw UsageError("the query text is empty");
    a.queryText = words[0];
    return a;
  }
  if (words.empty()) throw UsageError(cmd + " needs an index name");
  a.index = words[0];
  if (a.index.empty()) throw UsageError("the index name is empty");
  words.erase(words.begin());
  switch (a.command) {
    case kAdd:
      if (words.empty()) throw UsageError("add needs at least one file");
      a.files = words;
      break;
    case kSearch:
      a.terms = words;
      if (a.earliest > a.latest) throw UsageError("--earliest is after --latest");
      break;
    default:
      if (!words.empty()) throw UsageError(cmd + " takes only an index name, not '" + words[0] + "'");
  }
  return a;
}
