// The live tail: which searches it takes and what they keep of each new
// event (the event as the row the commands see, written as one JSON
// object), and real exchanges with an in-process server: refusals before
// any event, the sse and json framings, max_count, a stop that ends the
// reply cleanly, and a client that goes away.
#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <regex>
#include <sstream>

#include "../../framework/http/HttpTestRig.h"
#include "../../framework/rest/RestTestSupport.h"
#include "../processors/CatalogueHome.h"
#include "framework/http/HTTPServer.h"
#include "framework/rest/HTTPAuthManager.h"
#include "framework/rest/HTTPRestDispatcher.h"
#include "pipeline/indexer/LiveTailHub.h"
#include "pipeline/indexer/WritableEvent.h"
#include "pipeline/indexer/search/IndexSearchCommands.h"
#include "search/dispatch/LiveTailStream.h"
#include "util/EventLoopThread.h"

namespace {

// The shipped segmenters and field rules, and the commands that read
// indexes (among them `search`).
void setUp() {
  searchtest::ScratchHome& home = rowtest::CatalogueHome::ensure();
  static bool done = false;
  if (done) return;
  for (const char* conf : {"segmenters", "props", "transforms"}) {
    std::ifstream in(std::string(VELMOR_SOURCE_DIR "/etc/bundles/default/") + conf + ".conf");
    std::stringstream text;
    text << in.rdbuf();
    home.writeConf(conf, text.str());
  }
  IndexSearchCommands::registerAll();
  done = true;
}

LiveTailHub::Event event(const char* raw, const char* host = "web1", const char* index = "main") {
  LiveTailHub::Event e;
  e.index = index;
  e.time = "1700000000.250";
  e.host = host;
  e.source = "/var/log/app.log";
  e.sourceType = "app";
  e.raw = raw;
  return e;
}

// What each search keeps of a few events; "" means the event is not kept,
// otherwise a text the JSON object holds.
TEST(LiveTailStreamTest, EachEventIsRunThroughTheSearch) {
  setUp();
  resttest::PermissionsGuard perms;
  struct Case {
    const char* search;
    LiveTailHub::Event e;
    const char* want;
  } cases[] = {
      {"search error", event("error in db"), "\"_raw\":\"error in db\""},
      {"search error", event("all fine"), ""},
      {"search NOT debug", event("debug: x"), ""},
      {"search NOT debug", event("info: x"), "\"_raw\":\"info: x\""},
      {"search host=web1", event("a", "web1"), "\"host\":\"web1\""},
      {"search host=web1", event("a", "web2"), ""},
      {"search error", event("error", "web1", "other"), ""},
      {"search index=other error", event("error", "web1", "other"), "\"index\":\"other\""},
      {"search index=other error", event("error", "web1", "main"), ""},
      {"search error | where status>=500", event("error status=503"), "\"status\":\"503\""},
      {"search error | where status>=500", event("error status=404"), ""},
      {"search * | eval sev=\"high\" | fields host sev", event("x"), "\"sev\":\"high\""},
      {"search * | rex \"user=(?<who>\\w+)\"", event("login user=carol ok"), "\"who\":\"carol\""},
      {"search * | rename host as server", event("x", "web7"), "\"server\":\"web7\""},
      {"search * | regex _raw=\"^GET \"", event("GET /index.html"), "\"_raw\":\"GET /index.html\""},
      {"search * | regex _raw=\"^GET \"", event("POST /form"), ""},
      {"search * | search status=200", event("status=200 GET"), "\"status\":\"200\""},
      {"search * | search status=200", event("status=500 GET"), ""},
  };
  for (const Case& c : cases) {
    LiveTailStream::Matcher m(c.search, "alice");
    Str json;
    bool kept = m.match(c.e, json);
    EXPECT_EQ(*c.want != '\0', kept) << c.search << " / " << c.e.raw << " -> " << json;
    if (kept) {
      EXPECT_NE(Str::npos, json.find(c.want)) << c.search << " -> " << json;
    }
  }
}

// The object: the fields of every event first, in a fixed order, then the
// others by name; internal fields are left out; text is JSON-escaped.
TEST(LiveTailStreamTest, AKeptEventIsOneJsonObject) {
  setUp();
  resttest::PermissionsGuard perms;
  LiveTailStream::Matcher m("search * | eval b=\"2\" | eval a=\"1\"", "alice");
  Str json;
  ASSERT_TRUE(m.match(event("say \"hi\"\tnow"), json));
  EXPECT_EQ(
      "{\"_time\":\"1700000000.250\",\"index\":\"main\",\"host\":\"web1\",\"source\":\"/var/log/app.log\","
      "\"sourcetype\":\"app\",\"_raw\":\"say \\\"hi\\\"\\tnow\",\"a\":\"1\",\"b\":\"2\"}",
      json);
  // An event without a readable time gets the time it arrived.
  LiveTailHub::Event e = event("x");
  e.time = "";
  ASSERT_TRUE(m.match(e, json));
  EXPECT_EQ(Str::npos, json.find("\"_time\":\"\"")) << json;
}

TEST(LiveTailStreamTest, SearchesThatCannotFollowEventsAreRefused) {
  setUp();
  resttest::PermissionsGuard perms;
  perms.perms->denied = {"search_admin_index"};
  struct Case {
    const char* search;
    const char* message;
  } cases[] = {
      {"search error | stats count by host", "The command 'stats' cannot be used in a live tail"},
      {"search error | sort host", "The command 'sort' cannot be used in a live tail"},
      {"search error | head 5", "The command 'head' cannot be used in a live tail"},
      {"search error | where status>=500 | dedup host", "The command 'dedup'"},
      {"eval x=1", "A live tail starts with the 'search' command, not 'eval'"},
      {"search error | nosuchcommand", "nosuchcommand"},
      {"search index=_internal error", "Only admins may search the index _internal"},
      {"search error | rex \"no group\"", "rex"},
  };
  for (const Case& c : cases) {
    try {
      LiveTailStream::Matcher m(c.search, "alice");
      ADD_FAILURE() << c.search << " was taken";
    } catch (const std::exception& e) {
      EXPECT_NE(std::string::npos, std::string(e.what()).find(c.message)) << c.search << ": " << e.what();
    }
  }
}

// --- over HTTP ------------------------------------------------------------------------

// A server on 127.0.0.1 with the live tail on a hub of its own, stopped
// however the test ends.
struct TailServer {
  explicit TailServer(size_t capacity = LiveTailHub::kDefaultCapacity) : disp(auth), tail(&auth, &hub, capacity) {
    httptest::ensureMainThread();
    backend = std::make_shared<resttest::FakeBackend>();
    auth.setBackend(backend);
    setenv("VELMOR_BINDIP", "127.0.0.1", 1);
    loop.start();
    server.setRequestHandler(&disp);
    server.registerStreamHandler(LiveTailStream::kPath, &tail);
    HTTPServerConfig cfg;
    cfg.ports.push_back(HTTPServerPort{0, false});
    ok = server.init(cfg) && server.go(&loop);
    ok = ok && auth.login("alice", "wonder land", key);
  }
  ~TailServer() {
    tail.stopAll();
    server.handleShutdown();
    loop.stop();
  }
  int port() const { return server.boundPort(0); }
  // Opens a tail; the connection's descriptor, -1 on failure.
  int open(const std::string& query, const std::string& headers = "") const {
    int fd = httptest::connectLoopback(port());
    std::string req = "GET " + std::string(LiveTailStream::kPath) + "?" + query + "&authtoken=" + key +
                      " HTTP/1.1\r\nHost: x\r\n" + headers + "\r\n";
    if (fd >= 0 && ::send(fd, req.data(), req.size(), MSG_NOSIGNAL) < 0) {
      ::close(fd);
      return -1;
    }
    return fd;
  }
  // Waits (bounded) until `n` tails listen.
  bool waitListening(size_t n) const {
    for (int i = 0; i < 400 && hub.subscribers() != n; ++i) usleep(25 * 1000);
    return hub.subscribers() == n;
  }
  void publish(const char* raw, const char* host = "web1") {
    WritableEvent ev;
    ev.raw = StrSegment(raw);
    ev.host = StrSegment(host);
    ev.source = StrSegment("/var/log/app.log");
    ev.sourceType = StrSegment("app");
    ev.time = StrSegment("1700000001");
    hub.deliver("main", ev);
  }

  std::shared_ptr<resttest::FakeBackend> backend;
  HTTPAuthManager auth{3600};
  HTTPRestDispatcher disp;
  LiveTailHub hub;
  LiveTailStream tail;
  EventLoopThread loop{"tail-test-loop"};
  HTTPServer server;
  Str key;
  bool ok = false;
};

// The body of a chunked reply, and whether its closing chunk came.
std::string dechunk(const std::string& reply, bool* closed) {
  *closed = false;
  size_t at = reply.find("\r\n\r\n");
  if (at == std::string::npos) return "";
  at += 4;
  std::string body;
  while (at < reply.size()) {
    size_t eol = reply.find("\r\n", at);
    if (eol == std::string::npos) break;
    size_t n = strtoul(reply.substr(at, eol - at).c_str(), nullptr, 16);
    if (n == 0) {
      *closed = true;
      break;
    }
    body += reply.substr(eol + 2, n);
    at = eol + 2 + n + 2;
  }
  return body;
}

TEST(LiveTailStreamTest, RefusalsComeBeforeAnyEvent) {
  setUp();
  resttest::PermissionsGuard perms;
  TailServer s;
  ASSERT_TRUE(s.ok);
  struct Case {
    std::string target;
    const char *status, *holds;
  } cases[] = {
      {"?search=search+error", " 401 ", ""},
      {"?search=search+error+|+stats+count&authtoken=" + s.key, " 400 ",
       "{\"messages\":[{\"type\":\"FATAL\",\"text\":\"The command 'stats' cannot be used in a live tail"},
      {"?authtoken=" + s.key, " 400 ", "The parameter 'search' is required"},
      {"?search=search+error&output_mode=xml&authtoken=" + s.key, " 400 ", "output_mode must be sse or json"},
      {"?search=search+error&max_count=-1&authtoken=" + s.key, " 400 ", "max_count must be a whole number"},
      {"?search=search+error&max_time=soon&authtoken=" + s.key, " 400 ", "max_time must be a whole number"},
  };
  for (const Case& c : cases) {
    std::string r = httptest::exchange(s.port(), "GET " + std::string(LiveTailStream::kPath) + c.target +
                                                     " HTTP/1.1\r\nHost: x\r\n\r\n");
    EXPECT_TRUE(httptest::contains(r, c.status)) << c.target << "\n" << r;
    EXPECT_TRUE(httptest::contains(r, c.holds)) << c.target << "\n" << r;
  }
  EXPECT_EQ(0u, s.hub.subscribers());
}

// json lines, max_count: the kept events in order, then the closing chunk.
TEST(LiveTailStreamTest, JsonLinesEndAfterMaxCount) {
  setUp();
  resttest::PermissionsGuard perms;
  TailServer s;
  ASSERT_TRUE(s.ok);
  int fd = s.open("search=search+error&output_mode=json&max_count=2");
  ASSERT_GE(fd, 0);
  ASSERT_TRUE(s.waitListening(1));
  s.publish("error one");
  s.publish("all fine");
  s.publish("error two");
  s.publish("error three");
  bool eof = false;
  std::string reply = httptest::readAll(fd, 10000, &eof);
  ::close(fd);
  EXPECT_TRUE(eof) << reply;
  EXPECT_TRUE(httptest::contains(reply, "HTTP/1.1 200 OK")) << reply;
  EXPECT_TRUE(httptest::contains(reply, "Content-Type: application/json")) << reply;
  bool closed = false;
  std::string body = dechunk(reply, &closed);
  EXPECT_TRUE(closed) << reply;
  const std::string common =
      "\"index\":\"main\",\"host\":\"web1\",\"source\":\"/var/log/app.log\",\"sourcetype\":\"app\",";
  EXPECT_EQ("{\"_time\":\"1700000001\"," + common + "\"_raw\":\"error one\"}\n" + "{\"_time\":\"1700000001\"," +
                common + "\"_raw\":\"error two\"}\n",
            body);
  for (int i = 0; i < 400 && s.tail.running() > 0; ++i) usleep(25 * 1000);
  EXPECT_EQ(0u, s.tail.running());
  EXPECT_EQ(0u, s.hub.subscribers()) << "the tail unsubscribed";
}

// sse chosen by the Accept header; a stop (the service's shutdown) ends the
// reply with its closing chunk.
TEST(LiveTailStreamTest, ServerSentEventsEndCleanlyAtStop) {
  setUp();
  resttest::PermissionsGuard perms;
  TailServer s;
  ASSERT_TRUE(s.ok);
  int fd = s.open("search=search+host%3Dweb2", "Accept: text/event-stream\r\n");
  ASSERT_GE(fd, 0);
  ASSERT_TRUE(s.waitListening(1));
  s.publish("from one", "web1");
  s.publish("from two", "web2");
  // The kept event arrives while the tail runs.
  std::string reply;
  for (int i = 0; i < 100 && reply.find("from two") == std::string::npos; ++i)
    reply += httptest::readAll(fd, 100);
  s.tail.stopAll();
  bool eof = false;
  reply += httptest::readAll(fd, 10000, &eof);
  ::close(fd);
  EXPECT_TRUE(eof);
  EXPECT_TRUE(httptest::contains(reply, "Content-Type: text/event-stream")) << reply;
  bool closed = false;
  std::string body = dechunk(reply, &closed);
  EXPECT_TRUE(closed) << reply;
  EXPECT_EQ("event: result\ndata: {\"_time\":\"1700000001\",\"index\":\"main\",\"host\":\"web2\",\"source\":"
            "\"/var/log/app.log\",\"sourcetype\":\"app\",\"_raw\":\"from two\"}\n\n",
            body);
  EXPECT_EQ(0u, s.hub.subscribers());
}

// A tail too slow for the indexer is told how many events it lost: every
// event published is either written or counted in a "dropped N events"
// notice.
TEST(LiveTailStreamTest, LostEventsAreCountedInNotices) {
  setUp();
  resttest::PermissionsGuard perms;
  TailServer s(1);
  ASSERT_TRUE(s.ok);
  int fd = s.open("search=search+error&output_mode=json");
  ASSERT_GE(fd, 0);
  ASSERT_TRUE(s.waitListening(1));
  const size_t total = 300;
  for (size_t i = 0; i < total; ++i) s.publish("error burst");
  std::string reply;
  size_t results = 0, dropped = 0;
  for (int i = 0; i < 200 && results + dropped < total; ++i) {
    reply += httptest::readAll(fd, 50);
    bool closed = false;
    std::string body = dechunk(reply, &closed);
    results = dropped = 0;
    std::istringstream in(body);
    std::string line;
    std::smatch m;
    while (std::getline(in, line)) {
      if (line.find("\"_raw\":\"error burst\"") != std::string::npos) ++results;
      if (std::regex_match(line, m, std::regex("\\{\"dropped\":([0-9]+),\"message\":\"dropped \\1 events\"\\}")))
        dropped += std::stoul(m[1]);
    }
  }
  ::close(fd);
  EXPECT_EQ(total, results + dropped) << results << " written, " << dropped << " dropped";
}

// A client that leaves is noticed at the next write; its tail ends.
TEST(LiveTailStreamTest, AClientThatGoesAwayEndsItsTail) {
  setUp();
  resttest::PermissionsGuard perms;
  TailServer s;
  ASSERT_TRUE(s.ok);
  int fd = s.open("search=search+*&output_mode=json");
  ASSERT_GE(fd, 0);
  ASSERT_TRUE(s.waitListening(1));
  s.publish("first");
  std::string first;
  for (int i = 0; i < 100 && first.find("first") == std::string::npos; ++i) first += httptest::readAll(fd, 100);
  ASSERT_TRUE(httptest::contains(first, "first")) << first;
  ::close(fd);
  for (int i = 0; i < 400 && s.tail.running() > 0; ++i) {
    s.publish("more");
    usleep(25 * 1000);
  }
  EXPECT_EQ(0u, s.tail.running());
  EXPECT_EQ(0u, s.hub.subscribers());
}

}  // namespace
