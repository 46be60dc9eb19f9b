// The pieces of the velmor command that turn text into text: the search
// text's normal form and terms, times, the service's JSON rows read back,
// the table, event and row printers, the tail's cursor, the reading of the
// service's replies, the indexer's progress lines and sizes.
#include <gtest/gtest.h>

#include <stdlib.h>
#include <time.h>

#include <set>
#include <string>
#include <vector>

#include "search/SearchResults.h"
#include "tools/velmor/AddCommand.h"
#include "tools/velmor/EventPrinter.h"
#include "tools/velmor/JsonRows.h"
#include "tools/velmor/RowsPrinter.h"
#include "tools/velmor/SearchText.h"
#include "tools/velmor/ServerClient.h"
#include "tools/velmor/StatusCommand.h"
#include "tools/velmor/TableWriter.h"
#include "tools/velmor/TailCursor.h"

namespace {

class UtcZone : public ::testing::Environment {
 public:
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    tzset();
  }
};
const auto* const kZone = ::testing::AddGlobalTestEnvironment(new UtcZone);

// "k=v|k=v" per row, rows joined by ";", fields in dictionary order.
std::string dump(const SearchResults& rows) {
  std::vector<Str> order;
  rows.getColumnOrder(order);
  std::string out;
  for (const SearchResult* r : rows) {
    if (!out.empty()) out += ";";
    std::string one;
    for (const Str& k : order) {
      const Str* v = r->getValuePtr(rows.keyIndex(k));
      if (!v) continue;
      if (!one.empty()) one += "|";
      one += k + "=" + *v;
    }
    out += one;
  }
  return out;
}

// Rows from "k=v|k=v;k=v" (the inverse of dump, no escapes).
SearchResults rowsOf(const std::string& spec) {
  SearchResults rows;
  size_t pos = 0;
  while (pos <= spec.size() && !spec.empty()) {
    size_t end = spec.find(';', pos);
    if (end == std::string::npos) end = spec.size();
    std::string row = spec.substr(pos, end - pos);
    SearchResult* r = rows.addNewResult();
    size_t p = 0;
    while (p < row.size()) {
      size_t bar = row.find('|', p);
      if (bar == std::string::npos) bar = row.size();
      std::string kv = row.substr(p, bar - p);
      size_t eq = kv.find('=');
      r->setValue(rows.keyIndex(Str(kv.substr(0, eq)), true), Str(kv.substr(eq + 1)));
      p = bar + 1;
    }
    pos = end + 1;
  }
  return rows;
}

TEST(SearchText, NormalFormAndTerms) {
  const std::set<std::string> commands{"search", "stats", "inputcsv", "head", "metadata"};
  auto isCommand = [&](const Str& w) { return commands.count(w) > 0; };
  struct Case {
    const char* in;
    const char* out;
  } cases[] = {
      {"error host=web1", "search error host=web1"},
      {"  search error  ", "search error"},
      {"Search error", "Search error"},  // command names ignore case
      {"stats count", "stats count"},
      {"| metadata type=hosts", "| metadata type=hosts"},
      {"error|stats count", "search error|stats count"},
      {"head", "head"},  // a term that names a command must be written "search head"
      {"\"disk full\" NOT debug", "search \"disk full\" NOT debug"},
      {"   ", ""},
  };
  for (const Case& c : cases) EXPECT_EQ(SearchText::normalize(c.in, isCommand), c.out) << c.in;

  struct Terms {
    const char* search;
    std::vector<Str> terms;
  } terms[] = {
      {"search error host=web1 | stats count by host", {"error"}},
      {"search \"disk full\" err* NOT debug (a OR b) AND c", {"disk full", "err", "a", "b", "c"}},
      {"search status>=500 host::web sourcetype=app", {}},
      {"search Error error ERROR", {"Error"}},
      {"search \"a | b\" x", {"a | b", "x"}},
      {"inputcsv file.csv", {"inputcsv", "file.csv"}},
  };
  for (const Terms& t : terms) EXPECT_EQ(SearchText::highlightTerms(t.search), t.terms) << t.search;
}

TEST(SearchText, TimesOfTheSearchLanguage) {
  const time_t now = 1795168800;  // 2026-11-20 10:00:00 UTC, a Friday
  struct Case {
    const char* text;
    bool ok;
    int64_t want;
  } cases[] = {
      {"1700000000", true, 1700000000},
      {"2024-03-10T14:05:00Z", true, 1710079500},
      {"2026-11-20", true, 1795132800},
      {"-15m", true, now - 900},
      {"-1d@d", true, 1795046400},
      {"now", true, now},
      {" -2h ", true, now - 7200},
      {"yesterdayx", false, 0},
      {"", false, 0},
      {"15 minutes ago", false, 0},
  };
  for (const Case& c : cases) {
    int64_t got = 0;
    EXPECT_EQ(SearchText::parseTime(c.text, now, got), c.ok) << c.text;
    if (c.ok) {
      EXPECT_EQ(got, c.want) << c.text;
    }
  }
}

TEST(JsonRows, ReadsWhatTheServiceWrites) {
  struct Case {
    const char* json;
    bool ok;
    const char* rows;  // dump() of what was read
  } cases[] = {
      {"[]", true, ""},
      {"[\n\t{\n\t\t\"host\": \"web1\",\n\t\t\"count\": \"2\"\n\t},\n\t{\n\t\t\"host\": \"web2\"\n\t}\n]", true,
       "host=web1|count=2;host=web2"},
      {"{\"_raw\":\"caf\\u00e9 \\\"q\\\" \\\\ \\/\\t\",\"n\":5,\"t\":true,\"z\":null}", true,
       "_raw=caf\xc3\xa9 \"q\" \\ /\t|n=5|t=true"},
      {"{\"mv\":[\"a\",\"b\",null],\"e\":[]}", true, "mv=a\nb|e="},
      {"{\"s\":\"\\ud83d\\ude00\"}", true, "s=\xf0\x9f\x98\x80"},
      {"{\"s\":\"\\ud83d\"}", true, "s=\xef\xbf\xbd"},  // a lone surrogate
      {"{}", true, ""},
      {"[{\"a\":\"1\"}", false, "a=1"},   // unterminated array: the row read stays
      {"{\"a\" \"b\"}", false, ""},
      {"{\"a\":\"\x01\"}", false, ""},
      {"{\"a\":\"b\"} x", false, "a=b"},
      {"{\"a\":nope}", false, ""},
      {"{\"a\":\"\\q\"}", false, ""},
      {"", false, ""},
  };
  for (const Case& c : cases) {
    SearchResults rows;
    Str err;
    EXPECT_EQ(JsonRows::parse(c.json, rows, err), c.ok) << c.json;
    EXPECT_EQ(dump(rows), c.rows) << c.json;
    if (!c.ok) {
      EXPECT_NE(err.find("bad JSON at byte "), Str::npos) << err;
    }
  }
}

TEST(TableWriter, AlignsReports) {
  struct Case {
    const char* rows;
    const char* table;
  } cases[] = {
      {"host=web1|count=2;host=web22|count=10",
       "host   count\n"
       "-----  -----\n"
       "web1       2\n"
       "web22     10\n"},
      // Numbers right, text left; a row without the field leaves a blank.
      {"a=x|n=1.5;a=longer text|n=-3;n=7",
       "a              n\n"
       "-----------  ---\n"
       "x            1.5\n"
       "longer text   -3\n"
       "               7\n"},
      // Width counts characters, not bytes; newlines print as "; ".
      {"name=caf\xc3\xa9|v=a\nb",
       "name  v\n"
       "----  ----\n"
       "caf\xc3\xa9  a; b\n"},
      {"", ""},
  };
  for (const Case& c : cases) {
    SearchResults rows = rowsOf(c.rows);
    EXPECT_EQ(std::string(TableWriter().format(rows)), c.table) << c.rows;
  }
  // A column that no row has a value for is left out; so are hidden ones
  // but _time.
  SearchResults rows = rowsOf("a=1|_cd=0:1|_time=5");
  rows.keyIndex(Str("empty"), true);
  EXPECT_EQ(std::string(TableWriter().format(rows)), "a  _time\n-  -----\n1      5\n");

  struct Num {
    const char* text;
    bool number;
  } nums[] = {{"12", true}, {"-1.5e3", true}, {"", false}, {"nan", false}, {"0x1f", false}, {"12a", false},
              {"inf", false}};
  for (const Num& n : nums) EXPECT_EQ(TableWriter::isNumber(n.text), n.number) << n.text;
}

TEST(EventPrinter, TimesAndColouredTerms) {
  struct Time {
    const char* in;
    const char* out;
  } times[] = {
      {"1795168800", "2026-11-20 10:00:00"},
      {"1795168800.25", "2026-11-20 10:00:00.250"},
      {"1795168800.9996", "2026-11-20 10:00:01"},
      {"abc", "abc"},
      {"", ""},
  };
  for (const Time& t : times) EXPECT_EQ(EventPrinter::formatTime(t.in), t.out) << t.in;

  const std::string R = "\033[1;31m", E = "\033[0m";
  struct Mark {
    std::vector<Str> terms;
    bool colour;
    const char* text;
    std::string out;
  } marks[] = {
      {{"error"}, true, "Error and ERROR, terror", R + "Error" + E + " and " + R + "ERROR" + E + ", t" + R + "error" + E},
      {{"error"}, false, "Error here", "Error here"},
      {{"disk", "isk f"}, true, "disk full", R + "disk f" + E + "ull"},
      {{}, true, "nothing", "nothing"},
      {{"x"}, true, "", ""},
  };
  for (const Mark& m : marks) EXPECT_EQ(EventPrinter(m.terms, m.colour).highlight(m.text), m.out) << m.text;

  SearchResults rows = rowsOf("_time=1795168800|host=web1|_raw=disk error");
  EXPECT_EQ(EventPrinter({"error"}, false).format(rows, *rows.front()), "2026-11-20 10:00:00 web1 disk error");
  EXPECT_EQ(EventPrinter({"error"}, true).format(rows, *rows.front()),
            "\033[32m2026-11-20 10:00:00" + E + " \033[36mweb1" + E + " disk " + R + "error" + E);
  SearchResults bare = rowsOf("_raw=text only");
  EXPECT_EQ(EventPrinter({}, false).format(bare, *bare.front()), "- - text only");
}

TEST(RowsPrinter, EveryOutputForm) {
  // _cd and _serial are hidden in every form.
  const char* events =
      "_raw=b \"two\"|_time=1795168801|_cd=0:5|host=web2;_raw=a one|_time=1795168800|_serial=1|host=web1";
  const char* report = "host=web1|count=2;host=web2|count=1";
  struct Case {
    const char* rows;
    RowsPrinter::Mode mode;
    const char* out;
  } cases[] = {
      {events, RowsPrinter::kTable, "2026-11-20 10:00:01 web2 b \"two\"\n2026-11-20 10:00:00 web1 a one\n"},
      {events, RowsPrinter::kRaw, "b \"two\"\na one\n"},
      {events, RowsPrinter::kCsv, "\"_raw\",\"_time\",host\n\"b \"\"two\"\"\",1795168801,web2\n\"a one\",1795168800,web1\n"},
      {events, RowsPrinter::kJson,
       "[\n\t{\n\t\t\"_raw\": \"b \\\"two\\\"\",\n\t\t\"_time\": \"1795168801\",\n\t\t\"host\": \"web2\"\n\t},\n"
       "\t{\n\t\t\"_raw\": \"a one\",\n\t\t\"_time\": \"1795168800\",\n\t\t\"host\": \"web1\"\n\t}\n]\n"},
      {report, RowsPrinter::kTable, "host  count\n----  -----\nweb1      2\nweb2      1\n"},
      {report, RowsPrinter::kRaw, "web1\t2\nweb2\t1\n"},
      {report, RowsPrinter::kCsv, "host,count\nweb1,2\nweb2,1\n"},
      {report, RowsPrinter::kJson,
       "[\n\t{\n\t\t\"host\": \"web1\",\n\t\t\"count\": \"2\"\n\t},\n\t{\n\t\t\"host\": \"web2\",\n\t\t\"count\": \"1\"\n\t}\n]\n"},
      {"", RowsPrinter::kJson, "[]\n"},
      {"", RowsPrinter::kCsv, ""},
      {"", RowsPrinter::kTable, ""},
  };
  EventPrinter plain({}, false);
  for (const Case& c : cases) {
    SearchResults rows = rowsOf(c.rows);
    EXPECT_EQ(RowsPrinter::format(rows, c.mode, plain), c.out) << c.rows << " mode " << c.mode;
  }
  SearchResults rows = rowsOf(events);
  EXPECT_EQ(RowsPrinter::line(rows, *rows.front(), RowsPrinter::kJson, plain),
            "{\"_raw\":\"b \\\"two\\\"\",\"_time\":\"1795168801\",\"host\":\"web2\"}\n");
  EXPECT_EQ(RowsPrinter::line(rows, *rows.back(), RowsPrinter::kRaw, plain), "a one\n");

  struct Mode {
    const char* text;
    bool ok;
  } modes[] = {{"table", true}, {"raw", true}, {"json", true}, {"csv", true}, {"xml", false}, {"JSON", false}};
  for (const Mode& m : modes) {
    RowsPrinter::Mode got;
    EXPECT_EQ(RowsPrinter::parseMode(m.text, got), m.ok) << m.text;
  }
}

// Polls of the index (each a list of _cd, newest first) and the events each
// poll shows, oldest first.
TEST(TailCursor, ShowsOnlyEventsBeyondWhatWasSeen) {
  struct Poll {
    std::vector<const char*> cds;
    std::vector<const char*> shown;
    size_t unaddressed;
  };
  const std::vector<Poll> polls = {
      {{"3:200", "3:100", "2:900"}, {"2:900", "3:100", "3:200"}, 0},
      {{"3:200", "3:100", "2:900"}, {}, 0},                       // nothing new
      {{"3:300", "3:200", "3:250", "2:900"}, {"3:250", "3:300"}, 0},  // new by address, whatever their time
      {{"4:0", "3:300"}, {"4:0"}, 0},                               // a new hot bucket starts at 0
      {{"3:100", "bogus", ""}, {}, 2},                              // an old event again; no _cd
      {{"3:301", "4:10"}, {"4:10", "3:301"}, 0},
  };
  TailCursor cursor;
  for (size_t i = 0; i < polls.size(); ++i) {
    SearchResults rows;
    sr_index_t cd = rows.keyIndex(Str("_cd"), true);
    for (const char* c : polls[i].cds) {
      SearchResult* r = rows.addNewResult();
      if (*c) r->setValue(cd, Str(c));
    }
    size_t unaddressed = 99;
    std::vector<const SearchResult*> got = cursor.take(rows, unaddressed);
    std::vector<std::string> shown;
    for (const SearchResult* r : got) shown.push_back(r->getValue(cd));
    EXPECT_EQ(shown, std::vector<std::string>(polls[i].shown.begin(), polls[i].shown.end())) << "poll " << i;
    EXPECT_EQ(unaddressed, polls[i].unaddressed) << "poll " << i;
  }
  EXPECT_EQ(cursor.buckets(), 3u);
}

TEST(ServerClient, ReadsTheServiceReplies) {
  struct Base {
    const char* url;
    bool ok;
    const char* base;
  } bases[] = {
      {"http://127.0.0.1:8089", true, "http://127.0.0.1:8089"},
      {"https://h:1/services/", true, "https://h:1"},
      {"http://h:1//", true, "http://h:1"},
      {"127.0.0.1:8089", false, ""},
      {"ftp://h", false, ""},
  };
  for (const Base& b : bases) {
    Str base, err;
    EXPECT_EQ(ServerClient::normalizeBase(b.url, base, err), b.ok) << b.url;
    if (b.ok) {
      EXPECT_EQ(base, b.base) << b.url;
    } else {
      EXPECT_NE(err.find("not a server URL"), Str::npos) << err;
    }
  }

  struct Msg {
    const char* body;
    const char* text;
  } msgs[] = {
      {"<response><messages><msg type=\"ERROR\">Unknown search operation: &apos;x&apos; &lt;a&gt;</msg></messages>"
       "</response>",
       "Unknown search operation: 'x' <a>"},
      {"<response/>", ""},
      {"<msg type='WARN'>  spaced &amp; trimmed \n</msg>", "spaced & trimmed"},
  };
  for (const Msg& m : msgs) EXPECT_EQ(ServerClient::messageOf(m.body), m.text) << m.body;

  ServerClient::JobState st;
  ServerClient::parseStatus(
      "<entry><title>x</title><content type=\"text\">mtime=1\ndone=1\ncount=42\nerror=bad &quot;x&quot;\n"
      "message=WARN: peer down\nmessage=INFO: more\n</content></entry>",
      st);
  EXPECT_TRUE(st.done);
  EXPECT_EQ(st.count, 42);
  EXPECT_EQ(st.error, "bad \"x\"");
  EXPECT_EQ(st.messages, (std::vector<Str>{"WARN: peer down", "INFO: more"}));
  ServerClient::parseStatus("<content>done=0\ncount=x\nerror=\n</content>", st);
  EXPECT_FALSE(st.done);
  EXPECT_EQ(st.count, 0);
  EXPECT_EQ(st.error, "");

  Str v;
  EXPECT_TRUE(ServerClient::element("<a><sid>1.2</sid></a>", "sid", v));
  EXPECT_EQ(v, "1.2");
  EXPECT_FALSE(ServerClient::element("<a><sid>1.2</a>", "sid", v));
  EXPECT_EQ(ServerClient::formBody({{"search", "search a=1 | x"}, {"n", "5"}}), "search=search%20a%3D1%20%7C%20x&n=5");
}

TEST(AddCommand, ProgressLinesOfTheIndexer) {
  struct Case {
    const char* line;
    bool progress;
    const char* file;
    uint64_t done, size, events;
    const char* relabelled;
  } cases[] = {
      {"velmor-index: /tmp/a b.log: 4194304/10485760 bytes, 20000 events", true, "/tmp/a b.log", 4194304, 10485760,
       20000, "velmor: /tmp/a b.log: 4194304/10485760 bytes, 20000 events"},
      {"velmor-index: /x/y: 5: 1/2 bytes, 3 events", true, "/x/y: 5", 1, 2, 3, "velmor: /x/y: 5: 1/2 bytes, 3 events"},
      {"velmor-index: /tmp/a.log: 3 events added to main", false, "", 0, 0, 0,
       "velmor: /tmp/a.log: 3 events added to main"},
      {"velmor-index: f: x/2 bytes, 3 events", false, "", 0, 0, 0, "velmor: f: x/2 bytes, 3 events"},
      {"other: f: 1/2 bytes, 3 events", false, "", 0, 0, 0, "other: f: 1/2 bytes, 3 events"},
  };
  for (const Case& c : cases) {
    Str file;
    uint64_t done = 0, size = 0, events = 0;
    EXPECT_EQ(AddCommand::parseProgress(c.line, file, done, size, events), c.progress) << c.line;
    if (c.progress) {
      EXPECT_EQ(file, c.file);
      EXPECT_EQ(done, c.done);
      EXPECT_EQ(size, c.size);
      EXPECT_EQ(events, c.events);
    }
    EXPECT_EQ(AddCommand::relabel(c.line), c.relabelled);
  }
  struct Size {
    uint64_t bytes;
    const char* text;
  } sizes[] = {{0, "0 B"}, {1023, "1023 B"}, {1024, "1.0 KB"}, {1536, "1.5 KB"}, {20u << 20, "20.0 MB"},
               {3ull << 40, "3.0 TB"}};
  for (const Size& s : sizes) EXPECT_EQ(StatusCommand::humanBytes(s.bytes), s.text) << s.bytes;
}

}  // namespace
