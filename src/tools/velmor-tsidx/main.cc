// velmor-tsidx: a small shell over the time-series index engine, for
// scripting and for looking into an index directory by hand. Reads use a
// forked engine handle (unless VELMOR_ST_NEVER_FORK is set), whose child
// the process runner starts: this process forks nothing but the runner.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "SliceSections.h"
#include "pipeline/indexer/EngineRunnerScope.h"
#include "searchthing/ipcver.h"

namespace {

const char kUsage[] =
    "usage: velmor-tsidx COMMAND DIR [ARGS...]\n"
    "Commands:\n"
    "  put DIR TIME ADDR TERM...     index the value (TIME, ADDR) under each TERM\n"
    "  put-file DIR FILE             one value per line: \"TIME ADDR TERM...\" (FILE '-' is stdin)\n"
    "  tokenize DIR TIME ADDR TEXT   break TEXT into terms and index the value under each\n"
    "  sync DIR                      write any unsynced postings (a no-op for a fresh process)\n"
    "  query DIR [--from T] [--to T] [--limit N] [--count] WORD...\n"
    "                                WORD is a term, prefix*, *suffix or a wild*card;\n"
    "                                OR:WORD joins the any-of group, NOT:WORD the none-of group\n"
    "  get DIR [--from T] [--to T] [--limit N] TERM\n"
    "  meta DIR [TERM]               count, earliest and latest time of TERM (or of the index)\n"
    "  enum DIR [--reversed] [--limit N] [PREFIX]\n"
    "                                terms with their posting counts\n"
    "  optimize DIR [-f]             merge slices until the size rule stops (-f: down to one)\n"
    "  sections DIR                  bytes of each slice by section, and their sum per value and term\n"
    "Answers print as: TIME ADDR TYPE SOURCE SOURCETYPE HOST\n"
    "Exit status: 0 success, 1 the engine failed, 2 bad usage or input.\n";

int usageError(const char* fmt, const char* arg) {
  fprintf(stderr, "velmor-tsidx: ");
  fprintf(stderr, fmt, arg);
  fprintf(stderr, "\n(velmor-tsidx --help lists the commands)\n");
  return 2;
}

int engineError(const char* what, const char* dir) {
  fprintf(stderr, "velmor-tsidx: %s failed on %s: %s\n", what, dir, strerror(errno));
  return 1;
}

bool parseLong(const char* s, long lo, long hi, long* out) {
  if (!s || !*s) return false;
  errno = 0;
  char* end;
  long v = strtol(s, &end, 10);
  if (errno || *end || v < lo || v > hi) return false;
  *out = v;
  return true;
}

// Options shared by query, get and enum; non-options are collected in words.
struct ReadOptions {
  int32_t from = INT32_MIN, to = INT32_MAX;
  uint32_t limit = 100;
  bool count = false, reversed = false;
  std::vector<std::string> words;
};

int parseReadOptions(int argc, char** argv, int i, ReadOptions* o) {
  for (; i < argc; ++i) {
    std::string a = argv[i];
    long v;
    if (a == "--from" || a == "--to") {
      if (!parseLong(i + 1 < argc ? argv[i + 1] : nullptr, INT32_MIN, INT32_MAX, &v))
        return usageError("%s needs a time in seconds", a.c_str());
      (a == "--from" ? o->from : o->to) = static_cast<int32_t>(v);
      ++i;
    } else if (a == "--limit") {
      if (!parseLong(i + 1 < argc ? argv[i + 1] : nullptr, 1, 10000000, &v))
        return usageError("%s needs a number from 1 to 10000000", a.c_str());
      o->limit = static_cast<uint32_t>(v);
      ++i;
    } else if (a == "--count") {
      o->count = true;
    } else if (a == "--reversed") {
      o->reversed = true;
    } else if (a.size() > 2 && a.compare(0, 2, "--") == 0) {
      return usageError("unknown option '%s'", a.c_str());
    } else {
      o->words.push_back(a);
    }
  }
  return 0;
}

void printAnswers(const st_tsval* v, int n) {
  for (int i = 0; i < n; ++i)
    printf("%d %u %u %u %u %u\n", v[i].time, v[i].address, v[i].type, v[i].source, v[i].source_type, v[i].host);
}

// The nine lists of a query, built from the command line's words.
struct QueryLists {
  std::vector<std::string> lists[9];  // the st_query_spec order: AND/OR/NOT keywords, prefixes, suffixes
  std::vector<char*> ptrs[9];

  bool add(std::string word) {
    int group = 0;  // 0 AND, 1 OR, 2 NOT
    if (word.compare(0, 3, "OR:") == 0) {
      group = 1;
      word.erase(0, 3);
    } else if (word.compare(0, 4, "NOT:") == 0) {
      group = 2;
      word.erase(0, 4);
    }
    if (word.empty()) return false;
    size_t stars = 0;
    for (char c : word) stars += c == '*';
    int kind = 0;  // 0 keyword (a wildcard if it holds '*'), 1 prefix, 2 suffix
    if (stars == 1 && word.size() > 1 && word.back() == '*') {
      kind = 1;
      word.pop_back();
    } else if (stars == 1 && word.size() > 1 && word.front() == '*') {
      kind = 2;
      word = std::string(word.rbegin(), word.rend() - 1);  // suffixes go in reversed
    }
    lists[kind * 3 + group].push_back(word);
    return true;
  }

  void fill(st_query_spec* q) {
    st_strlist* out[9] = {&q->and_keywords, &q->or_keywords,  &q->not_keywords,
                          &q->and_prefixes, &q->or_prefixes,  &q->not_prefixes,
                          &q->and_suffixes, &q->or_suffixes,  &q->not_suffixes};
    for (int i = 0; i < 9; ++i) {
      for (std::string& s : lists[i]) ptrs[i].push_back(s.data());
      out[i]->strs = ptrs[i].empty() ? nullptr : ptrs[i].data();
      out[i]->count = static_cast<uint32_t>(ptrs[i].size());
    }
  }
};

int putLine(st_handle* h, const std::vector<std::string>& f, const char* where) {
  long t, a;
  if (f.size() < 3) return usageError("%s: need TIME ADDR TERM...", where);
  if (!parseLong(f[0].c_str(), INT32_MIN, INT32_MAX, &t)) return usageError("%s: bad time", where);
  if (!parseLong(f[1].c_str(), 0, UINT32_MAX, &a)) return usageError("%s: bad address", where);
  for (size_t i = 2; i < f.size(); ++i) {
    if (st_put(h, f[i].c_str(), static_cast<int32_t>(t), static_cast<uint32_t>(a), 0, 0, 0, 0) != 0) return 1;
  }
  return 0;
}

int cmdPutFile(st_handle* h, const char* dir, const char* file) {
  FILE* in = strcmp(file, "-") == 0 ? stdin : fopen(file, "r");
  if (!in) {
    fprintf(stderr, "velmor-tsidx: cannot read %s: %s\n", file, strerror(errno));
    return 2;
  }
  char* line = nullptr;
  size_t cap = 0;
  long lineno = 0;
  int rc = 0;
  while (rc == 0 && getline(&line, &cap, in) >= 0) {
    ++lineno;
    std::vector<std::string> f;
    for (char* tok = strtok(line, " \t\r\n"); tok; tok = strtok(nullptr, " \t\r\n")) f.push_back(tok);
    if (f.empty() || f[0][0] == '#') continue;
    std::string where = std::string(file) + ":" + std::to_string(lineno);
    rc = putLine(h, f, where.c_str());
    if (rc == 1) engineError("put", dir);
  }
  free(line);
  if (in != stdin) fclose(in);
  return rc;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && (strcmp(argv[1], "-h") == 0 || strcmp(argv[1], "--help") == 0)) {
    fputs(kUsage, stdout);
    return 0;
  }
  if (argc < 2) {
    fputs(kUsage, stderr);
    return 2;
  }
  if (argc < 3) return usageError("%s", "no index directory given");
  std::string cmd = argv[1];
  const char* dir = argv[2];
  if (cmd == "sections") {
    if (argc != 3) return usageError("%s takes only DIR", "sections");
    std::vector<SliceSections> slices;
    int skipped = 0;
    if (!readDirectorySections(dir, slices, &skipped)) return engineError("list", dir);
    printSections(slices, skipped, stdout);
    return skipped ? 1 : 0;
  }
  bool writes = cmd == "put" || cmd == "put-file" || cmd == "tokenize" || cmd == "sync" || cmd == "optimize";
  bool reads = cmd == "query" || cmd == "get" || cmd == "meta" || cmd == "enum";
  if (!writes && !reads) return usageError("unknown command '%s'", cmd.c_str());

  EngineRunnerScope runner;
  st_handle* h = st_open_wflags(dir, writes ? 3 : 5);
  if (!h) return engineError("open", dir);
  int rc = 0;
  if (cmd == "put") {
    std::vector<std::string> f(argv + 3, argv + argc);
    rc = putLine(h, f, "put");
    if (rc == 1) engineError("put", dir);
  } else if (cmd == "put-file") {
    rc = argc == 4 ? cmdPutFile(h, dir, argv[3]) : usageError("%s needs exactly one FILE", "put-file");
  } else if (cmd == "tokenize") {
    long t, a;
    if (argc != 6) {
      rc = usageError("%s needs TIME ADDR TEXT", "tokenize");
    } else if (!parseLong(argv[3], INT32_MIN, INT32_MAX, &t) || !parseLong(argv[4], 0, UINT32_MAX, &a)) {
      rc = usageError("%s: bad time or address", "tokenize");
    } else if (st_tokenize(h, argv[5], static_cast<int32_t>(t), static_cast<uint32_t>(a), 0, 0, 0, 0) != 0) {
      rc = engineError("tokenize", dir);
    }
  } else if (cmd == "sync") {
    if (st_sync(h) == -1) rc = engineError("sync", dir);
  } else if (cmd == "optimize") {
    bool force = argc == 4 && strcmp(argv[3], "-f") == 0;
    if (argc > 4 || (argc == 4 && !force)) {
      rc = usageError("%s takes only -f", "optimize");
    } else {
      int r;
      while ((r = st_optimize_ex(h, force ? 1 : 0)) == 0) {
      }
      if (r < 0) rc = engineError("optimize", dir);
    }
  } else {
    ReadOptions o;
    rc = parseReadOptions(argc, argv, 3, &o);
    if (rc == 0 && cmd == "query") {
      QueryLists lists;
      if (o.words.empty()) rc = usageError("%s needs at least one WORD", "query");
      for (const std::string& w : o.words)
        if (rc == 0 && !lists.add(w)) rc = usageError("empty word '%s'", w.c_str());
      if (rc == 0) {
        st_query_spec q;
        st_query_init(&q);
        q.start = o.from;
        q.end = o.to;
        lists.fill(&q);
        // --count counts answers itself: the engine's count form is a
        // per-slice estimate.
        uint32_t capacity = o.count ? (1u << 20) : o.limit;
        std::vector<st_tsval> ans(capacity);
        int n = st_query(h, &q, ans.data(), capacity, 0);
        if (n < 0) {
          rc = engineError("query", dir);
        } else if (o.count) {
          printf("%d\n", n);
        } else {
          printAnswers(ans.data(), n);
        }
      }
    } else if (rc == 0 && cmd == "get") {
      if (o.words.size() != 1) {
        rc = usageError("%s needs exactly one TERM", "get");
      } else {
        std::vector<st_tsval> ans(2 * static_cast<size_t>(o.limit));
        int n = st_get(h, o.words[0].c_str(), o.from, o.to, ans.data(), 2 * o.limit, 0);
        if (n < 0) rc = engineError("get", dir);
        else printAnswers(ans.data(), n);
      }
    } else if (rc == 0 && cmd == "meta") {
      if (o.words.size() > 1) {
        rc = usageError("%s takes at most one TERM", "meta");
      } else {
        st_meta_answer m;
        int r = st_meta(h, o.words.empty() ? nullptr : o.words[0].c_str(), &m);
        if (r < 0) rc = engineError("meta", dir);
        else if (r == 1) printf("count=0\n");
        else printf("count=%d earliest=%d latest=%d\n", m.count, m.earliest, m.latest);
      }
    } else if (rc == 0 && cmd == "enum") {
      if (o.words.size() > 1) {
        rc = usageError("%s takes at most one PREFIX", "enum");
      } else {
        if (o.limit > 30000) o.limit = 30000;  // answers are 2 KB each
        std::vector<st_enum_answer> ans(2 * static_cast<size_t>(o.limit));
        int n = st_enum(h, o.words.empty() ? nullptr : o.words[0].c_str(), o.reversed ? 2 : 1, ans.data(),
                        2 * o.limit);
        if (n < 0) rc = engineError("enum", dir);
        for (int i = 0; i < n; ++i) printf("%s %u\n", ans[i].term, ans[i].value);
      }
    }
  }
  if (st_close(h) != 0 && rc == 0) rc = engineError("close", dir);
  return rc;
}
