// `transaction`: grouping by fields, span, pause, count and end events, the
// rows it makes, its definition faults, transaction types, and the hashed
// grouping against a plain reference over generated events.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>

#include "CatalogueHome.h"
#include "RowTestUtil.h"
#include "search/processors/Transaction.h"

namespace {

using rowtest::Row;
using V = std::vector<std::string>;

// The catalogue home, with the shipped segmenters so that start and end
// conditions see the words of _raw.
searchtest::ScratchHome& home() {
  static searchtest::ScratchHome& h = [] () -> searchtest::ScratchHome& {
    searchtest::ScratchHome& made = rowtest::CatalogueHome::ensure();
    std::ifstream in(VELMOR_SOURCE_DIR "/etc/bundles/default/segmenters.conf");
    std::stringstream text;
    text << in.rdbuf();
    made.writeConf("segmenters", text.str());
    return made;
  }();
  return h;
}

// Runs `search` and gives each output row as its _raw with the newlines
// turned into ",", or the failure text.
V groups(const std::string& search, const std::vector<Row>& rows) {
  home();
  SearchResults rs;
  SearchResultsInfo info;
  rowtest::addRows(rs, rows);
  std::string err = rowtest::runFresh(search, rs, info);
  if (!err.empty()) return {err};
  V out;
  sr_index_t raw = rs.keyIndex("_raw");
  for (SearchResult* r : rs) {
    std::string s = r->getValue(raw);
    std::replace(s.begin(), s.end(), '\n', ',');
    out.push_back(s);
  }
  return out;
}

// Rows of (_time, _raw) newest first, as a search gives them.
std::vector<Row> timed(std::vector<std::pair<int, std::string>> tr) {
  std::vector<Row> rows;
  for (auto it = tr.rbegin(); it != tr.rend(); ++it)
    rows.push_back({{"_time", std::to_string(it->first)}, {"_raw", it->second}});
  return rows;
}

struct GroupCase {
  const char* search;
  std::vector<Row> in;
  V want;  // newest transaction first
};

TEST(TransactionTest, Grouping) {
  const std::vector<GroupCase> cases = {
      // a row without the field agrees with the group around it
      {"transaction fields=a",
       {{{"_time", "3"}, {"_raw", "x3"}, {"a", "1"}}, {{"_time", "2"}, {"_raw", "x2"}},
        {{"_time", "1"}, {"_raw", "x1"}, {"a", "1"}}},
       {"x1,x2,x3"}},
      // ... and joins the group that took an event most recently
      {"transaction fields=a",
       {{{"_time", "4"}, {"_raw", "p4"}, {"a", "1"}}, {{"_time", "3"}, {"_raw", "p3"}},
        {{"_time", "2"}, {"_raw", "p2"}, {"a", "2"}}, {{"_time", "1"}, {"_raw", "p1"}, {"a", "1"}}},
       {"p2,p3", "p1,p4"}},
      // groups by value, interleaved in time
      {"transaction fields=a",
       {{{"_time", "4"}, {"_raw", "b2"}, {"a", "y"}}, {{"_time", "3"}, {"_raw", "a2"}, {"a", "x"}},
        {{"_time", "2"}, {"_raw", "b1"}, {"a", "y"}}, {{"_time", "1"}, {"_raw", "a1"}, {"a", "x"}}},
       {"b1,b2", "a1,a2"}},
      // two fields: a partial group completes, a row with one field finds it
      {"transaction fields=a,b",
       {{{"_time", "4"}, {"_raw", "q4"}, {"a", "1"}, {"b", "3"}}, {{"_time", "3"}, {"_raw", "q3"}, {"b", "2"}},
        {{"_time", "2"}, {"_raw", "q2"}, {"a", "1"}, {"b", "2"}}, {{"_time", "1"}, {"_raw", "q1"}, {"a", "1"}}},
       {"q4", "q1,q2,q3"}},
      // a trailing "*" takes every field with the prefix
      {"transaction fields=k*",
       {{{"_time", "3"}, {"_raw", "w3"}, {"ka", "1"}, {"kb", "2"}},
        {{"_time", "2"}, {"_raw", "w2"}, {"ka", "1"}, {"kb", "9"}},
        {{"_time", "1"}, {"_raw", "w1"}, {"ka", "1"}, {"kb", "2"}}},
       {"w2", "w1,w3"}},
      // span from the first event
      {"transaction maxspan=10", timed({{0, "t0"}, {5, "t5"}, {11, "t11"}}), {"t11", "t0,t5"}},
      {"transaction maxspan=1m", timed({{0, "t0"}, {59, "t59"}, {61, "t61"}}), {"t61", "t0,t59"}},
      {"transaction maxspan=-1", timed({{0, "t0"}, {100000, "t1"}}), {"t0,t1"}},
      // pause between consecutive events
      {"transaction maxpause=5", timed({{0, "t0"}, {3, "t3"}, {9, "t9"}, {12, "t12"}}), {"t9,t12", "t0,t3"}},
      {"transaction maxpause=2h", timed({{0, "t0"}, {7200, "t1"}, {14401, "t2"}}), {"t2", "t0,t1"}},
      // span and pause cut together: the span restarts with each piece
      {"transaction maxspan=10 maxpause=3",
       timed({{0, "a"}, {1, "b"}, {2, "c"}, {6, "d"}, {7, "e"}, {9, "f"}, {11, "g"}}), {"d,e,f,g", "a,b,c"}},
      // count
      {"transaction maxevents=2", timed({{1, "e1"}, {2, "e2"}, {3, "e3"}, {4, "e4"}, {5, "e5"}}),
       {"e5", "e3,e4", "e1,e2"}},
      // start and end events; words match ignoring case
      {"transaction startswith=login",
       timed({{1, "view 0"}, {2, "LOGIN a"}, {3, "view a"}, {4, "login b"}, {5, "view b"}}),
       {"login b,view b", "LOGIN a,view a", "view 0"}},
      {"transaction endswith=\"logout\"", timed({{1, "a"}, {2, "logout"}, {3, "b"}, {4, "logout now"}, {5, "c"}}),
       {"c", "b,logout now", "a,logout"}},
      {"transaction startswith=\"GET /cart\"", timed({{1, "GET /home"}, {2, "GET /cart x"}, {3, "POST /pay"}}),
       {"GET /cart x,POST /pay", "GET /home"}},
      {"transaction startswith=eval(code==1) endswith=eval(code==9)",
       {{{"_time", "4"}, {"_raw", "r4"}, {"code", "9"}}, {{"_time", "3"}, {"_raw", "r3"}, {"code", "1"}},
        {{"_time", "2"}, {"_raw", "r2"}, {"code", "9"}}, {{"_time", "1"}, {"_raw", "r1"}, {"code", "1"}}},
       {"r3,r4", "r1,r2"}},
      // start events cut within each field group, and the span restarts there
      {"transaction fields=u startswith=begin maxspan=10",
       {{{"_time", "12"}, {"_raw", "begin y"}, {"u", "y"}}, {{"_time", "8"}, {"_raw", "begin x"}, {"u", "x"}},
        {{"_time", "5"}, {"_raw", "step x"}, {"u", "x"}}, {{"_time", "1"}, {"_raw", "begin x0"}, {"u", "x"}}},
       {"begin y", "begin x", "begin x0,step x"}},
      // input oldest first, or in no order, gives the same
      {"transaction maxspan=10",
       {{{"_time", "0"}, {"_raw", "t0"}}, {{"_time", "5"}, {"_raw", "t5"}}, {{"_time", "11"}, {"_raw", "t11"}}},
       {"t11", "t0,t5"}},
      {"transaction maxspan=10",
       {{{"_time", "5"}, {"_raw", "t5"}}, {{"_time", "11"}, {"_raw", "t11"}}, {{"_time", "0"}, {"_raw", "t0"}}},
       {"t11", "t0,t5"}},
      // no events, no transactions
      {"transaction fields=a", {}, {}},
  };
  for (const GroupCase& c : cases) EXPECT_EQ(groups(c.search, c.in), c.want) << c.search;
}

TEST(TransactionTest, DefinitionFaults) {
  const std::vector<Row> one = {{{"_time", "1"}, {"_raw", "x"}, {"a", "1"}}};
  const char* prefix = "Error in 'transaction' command: ";
  const std::vector<std::pair<const char*, std::string>> cases = {
      {"transaction nosuchtype", "Unknown transaction type 'nosuchtype'; check transactiontypes.conf."},
      {"transaction fields=a*b", "A field name may have a '*' wildcard only at its end."},
      {"transaction exclusive=maybe", "The value of 'exclusive' must be true or false, not 'maybe'."},
      {"transaction matchtype=earliest", "Unsupported matchtype 'earliest'; the only one supported is 'closest'."},
      {"transaction fields=zz",
       "Unknown field 'zz' in the definition of transaction 'no_name'."},
      {"transaction maxspan=5x",
       "Invalid time span '5x' for option 'maxspan'; use a number of seconds or 30s, 5m, 2h, 1d."},
      {"transaction maxevents=many", "Invalid integer value 'many' for option 'maxevents'."},
      {"transaction maxspan=1 maxspan=2", "Option 'maxspan' specified more than once"},
      {"transaction maxpause=1 stray", "Invalid argument: 'stray'"},
      {"transaction colour=red", "Invalid argument: 'colour=red'"},
  };
  for (auto& c : cases) EXPECT_EQ(groups(c.first, one), V{prefix + c.second}) << c.first;
  // the good forms of the same options pass
  for (const char* ok : {"transaction exclusive=false matchtype=closest", "transaction fields=a*",
                         "transaction fields=a maxspan=5s maxpause=1d maxevents=0"})
    EXPECT_EQ(groups(ok, one), V{"x"}) << ok;
}

TEST(TransactionTest, SpanTexts) {
  const std::vector<std::pair<const char*, double>> good = {
      {"30", 30}, {"30s", 30}, {"5m", 300}, {"2h", 7200}, {"1d", 86400}, {"1.5m", 90}, {"-1", -1}, {"-7h", -1}};
  for (auto& g : good) {
    double s = 0;
    EXPECT_TRUE(Transaction::parseSpan(g.first, s)) << g.first;
    EXPECT_EQ(s, g.second) << g.first;
  }
  for (const char* bad : {"", "m", "5 parsecs", "5w", "inf"}) {
    double s = 0;
    EXPECT_FALSE(Transaction::parseSpan(bad, s)) << bad;
  }
}

TEST(TransactionTest, RowFields) {
  home();
  SearchResults rs;
  SearchResultsInfo info;
  rowtest::addRows(rs, {{{"_time", "110"}, {"_raw", "b\nb2"}, {"host", "h1"}, {"user", "bob"}, {"eventtype", "x"}},
                        {{"_time", "100.5"}, {"_raw", "a"}, {"host", "h1"}, {"user", "amy"}, {"eventtype", "y"}},
                        {{"_time", "50"}, {"_raw", "alone"}, {"host", "h2"}}});
  ASSERT_EQ(rowtest::runFresh("transaction maxpause=20", rs, info), "");
  // user differs and is left out (never "mixed"); host agrees and stays
  EXPECT_EQ(rowtest::collect(rs),
            (V{"_data_type=transaction _raw=a\nb\nb2 _time=100.5 count=2 duration=9.5 eventtype=y x host=h1 "
               "linecount=3",
               "_data_type=transaction _raw=alone _time=50 count=1 host=h2 linecount=1"}));
}

TEST(TransactionTest, TransactionTypes) {
  searchtest::ScratchHome& h = home();
  {
    // the shipped types
    std::ifstream in(VELMOR_SOURCE_DIR "/etc/bundles/default/transactiontypes.conf");
    std::stringstream text;
    text << in.rdbuf();
    h.writeConf("transactiontypes", text.str());
    std::vector<Row> web;
    for (auto& e : std::vector<std::pair<int, const char*>>{
             {0, "GET /cart"}, {60, "GET /pay"}, {90, "order confirmed"}, {100, "GET /"}, {2000, "GET /x"}})
      web.insert(web.begin(), Row{{"_time", std::to_string(e.first)}, {"_raw", e.second}, {"clientip", "10.0.0.1"}});
    EXPECT_EQ(groups("transaction web_session", web), (V{"GET /x", "GET /cart,GET /pay,order confirmed,GET /"}));
    EXPECT_EQ(groups("transaction checkout", web), (V{"GET /x", "GET /", "GET /cart,GET /pay,order confirmed"}));
  }
  h.writeConf("transactiontypes",
                 "[default]\nmaxevents = 3\n\n"
                 "[web]\nfields = ip\nmaxpause = 5\nstartswith = \"GET /\"\n");
  std::vector<Row> rows;
  for (int t : {1, 2, 3, 4, 5, 20})
    rows.push_back({{"_time", std::to_string(t)}, {"_raw", "e" + std::to_string(t)}, {"ip", "1.2.3.4"}});
  std::reverse(rows.begin(), rows.end());
  // the stanza's pause and the default stanza's count
  EXPECT_EQ(groups("transaction web", rows), (V{"e20", "e4,e5", "e1,e2,e3"}));
  // options override the stanza
  EXPECT_EQ(groups("transaction web maxpause=100 maxevents=10", rows), (V{"e1,e2,e3,e4,e5,e20"}));
  // the type's name is on every row
  SearchResults rs;
  SearchResultsInfo info;
  rowtest::addRows(rs, {rows.back()});
  ASSERT_EQ(rowtest::runFresh("transaction web", rs, info), "");
  Str type;
  ASSERT_TRUE(rs.front()->getValue(Str("transactiontype"), type));
  EXPECT_EQ(type, "web");
}

TEST(TransactionTest, Patterns) {
  searchtest::ScratchHome& h = home();
  h.writeConf("eventtypes", "[login]\nsearch = login\n\n[browse]\nsearch = GET\n\n[buy]\nsearch = POST\n");
  // oldest first: login, browse, noise, browse, buy | login, buy
  std::vector<Row> rows;
  const std::vector<std::pair<const char*, const char*>> evs = {
      {"l1", "login"}, {"b1", "browse"}, {"n1", ""}, {"b2", "browse"}, {"p1", "buy"}, {"l2", "login"}, {"p2", "buy"}};
  for (size_t i = 0; i < evs.size(); ++i) {
    Row r{{"_time", std::to_string(i + 1)}, {"_raw", evs[i].first}};
    if (*evs[i].second) r.push_back({"eventtype", evs[i].second});
    rows.insert(rows.begin(), r);
  }
  const char* al = "transaction aliases=\"L=login, B=browse, P=buy\" ";
  const std::vector<std::pair<std::string, V>> cases = {
      // the gap of an ordered pair is left out; unmatched events too
      {std::string(al) + "pattern=\"L P\"", {"l2,p2", "l1,p1"}},
      {std::string(al) + "pattern=\"L,B B P\"", {"l1,b1,b2,p1"}},
      {std::string(al) + "pattern=\"B,P\"", {"b2,p1"}},
      // cut within each piece of the span step first
      {std::string(al) + "pattern=\"L P\" maxspan=3", {"l2,p2"}},
      {std::string(al) + "pattern=\"L Q\"",
       {"Error in 'transaction' command: Unable to find the alias 'Q' used in the pattern 'L Q'."}},
      {"transaction aliases=L=nosuch pattern=L",
       {"Error in 'transaction' command: Unknown event type 'nosuch' in aliases."}},
      {"transaction aliases=\"L:login\" pattern=L",
       {"Error in 'transaction' command: Invalid alias 'L:login'; an alias has the form <name>=<eventtype>."}},
  };
  for (auto& c : cases) EXPECT_EQ(groups(c.first, rows), c.second) << c.first;
}

// ---- the hashed grouping against a plain one ---------------------------

struct Gen {
  std::vector<Row> rows;  // newest first
};

// Events of 40 users over time, some without a user, some starting a
// session; gaps of 0-9 seconds. Each user mostly keeps one shard `s`; some
// rows lack it.
Gen generate(size_t n, unsigned seed) {
  std::mt19937 rng(seed);
  std::vector<Row> rows;
  long t = 1000;
  for (size_t i = 0; i < n; ++i) {
    t += rng() % 10;
    Row r{{"_time", std::to_string(t)}, {"_raw", (rng() % 17 == 0 ? "begin " : "ev ") + std::to_string(i)}};
    unsigned user = rng() % 40;
    if (rng() % 9 != 0) r.push_back({"u", "user" + std::to_string(user)});
    if (rng() % 7 != 0) r.push_back({"s", "s" + std::to_string(rng() % 20 == 0 ? rng() % 5 : user % 5)});
    rows.push_back(r);
  }
  std::reverse(rows.begin(), rows.end());
  return {rows};
}

// The grouping written plainly: every event scans every group for the one
// that took an event last among those that agree on the fields both have,
// then each group is cut in time order by span, pause, count and start
// events.
V reference(const std::vector<Row>& newestFirst, const std::vector<std::string>& fields, double maxspan,
            double maxpause, size_t maxevents) {
  struct Ev {
    double t = 0;
    std::string raw;
    std::map<std::string, std::string> f;
  };
  std::vector<Ev> evs;
  for (auto it = newestFirst.rbegin(); it != newestFirst.rend(); ++it) {
    Ev e;
    for (auto& kv : *it) {
      if (kv.first == "_time") e.t = std::stod(kv.second);
      if (kv.first == "_raw") e.raw = kv.second;
      if (std::find(fields.begin(), fields.end(), kv.first) != fields.end()) e.f[kv.first] = kv.second;
    }
    evs.push_back(e);
  }
  struct Group {
    std::map<std::string, std::string> f;
    std::vector<size_t> ev;
    size_t touched;
  };
  std::vector<Group> gs;
  for (size_t i = 0; i < evs.size(); ++i) {
    long best = -1;
    for (size_t g = 0; g < gs.size(); ++g) {
      bool agree = true;
      for (auto& kv : evs[i].f) {
        auto it = gs[g].f.find(kv.first);
        agree = agree && (it == gs[g].f.end() || it->second == kv.second);
      }
      if (agree && (best < 0 || gs[g].touched > gs[best].touched)) best = g;
    }
    if (best < 0) {
      gs.push_back({{}, {}, 0});
      best = gs.size() - 1;
    }
    for (auto& kv : evs[i].f) gs[best].f.insert(kv);
    gs[best].ev.push_back(i);
    gs[best].touched = i + 1;
  }
  std::vector<std::pair<double, std::string>> out;
  for (const Group& g : gs) {
    std::vector<size_t> piece;
    auto flush = [&]() {
      std::string s;
      for (size_t k : piece) s += (s.empty() ? "" : ",") + evs[k].raw;
      out.push_back({evs[piece.front()].t, s});
      piece.clear();
    };
    for (size_t k : g.ev) {
      if (!piece.empty() &&
          (evs[k].t - evs[piece.front()].t > maxspan || evs[k].t - evs[piece.back()].t > maxpause ||
           piece.size() >= maxevents || evs[k].raw.compare(0, 6, "begin ") == 0))
        flush();
      piece.push_back(k);
    }
    if (!piece.empty()) flush();
  }
  std::stable_sort(out.begin(), out.end(), [](auto& a, auto& b) { return a.first > b.first; });
  V v;
  for (auto& p : out) v.push_back(p.second);
  return v;
}

TEST(TransactionTest, HashedGroupingMatchesPlainGrouping) {
  for (size_t n : {10000, 100000}) {
    Gen g = generate(n, static_cast<unsigned>(n));
    const std::vector<std::pair<std::vector<std::string>, std::string>> defs = {
        {{"u"}, "fields=u"}, {{"u", "s"}, "fields=u,s"}};
    for (auto& d : defs) {
      V want = reference(g.rows, d.first, 300, 30, 20);
      V got = groups("transaction " + d.second + " maxspan=5m maxpause=30s maxevents=20 startswith=begin", g.rows);
      std::sort(want.begin(), want.end());
      std::sort(got.begin(), got.end());
      ASSERT_EQ(got.size(), want.size()) << n << " " << d.second;
      EXPECT_TRUE(got == want) << n << " " << d.second;
    }
  }
}

TEST(TransactionTest, SpilledInputGivesTheSameTransactions) {
  home();
  Gen g = generate(2000, 7);
  const char* search = "transaction fields=u maxpause=20";
  V whole = groups(search, g.rows);
  rowtest::TempDir dir;
  SearchResults rs;
  SearchResultsInfo info;
  rowtest::addRows(rs, g.rows);
  rowtest::spill(rs, dir.path, 300);
  ASSERT_EQ(rowtest::runFresh(search, rs, info), "");
  V spilled;
  for (const std::string& line : rowtest::collect(rs)) {
    size_t a = line.find("_raw=") + 5, b = line.find(" _time=");
    std::string raw = line.substr(a, b - a);
    std::replace(raw.begin(), raw.end(), '\n', ',');
    spilled.push_back(raw);
  }
  EXPECT_EQ(spilled, whole);
}

}  // namespace
