// Searches spread over several servers: the rewrite of a search into its
// dispatched form, the `dispatch` command's arguments, and real exchanges
// with in-process servers serving streamed searches: a peer's rows read
// back as they were found (blocks with new fields, values spanning blank
// lines), a report over three servers equal to the report over all their
// events on one, and failing peers that leave a warning while the others'
// rows are kept.
#include <gtest/gtest.h>

#include <memory>
#include <random>

#include "../../framework/http/HttpTestRig.h"
#include "../../framework/rest/RestTestSupport.h"
#include "../processors/CatalogueHome.h"
#include "../processors/RowTestUtil.h"
#include "framework/http/HTTPServer.h"
#include "framework/rest/HTTPAuthManager.h"
#include "framework/rest/HTTPRestDispatcher.h"
#include "search/SearchCancel.h"
#include "search/SearchFactory.h"
#include "search/SearchParser.h"
#include "search/SearchPipeline.h"
#include "search/dispatch/DispatchCommand.h"
#include "search/dispatch/DispatchCommands.h"
#include "search/dispatch/PeerSearch.h"
#include "search/dispatch/ProviderQueue.h"
#include "search/dispatch/ResultProvider.h"
#include "search/dispatch/StreamedSearch.h"
#include "search/dispatch/StreamingSearch.h"
#include "libbundle/PropertiesMap.h"
#include "util/EventLoopThread.h"

namespace {

using rowtest::Row;

// What `peerrows` gives (every server of the test holds the same events),
// gChunk rows per call, "more to come" until the last.
std::vector<Row> gRows;
size_t gChunk = 3;

class PeerRows : public SearchProcessor {
 public:
  explicit PeerRows(const Str& n) : SearchProcessor(n) {}
  static SearchProcessor* create(const Str& n) { return new PeerRows(n); }
  void parseArguments() override {}
  void execute(SearchResults& results, SearchResultsInfo& info) override {
    results.free(false);
    size_t end = std::min(gRows.size(), _next + gChunk);
    rowtest::addRows(results, std::vector<Row>(gRows.begin() + long(_next), gRows.begin() + long(end)));
    _next = end;
    info.resultsComplete = _next >= gRows.size();
  }

 private:
  size_t _next = 0;
};

// `endlessrows`: a producer that never ends by itself (bounded for safety).
class EndlessRows : public SearchProcessor {
 public:
  explicit EndlessRows(const Str& n) : SearchProcessor(n) {}
  static SearchProcessor* create(const Str& n) { return new EndlessRows(n); }
  void parseArguments() override {}
  void execute(SearchResults& results, SearchResultsInfo& info) override {
    results.free(false);
    for (int i = 0; i < 200; ++i) results.addNewResult()->setValue("_raw", std::string(200, 'e'));
    info.resultsComplete = ++_calls >= 100000;
  }

 private:
  size_t _calls = 0;
};

void setUp() {
  rowtest::CatalogueHome::ensure();
  static bool registered = false;
  if (!registered) {
    SearchFactory::registerProcessor("peerrows", &PeerRows::create, false);
    SearchFactory::registerProcessor("endlessrows", &EndlessRows::create, false);
    DispatchCommands::registerAll();
    registered = true;
  }
}

std::vector<Row> makeRows(size_t n, unsigned seed) {
  std::mt19937 rng(seed);
  std::vector<Row> rows;
  for (size_t i = 0; i < n; ++i) {
    Row r = {{"host", "h" + std::to_string(rng() % 4)}, {"x", std::to_string(rng() % 100)}};
    if (i % 4 != 0) r.push_back({"w", "w" + std::to_string(rng() % 7)});
    rows.push_back(r);
  }
  return rows;
}

// A server on 127.0.0.1 with the login service and the streamed search,
// its own authentication, stopped however the test ends.
struct PeerServer {
  PeerServer() : disp(auth) {
    httptest::ensureMainThread();
    backend = std::make_shared<resttest::FakeBackend>();
    auth.setBackend(backend);
    setenv("VELMOR_BINDIP", "127.0.0.1", 1);
    loop.start();
    server.setRequestHandler(&disp);
    server.registerStreamHandler(StreamedSearch::kPath, &streamed);
    HTTPServerConfig cfg;
    cfg.ports.push_back(HTTPServerPort{0, false});
    ok = server.init(cfg) && server.go(&loop);
  }
  ~PeerServer() {
    streamed.stopAll();
    server.handleShutdown();
    loop.stop();
  }
  Str url() const { return "http://127.0.0.1:" + std::to_string(server.boundPort(0)); }

  std::shared_ptr<resttest::FakeBackend> backend;
  HTTPAuthManager auth{3600};
  HTTPRestDispatcher disp;
  StreamedSearch streamed{&auth};
  EventLoopThread loop{"peer-test-loop"};
  HTTPServer server;
  bool ok = false;
};

ResultProvider::Request aliceRequest(const Str& search) {
  ResultProvider::Request r;
  r.search = search;
  r.queryId = "peer-test";
  r.username = "alice";
  r.password = "wonder land";
  r.timeouts.connectMs = 5000;
  r.timeouts.readMs = 20000;
  return r;
}

std::vector<std::string> sorted(std::vector<std::string> v) {
  std::sort(v.begin(), v.end());
  return v;
}

// The rows of `search` run here over gRows, through the streaming driver.
std::vector<std::string> runHere(const std::string& search) {
  SearchResultsInfo info;
  SearchResults rs;
  StreamingSearch s(SearchParser::parse(search, true), info);
  s.run(rs, info);
  return rowtest::collect(rs);
}

TEST(PeerSearchTest, RewriteSendsThePrefixAndMapHalfToEveryServer) {
  setUp();
  const std::vector<Str> peers = {"https://a:8089", "https://b:8089/"};
  struct Case {
    const char* in;
    const char* out;
  } cases[] = {
      {"peerrows | stats count by host",
       "dispatch https://a:8089 https://b:8089/ [ peerrows | prestats count by host ] | stats count by host"},
      {"peerrows | eval y=\"a|b\" | stats count by host | sort -count",
       "dispatch https://a:8089 https://b:8089/ [ peerrows | eval y=\"a|b\" | prestats count by host ] | stats "
       "count by host | sort -count"},
      {"peerrows | eval y=1", "dispatch https://a:8089 https://b:8089/ [ peerrows | eval y=1 ]"},
      {"peerrows | head 5", "dispatch https://a:8089 https://b:8089/ [ peerrows | prehead 5 ] | head 5"},
      // Nothing streams: the whole search runs here.
      {"| inputcsv absent.csv | stats count", "| inputcsv absent.csv | stats count"},
      {"dispatch [ peerrows ] | stats count", "dispatch [ peerrows ] | stats count"},
  };
  for (const Case& c : cases) EXPECT_EQ(Str(c.out), PeerSearch::rewrite(c.in, peers)) << c.in;
  EXPECT_EQ(Str("peerrows | stats count"), PeerSearch::rewrite("peerrows | stats count", {}));
  EXPECT_THROW(PeerSearch::rewrite("peerrows | nosuchcommand", peers), SearchProcessorException);

  EXPECT_EQ((std::vector<Str>{"a \"x|y\"", "b [ c | d ]", ""}), PeerSearch::splitCommands(" a \"x|y\" | b [ c | d ] |"));
}

TEST(PeerSearchTest, PeerSettingsReadFromTheirStanza) {
  EXPECT_EQ((std::vector<Str>{"https://a:1", "https://b:2", "http://c"}),
            PeerList::splitServers(" https://a:1/,https://b:2 ,, http://c//\n"));
  PropertiesMap empty;
  PeerList d = PeerList::fromProperties(empty);
  EXPECT_TRUE(d.empty());
  EXPECT_EQ(10000, d.timeouts.connectMs);
  EXPECT_EQ(600000, d.timeouts.readMs);
  EXPECT_TRUE(d.verifyPeer);

  PropertiesMap m;
  m.put("servers", "https://idx1:8089, https://idx2:8089");
  m.put("username", "searcher");
  m.put("password", "pw");
  m.put("connectTimeout", "2.5");
  m.put("receiveTimeout", "soon");  // refused: the default stays
  m.put("sslVerifyServerCert", "False");
  m.put("caCertFile", "/etc/ca.pem");
  PeerList p = PeerList::fromProperties(m);
  EXPECT_EQ((std::vector<Str>{"https://idx1:8089", "https://idx2:8089"}), p.servers);
  EXPECT_EQ(Str("searcher"), p.username);
  EXPECT_EQ(Str("pw"), p.password);
  EXPECT_EQ(2500, p.timeouts.connectMs);
  EXPECT_EQ(600000, p.timeouts.readMs);
  EXPECT_FALSE(p.verifyPeer);
  EXPECT_EQ(Str("/etc/ca.pem"), p.caFile);
}

TEST(PeerSearchTest, DispatchArgumentsAndTheirFaults) {
  setUp();
  auto eval = [](const char* text, std::unique_ptr<SearchProcessor>& keep) -> std::string {
    try {
      keep.reset(SearchParser::parse(text, true));
      auto* pipe = dynamic_cast<SearchPipeline*>(keep.get());
      SearchProcessor* p = pipe ? pipe->getProcessors().front() : keep.get();
      SearchResultsInfo info;
      p->evalArgs(info);
      p->processArguments();
    } catch (const std::exception& e) {
      return e.what();
    }
    return "";
  };
  struct Case {
    const char* in;
    const char* error;  // a part of the message; "" when accepted
  } cases[] = {
      {"dispatch [ peerrows | prestats count ]", ""},
      {"dispatch http://a:1", "Usage: dispatch [options] [remoteserverlist] '['<subpipeline>']'"},
      {"dispatch maxresults=0 [ peerrows ]", "Option 'maxresults' must have value > 0"},
      {"dispatch ttl=-5 [ peerrows ]", "Option 'ttl' must have value > 0"},
      {"dispatch colour=red [ peerrows ]", "Invalid argument: 'colour=red'"},
      {"dispatch [ peerrows ] [ peerrows ]", "Usage: dispatch"},
  };
  for (const Case& c : cases) {
    std::unique_ptr<SearchProcessor> keep;
    std::string err = eval(c.in, keep);
    if (*c.error == '\0')
      EXPECT_EQ("", err) << c.in;
    else
      EXPECT_NE(std::string::npos, err.find(c.error)) << c.in << " -> " << err;
  }

  std::unique_ptr<SearchProcessor> keep;
  ASSERT_EQ("", eval("dispatch id=q1 maxtime=30 maxresults=7 ttl=60 http://a:1,http://b:2 http://c:3 "
                     "[ peerrows | eval s=\"[x]\" ]",
                     keep));
  auto* d = dynamic_cast<DispatchCommand*>(dynamic_cast<SearchPipeline*>(keep.get())->getProcessors().front());
  ASSERT_NE(nullptr, d);
  EXPECT_EQ((std::vector<Str>{"http://a:1", "http://b:2", "http://c:3"}), d->servers());
  EXPECT_EQ(Str("q1"), d->id());
  EXPECT_EQ(30, d->maxTime());
  EXPECT_EQ(7, d->maxResults());
  EXPECT_EQ(60, d->ttl());
  EXPECT_NE(std::string::npos, d->subsearch().find("eval s=\"[x]\"")) << d->subsearch();
}

TEST(PeerSearchTest, APeerGivesItsRowsAsTheyWereFound) {
  setUp();
  PeerServer peer;
  ASSERT_TRUE(peer.ok);
  // The first rows lack `w`, so later chunks start new blocks; one value
  // holds a blank line and quotes, one a comma.
  gRows = makeRows(20, 7);
  gRows[5].push_back({"note", "line one\n\nline \"three\""});
  gRows[9].push_back({"note", "a, b"});
  gChunk = 3;

  ResultProvider p(peer.url(), aliceRequest("peerrows | eval y=1"));
  SearchResults got;
  size_t calls = 0;
  while (p.read(got, 4) && ++calls < 100) {
  }
  EXPECT_FALSE(p.failed()) << p.warning();
  EXPECT_EQ(sorted(runHere("peerrows | eval y=1")), sorted(rowtest::collect(got)));

  // A session key of the caller instead of an account.
  Str key;
  ASSERT_TRUE(peer.auth.login("bob", "builder", key));
  ResultProvider::Request r = aliceRequest("peerrows | prestats count by host");
  r.username.clear();
  r.sessionKey = key;
  ResultProvider withKey(peer.url(), r);
  SearchResults rows;
  while (withKey.read(rows, 1000)) {
  }
  EXPECT_FALSE(withKey.failed()) << withKey.warning();
  EXPECT_EQ(sorted(runHere("peerrows | prestats count by host")), sorted(rowtest::collect(rows)));
}

TEST(PeerSearchTest, StreamedSearchRefusesWhatItCannotServe) {
  setUp();
  PeerServer peer;
  ASSERT_TRUE(peer.ok);
  int port = peer.server.boundPort(0);
  std::string none = httptest::exchange(port, "GET /services/streams/search?pipeline=peerrows HTTP/1.1\r\n"
                                              "Host: x\r\n\r\n");
  EXPECT_TRUE(httptest::contains(none, " 401 ")) << none;
  Str key;
  ASSERT_TRUE(peer.auth.login("alice", "wonder land", key));
  std::string bad = httptest::exchange(port, "GET /services/streams/search?pipeline=nosuchcommand&authtoken=" +
                                                 key + " HTTP/1.1\r\nHost: x\r\n\r\n");
  EXPECT_TRUE(httptest::contains(bad, " 400 ")) << bad;
  EXPECT_TRUE(httptest::contains(bad, "nosuchcommand")) << bad;
  std::string time = httptest::exchange(port, "GET /services/streams/search?pipeline=peerrows&start_time=soon&"
                                               "authtoken=" + key + " HTTP/1.1\r\nHost: x\r\n\r\n");
  EXPECT_TRUE(httptest::contains(time, "Invalid start_time or end_time")) << time;
}

TEST(PeerSearchTest, AClientThatGoesAwayStopsTheSearch) {
  setUp();
  PeerServer peer;
  ASSERT_TRUE(peer.ok);
  Str key;
  ASSERT_TRUE(peer.auth.login("alice", "wonder land", key));
  int fd = httptest::connectLoopback(peer.server.boundPort(0));
  ASSERT_GE(fd, 0);
  std::string req = "GET /services/streams/search?pipeline=endlessrows&max_count=0&authtoken=" + key +
                    " HTTP/1.1\r\nHost: x\r\n\r\n";
  ASSERT_GT(::send(fd, req.data(), req.size(), MSG_NOSIGNAL), 0);
  // Rows are flowing: the search is running.
  std::string first;
  for (int i = 0; i < 100 && first.find("eeee") == std::string::npos; ++i) {
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, 200) <= 0) continue;
    char buf[4096];
    ssize_t n = ::read(fd, buf, sizeof buf);
    if (n <= 0) break;
    first.append(buf, static_cast<size_t>(n));
  }
  ASSERT_NE(std::string::npos, first.find("Transfer-Encoding: chunked")) << first.substr(0, 300);
  ASSERT_EQ(1u, peer.streamed.running());
  ::close(fd);
  // The next writes fail and the worker ends long before the producer does.
  for (int i = 0; i < 400 && peer.streamed.running() > 0; ++i) usleep(50 * 1000);
  EXPECT_EQ(0u, peer.streamed.running());
}

TEST(PeerSearchTest, AReportOverThreeServersEqualsOneServerWithAllEvents) {
  setUp();
  PeerServer a, b;
  ASSERT_TRUE(a.ok && b.ok);
  gRows = makeRows(60, 11);
  gChunk = 7;
  const std::string report = "peerrows | stats count sum(x) dc(w) by host | sort host";

  // One server holding the events of all three.
  std::vector<Row> one = gRows;
  gRows.insert(gRows.end(), one.begin(), one.end());
  gRows.insert(gRows.end(), one.begin(), one.end());
  std::vector<std::string> expected = runHere(report);
  gRows = one;

  Str rewritten = PeerSearch::rewrite(report, {a.url(), b.url()});
  ASSERT_EQ(0u, rewritten.find("dispatch ")) << rewritten;
  SearchResultsInfo info;
  info.queryId = "three-servers";
  SearchResults rs;
  std::unique_ptr<SearchProcessor> parsed(SearchParser::parse(rewritten, true));
  auto* d = dynamic_cast<DispatchCommand*>(dynamic_cast<SearchPipeline*>(parsed.get())->getProcessors().front());
  ASSERT_NE(nullptr, d);
  PeerList access;
  access.username = "alice";
  access.password = "wonder land";
  d->setPeerAccess(access);
  parsed->execute(rs, info);
  EXPECT_EQ(expected, rowtest::collect(rs)) << rewritten;
  EXPECT_FALSE(info.hasMessages(SearchResultsInfo::MSG_WARN));
}

TEST(PeerSearchTest, FailingPeersWarnAndTheOthersRowsAreKept) {
  setUp();
  PeerServer a, b;
  ASSERT_TRUE(a.ok && b.ok);
  gRows = makeRows(25, 3);
  gChunk = 4;
  // A port nobody listens on: taken from a server that is gone.
  Str deadUrl;
  {
    PeerServer gone;
    ASSERT_TRUE(gone.ok);
    deadUrl = gone.url();
  }
  const Str search = "peerrows | eval y=2";
  std::vector<std::unique_ptr<ResultProvider>> peers;
  peers.push_back(std::make_unique<ResultProvider>(a.url(), aliceRequest(search)));
  peers.push_back(std::make_unique<ResultProvider>(deadUrl, aliceRequest(search)));
  ResultProvider::Request wrong = aliceRequest(search);
  wrong.password = "guess";
  peers.push_back(std::make_unique<ResultProvider>(b.url(), wrong));
  peers.push_back(std::make_unique<ResultProvider>(b.url(), aliceRequest(search)));

  SearchResultsInfo info;
  ProviderQueue queue(search, std::move(peers), info, 5);
  SearchResults all;
  size_t rounds = 0;
  while (queue.fetchResults(all, info) && ++rounds < 1000) {
  }
  EXPECT_EQ(0u, queue.openSources());
  // The local part and the two good peers.
  std::vector<std::string> one = runHere(search), expected;
  for (int i = 0; i < 3; ++i) expected.insert(expected.end(), one.begin(), one.end());
  EXPECT_EQ(sorted(expected), sorted(rowtest::collect(all)));

  ASSERT_EQ(2u, info.messages[SearchResultsInfo::MSG_WARN].size());
  const Str& dead = info.messages[SearchResultsInfo::MSG_WARN][0];
  const Str& refused = info.messages[SearchResultsInfo::MSG_WARN][1];
  EXPECT_NE(Str::npos, dead.find("Failed to contact peer for login at " + deadUrl)) << dead;
  EXPECT_NE(Str::npos, refused.find("Failed to connect with url = " + b.url() + "/services/auth/login because of"))
      << refused;
  EXPECT_NE(Str::npos, refused.find("status code = 401")) << refused;
  for (const Str& m : info.messages[SearchResultsInfo::MSG_WARN])
    EXPECT_EQ(m.size() - 43, m.find(". Results from this peer were not returned.")) << m;
}

}  // namespace
