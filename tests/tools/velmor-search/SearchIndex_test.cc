// velmor-search reading real indexes of a scratch installation: the events a
// search prints (the _raw of its rows through outputxml) are, line for line,
// the lines grep finds in the logs that were indexed; reports over every
// event count what grep and awk count; events of two buckets whose times
// interleave come back newest first without duplicates; head keeps the
// newest; time bounds cut exactly; an unknown index finds nothing.
//
// Every child process (the tools and the grep pipelines) runs under
// timeout(1), so a hung search fails the test instead of stalling it.
#include <gtest/gtest.h>

#include "../ToolProcess.h"

#include <stdlib.h>
#include <unistd.h>

#include <limits.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

namespace {

const std::string kSearch = VELMOR_BINARY_DIR "/bin/velmor-search";
const std::string kIndex = VELMOR_BINARY_DIR "/bin/velmor-index";
const std::string kLoghub = VELMOR_SOURCE_DIR "/../shared/data/loghub/";
const char* kLimit = "120";  // seconds any one child may run

// The text of XML character data, for the escapes outputxml writes.
std::string unescape(const std::string& s) {
  std::string out;
  out.reserve(s.size());
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] != '&') {
      out += s[i];
      continue;
    }
    static const std::pair<const char*, char> kEntities[] = {
        {"&amp;", '&'}, {"&lt;", '<'}, {"&gt;", '>'}, {"&apos;", '\''}, {"&quot;", '"'}};
    bool done = false;
    for (const auto& [name, c] : kEntities) {
      size_t n = strlen(name);
      if (s.compare(i, n, name) == 0) {
        out += c;
        i += n - 1;
        done = true;
        break;
      }
    }
    if (!done) out += '&';
  }
  return out;
}

// The _raw values of the result rows in the printed documents, in order.
std::vector<std::string> rawsOf(const std::string& out) {
  static const std::string kOpen = "<field k='_raw'><v xml:space='preserve'>", kClose = "</v></field>";
  std::vector<std::string> raws;
  for (size_t at = out.find(kOpen); at != std::string::npos; at = out.find(kOpen, at)) {
    at += kOpen.size();
    size_t end = out.find(kClose, at);
    if (end == std::string::npos) break;
    raws.push_back(unescape(out.substr(at, end - at)));
    at = end;
  }
  return raws;
}

// The lines a shell pipeline prints, bounded by the time limit.
std::vector<std::string> shellLines(const std::string& cmd) {
  std::string quoted = "'";
  for (char c : cmd) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  quoted += "'";
  std::vector<std::string> out;
  FILE* p = popen(("timeout " + std::string(kLimit) + " sh -c " + quoted).c_str(), "r");
  if (!p) return out;
  char* line = nullptr;
  size_t cap = 0;
  ssize_t n;
  while ((n = getline(&line, &cap, p)) > 0) {
    while (n > 0 && (line[n - 1] == '\n' || line[n - 1] == '\r')) --n;
    out.emplace_back(line, size_t(n));
  }
  free(line);
  pclose(p);
  return out;
}

std::vector<std::string> sorted(std::vector<std::string> v) {
  std::sort(v.begin(), v.end());
  return v;
}

// The numbers of the "evt<n>" words of events, in order.
std::vector<long> evtNumbers(const std::vector<std::string>& raws) {
  std::vector<long> out;
  for (const std::string& r : raws) {
    size_t at = r.find(" evt");
    out.push_back(at == std::string::npos ? -1 : atol(r.c_str() + at + 4));
  }
  return out;
}

class SearchIndexTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (access(kSearch.c_str(), X_OK) != 0 || access(kIndex.c_str(), X_OK) != 0)
      GTEST_SKIP() << "velmor-search or velmor-index not built";
    char tmpl[] = "/tmp/velmor-search-index-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir = tmpl;
    home = dir + "/home";
    db = home + "/var/lib/velmor/db";
    ASSERT_EQ(system((std::string(VELMOR_SOURCE_DIR "/scripts/mkhome.sh ") + home + " >/dev/null").c_str()), 0);
    std::ofstream conf(home + "/etc/bundles/local/indexes.conf");
    conf << "[default]\ndefaultDatabase = lh\n\n";
    for (const char* name : {"lh", "gen"})
      conf << "[" << name << "]\nhomePath = $VELMOR_DB/" << name << "/db\ncoldPath = $VELMOR_DB/" << name
           << "/colddb\nthawedPath = $VELMOR_DB/" << name << "/thaweddb\nmaxResults = 1000000\n"
           << "compressRawdata = true\nmaxDataSize = 750\nmaxTotalDataSizeMB = 500000\n"
           << "frozenTimePeriodInSecs = 2147483647\nmaxWarmDBCount = 1000\n\n";
  }
  void TearDown() override {
    if (!dir.empty() && system(("rm -rf " + dir).c_str()) != 0) ADD_FAILURE() << "cleanup";
  }

  ToolRun run(const std::string& tool, const std::vector<std::string>& args) {
    std::vector<std::string> all{kLimit, tool};
    all.insert(all.end(), args.begin(), args.end());
    return runTool("/usr/bin/timeout", all, dir, {{"VELMOR_HOME", home}, {"VELMOR_DB", db}, {"TZ", "UTC"}});
  }

  void index(const std::vector<std::string>& args) {
    ToolRun r = run(kIndex, args);
    ASSERT_EQ(r.status, 0) << r.err;
  }

  // The raw texts of the events a search prints, in order. The search must
  // exit 0 and print no error message.
  std::vector<std::string> search(const std::string& text) {
    ToolRun r = run(kSearch, {text});
    EXPECT_EQ(r.status, 0) << text << "\n" << r.err;
    EXPECT_EQ(r.out.find("type=\"message\""), std::string::npos) << text << "\n" << r.out.substr(0, 2000);
    return rawsOf(r.out);
  }

  std::string dir, home, db;
};

// The logs, each read as one event per line (every line of these three
// starts with a time stamp the index tool knows, so none is glued to the
// line above).
//
// The words are chosen so that a whole token of the index is exactly a
// grep -w match: each appears only between blanks, brackets, ':' '=' '(' ')'
// '.' or '-' (which both grep and the segmenter treat as word ends), never
// glued by '_' to a neighbour (a word character for grep, a breaker for the
// segmenter: "pam_unix" holds the token "unix" but no grep -w "unix"), and
// only in ASCII. Case differs across the logs ("Failed"/"failed",
// "Invalid"/"invalid"); both sides match case-blind.
TEST_F(SearchIndexTest, EventsFoundEqualGrepLinesOverLoghub) {
  std::vector<std::string> logs;
  for (const char* s : {"Linux", "OpenSSH", "Apache"}) {
    std::string log = kLoghub + s + "/" + s + "_2k.log";
    if (access(log.c_str(), R_OK) != 0) GTEST_SKIP() << "no sample logs under " << kLoghub;
    ASSERT_NO_FATAL_FAILURE(index({"add", "lh", log, "--sourcetype", s}));
    logs.push_back(log);
  }
  // awk 1 ends each file's last line (the logs lack a final newline).
  std::string cat = "awk 1";
  for (const std::string& l : logs) cat += " '" + l + "'";
  cat += " | ";
  struct Case {
    std::string search;  // after "search index=lh "
    std::string grep;    // after the cat of all logs
  };
  const std::vector<Case> cases = {
      // words
      {"failed", "grep -iw failed"},
      {"FAILED", "grep -iw failed"},
      {"session", "grep -iw session"},
      {"invalid", "grep -iw invalid"},
      {"client", "grep -iw client"},
      {"connection", "grep -iw connection"},
      // pairs
      {"failed password", "grep -iw failed | grep -iw password"},
      {"session root", "grep -iw session | grep -iw root"},
      {"user AND invalid", "grep -iw user | grep -iw invalid"},
      // negations
      {"session NOT closed", "grep -iw session | grep -ivw closed"},
      {"error NOT directory", "grep -iw error | grep -ivw directory"},
      {"user NOT invalid NOT root", "grep -iw user | grep -ivw invalid | grep -ivw root"},
      // OR, and OR inside a group
      {"client OR closed", "grep -iwE 'client|closed'"},
      {"( failed OR invalid ) password", "grep -iwE 'failed|invalid' | grep -iw password"},
      {"error NOT ( notice OR directory )", "grep -iw error | grep -ivwE 'notice|directory'"},
      // a phrase: its words as terms, and its text in the event
      {"\"authentication failure\"", "grep -iF 'authentication failure' | grep -iw authentication | grep -iw failure"},
      {"\"session opened\"", "grep -iF 'session opened' | grep -iw session | grep -iw opened"},
      {"\"session opened\" root", "grep -iF 'session opened' | grep -iw session | grep -iw opened | grep -iw root"},
      // a word found nowhere
      {"qzxvbnmw", "grep -iw qzxvbnmw"},
  };
  size_t nonEmpty = 0;
  for (const Case& c : cases) {
    std::vector<std::string> want = sorted(shellLines(cat + c.grep));
    std::vector<std::string> got = sorted(search("search index=lh " + c.search + " | outputxml"));
    nonEmpty += !want.empty();
    EXPECT_EQ(got.size(), want.size()) << c.search;
    EXPECT_TRUE(got == want) << c.search;
  }
  // The grep side found something for all but the missing word, so the
  // equalities above are not vacuous.
  EXPECT_EQ(nonEmpty, cases.size() - 1);

  // Every line is one event, and the index named by the default stanza is
  // searched when the search names none.
  EXPECT_EQ(search("search * | outputxml").size(), shellLines(cat + "cat").size());
  EXPECT_EQ(sorted(search("search sshd failed | outputxml")), sorted(shellLines(cat + "grep -iw sshd | grep -iw failed")));
}

// The rows a report prints through outputxml, each as "field=value" pairs
// joined by blanks in the order printed.
std::vector<std::string> reportRows(const std::string& out) {
  std::vector<std::string> rows;
  size_t at = 0;
  while ((at = out.find("<result ", at)) != std::string::npos) {
    size_t end = out.find("</result>", at);
    if (end == std::string::npos) break;
    std::string row;
    for (size_t f = out.find("<field k='", at); f != std::string::npos && f < end;
         f = out.find("<field k='", f + 1)) {
      size_t k = f + 10, kEnd = out.find('\'', k);
      size_t t = out.find("<text>", kEnd), tEnd = out.find("</text>", t);
      if (t == std::string::npos || tEnd > end) break;
      if (!row.empty()) row += ' ';
      row += out.substr(k, kEnd - k) + "=" + unescape(out.substr(t + 6, tEnd - t - 6));
    }
    rows.push_back(row);
    at = end;
  }
  return rows;
}

// Reports over loghub logs, one source type each, against counts made by
// grep and awk over the same files: counts by source type and by source
// (answered from the index's codes), a count by a word, and hourly counts
// of one log, whose nonzero hours must be awk's hours in order. Each report
// is also run with an eval in front of it, which makes every event go
// through the report as a row: both ways must print the same rows.
TEST_F(SearchIndexTest, ReportsOverLoghubCountWhatGrepCounts) {
  std::vector<std::string> logs;
  for (const char* s : {"Linux", "OpenSSH", "Apache"}) {
    std::string log = kLoghub + s + "/" + s + "_2k.log";
    if (access(log.c_str(), R_OK) != 0) GTEST_SKIP() << "no sample logs under " << kLoghub;
    ASSERT_NO_FATAL_FAILURE(index({"add", "lh", log, "--sourcetype", s}));
    logs.push_back(log);
  }
  auto count = [&](const std::string& file, const std::string& filter) {
    std::vector<std::string> l = shellLines("awk 1 '" + file + "' | " + filter + " | wc -l");
    return l.empty() ? std::string("?") : std::to_string(atol(l[0].c_str()));
  };
  auto report = [&](const std::string& text) {
    ToolRun r = run(kSearch, {text + " | outputxml"});
    EXPECT_EQ(r.status, 0) << text << "\n" << r.err;
    std::vector<std::string> rows = reportRows(r.out);
    // The same report over rows of the events.
    std::string slow = text;
    slow.insert(slow.find(" | "), " | eval unused=1");
    ToolRun s2 = run(kSearch, {slow + " | outputxml"});
    EXPECT_EQ(reportRows(s2.out), rows) << slow;
    return rows;
  };
  struct Case {
    std::string search;
    std::vector<std::string> want;
  };
  const std::vector<Case> cases = {
      {"search index=lh * | stats count by sourcetype",
       {"sourcetype=Apache count=" + count(logs[2], "cat"), "sourcetype=Linux count=" + count(logs[0], "cat"),
        "sourcetype=OpenSSH count=" + count(logs[1], "cat")}},
      {"search index=lh error | stats count", {"count=" + count(logs[0] + "' '" + logs[1] + "' '" + logs[2], "grep -iw error")}},
  };
  for (const Case& c : cases) EXPECT_EQ(report(c.search), c.want) << c.search;
  // Sources are stored as real paths, in name order; a log without the
  // word makes no group.
  std::vector<std::string> bySource;
  for (size_t i : {2, 0, 1}) {
    char real[PATH_MAX];
    ASSERT_NE(realpath(logs[i].c_str(), real), nullptr);
    std::string n = count(logs[i], "grep -iw failed");
    if (n != "0") bySource.push_back(std::string("source=") + real + " count=" + n);
  }
  EXPECT_EQ(bySource.size(), 2u);  // Apache has no "failed"
  EXPECT_EQ(report("search index=lh failed | stats count by source"), bySource);

  // Hours of the OpenSSH log ("Dec 10 06:55:46 ..."): awk's counts of each
  // hour in file order are the timechart's nonzero bins in time order.
  std::vector<std::string> hours = shellLines(
      "awk '{ k = $1 \" \" $2 \" \" substr($3, 1, 2); if (k != last) { if (n) print n; n = 0; last = k } n++ } "
      "END { print n }' '" + logs[1] + "'");
  std::vector<std::string> bins;
  for (const std::string& row : report("search index=lh sourcetype=OpenSSH | timechart span=1h count")) {
    size_t at = row.find(" count=");
    ASSERT_NE(at, std::string::npos) << row;
    if (row.substr(at + 7) != "0") bins.push_back(row.substr(at + 7));
  }
  EXPECT_GT(hours.size(), 3u);
  EXPECT_EQ(bins, hours);
}

// One event a second from 2026-11-20T00:00:00Z for two hours; "evt<n>" and
// "kind<n mod 3>" in each. The even seconds are added first, the hot bucket
// rolled, then the odd seconds added: the two buckets cover the same span,
// so only a merge of both gives the events newest first.
TEST_F(SearchIndexTest, TwoBucketsMergeNewestFirstWithoutDuplicates) {
  const long kEvents = 7200, t0 = 1795132800;  // 2026-11-20T00:00:00Z
  for (int parity = 0; parity < 2; ++parity) {
    std::string log = dir + "/gen" + std::to_string(parity) + ".log";
    {
      std::ofstream f(log);
      for (long i = parity; i < kEvents; i += 2) {
        char buf[128];
        snprintf(buf, sizeof buf, "2026-11-20T%02ld:%02ld:%02ldZ evt%05ld kind%ld\n", i / 3600, (i / 60) % 60, i % 60,
                 i, i % 3);
        f << buf;
      }
    }
    ASSERT_NO_FATAL_FAILURE(index({"add", "gen", log}));
    if (parity == 0) {
      ASSERT_NO_FATAL_FAILURE(index({"roll", "gen"}));
    }
  }

  std::vector<long> want;
  for (long i = kEvents - 1; i >= 0; --i)
    if (i % 3 == 1) want.push_back(i);
  EXPECT_EQ(evtNumbers(search("search index=gen kind1 | outputxml")), want);

  // head keeps the five newest.
  EXPECT_EQ(evtNumbers(search("search index=gen kind1 | head 5 | outputxml")),
            std::vector<long>(want.begin(), want.begin() + 5));
  EXPECT_EQ(evtNumbers(search("search index=gen * | head 5 | outputxml")),
            (std::vector<long>{7199, 7198, 7197, 7196, 7195}));

  // Time bounds: the start is inclusive, the end exclusive (the time words
  // become `_time>=<start> _time<<end>`), within and across the buckets.
  struct Range {
    std::string words;
    std::vector<long> evts;  // newest first
  };
  auto span = [](long from, long to) {
    std::vector<long> v;
    for (long i = to; i >= from; --i) v.push_back(i);
    return v;
  };
  const std::vector<Range> ranges = {
      {"starttimeu::" + std::to_string(t0 + 600) + " endtimeu::" + std::to_string(t0 + 606), span(600, 605)},
      {"_time>=" + std::to_string(t0 + 7195), span(7195, 7199)},
      {"endtimeu::" + std::to_string(t0 + 3), span(0, 2)},
      {"_time<" + std::to_string(t0 + 3), span(0, 2)},
      {"endtimeu::" + std::to_string(t0), {}},
  };
  for (const Range& r : ranges)
    EXPECT_EQ(evtNumbers(search("search index=gen * " + r.words + " | outputxml")), r.evts) << r.words;

  // A word and a negation over both buckets.
  EXPECT_EQ(evtNumbers(search("search index=gen evt03601 OR evt03600 | outputxml")),
            (std::vector<long>{3601, 3600}));
  EXPECT_EQ(search("search index=gen kind1 NOT kind1 | outputxml").size(), 0u);
}

TEST_F(SearchIndexTest, UnknownIndexFindsNothing) {
  std::string log = dir + "/one.log";
  std::ofstream(log) << "2026-11-20T00:00:00Z lonely event\n";
  ASSERT_NO_FATAL_FAILURE(index({"add", "gen", log}));
  EXPECT_EQ(search("search index=gen lonely | outputxml"), std::vector<std::string>{"2026-11-20T00:00:00Z lonely event"});
  ToolRun r = run(kSearch, {"search index=nosuchindex lonely | outputxml"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(rawsOf(r.out).empty()) << r.out;
}

}  // namespace
