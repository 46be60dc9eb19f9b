// The live tail as users run it: velmord follows a file, a client opens
// /services/streams/tail with curl, lines are appended to the file, and
// exactly the lines the search keeps arrive, in order, with the host of
// the file's stanza; at the service's stop the reply ends cleanly.
#include <gtest/gtest.h>

#include <ctime>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "ServiceFixture.h"

namespace {

// A scratch installation following <home>/logs with host "web9", plain
// HTTP, and an admin.
class TailHome : public ScratchHome {
 public:
  TailHome() : ScratchHome("velmord_tail_test") {
    followLogs("sourcetype = app\nhost = web9\n");
    std::ofstream(path() + "/logs/app.log").flush();
    plainHttp();
    seedUser("admin", "Tail-Secret-1");
    setEnv("VELMOR_BINDIP", "127.0.0.1");
  }
  void append(const std::string& line) const {
    char stamp[32];
    time_t now = time(nullptr);
    strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", gmtime(&now));
    std::ofstream(path() + "/logs/app.log", std::ios::app) << stamp << " " << line << "\n";
  }
};

TEST(VelmordTail, ExactlyTheKeptLinesArriveAndTheReplyEndsAtStop) {
  TailHome home;
  const int port = freePort();
  ASSERT_GT(port, 0);
  const std::string base = "http://127.0.0.1:" + std::to_string(port) + "/services";
  ServiceProcess service(home, port);
  service.captureOutput(home.path() + "/velmord.out", home.path() + "/velmord.out");
  ASSERT_TRUE(service.start()) << slurp(home.path() + "/velmord.out");

  ToolRun login = curlBare(home,
                           {"-s", "--max-time", "20", "--retry", "40", "--retry-connrefused", "--retry-delay", "0",
                            base + "/auth/login", "-d", "username=admin", "-d", "password=Tail-Secret-1"});
  std::smatch m;
  ASSERT_TRUE(std::regex_search(login.out, m, std::regex("<sessionKey>([0-9a-f]{32})</sessionKey>"))) << login.out;
  const std::string key = m[1];

  // A search that a refused command spoils is answered at once.
  ToolRun refused = curlBare(home,
                             {"-s", "--max-time", "20", "-w", "\n%{http_code}", "-H", "Authorization: Velmor " + key,
                              base + "/streams/tail", "--data-urlencode", "search=search error | stats count"});
  EXPECT_NE(std::string::npos, refused.out.find("The command 'stats' cannot be used in a live tail")) << refused.out;
  EXPECT_EQ("400", refused.out.substr(refused.out.size() - 3)) << refused.out;

  const std::string tailOut = home.path() + "/tail.out";
  ChildProcess tail;
  tail.start(kCurl,
             {"-sN", "--max-time", "90", "-H", "Authorization: Velmor " + key, base + "/streams/tail",
              "--data-urlencode", "search=search error | where code>=500", "-d", "output_mode=json"},
             home.env(), tailOut, tailOut);
  sleepMs(1000);  // the tail subscribes

  struct Line {
    const char* text;
    bool kept;
  } lines[] = {
      {"error code=503 first", true},  {"error code=404 second", false}, {"info code=500 third", false},
      {"warn code=502 fourth", false}, {"error code=500 fifth", true},
  };
  for (const Line& l : lines) home.append(l.text);

  // Bounded wait for the last kept line; the others were written before it.
  std::string got;
  for (auto deadline = Clock::now() + std::chrono::seconds(30);
       Clock::now() < deadline && got.find("fifth") == std::string::npos; sleepMs(100))
    got = slurp(tailOut);

  std::vector<std::string> raws;
  std::istringstream in(got);
  std::string line;
  while (std::getline(in, line)) {
    if (line.empty()) continue;  // a keepalive
    EXPECT_NE(std::string::npos, line.find("\"host\":\"web9\"")) << line;
    EXPECT_NE(std::string::npos, line.find("\"sourcetype\":\"app\"")) << line;
    std::smatch r;
    if (std::regex_search(line, r, std::regex("\"_raw\":\"[0-9: -]+ ([^\"]*)\""))) raws.push_back(r[1]);
  }
  std::vector<std::string> want;
  for (const Line& l : lines)
    if (l.kept) want.push_back(l.text);
  EXPECT_EQ(want, raws) << got;

  // earliest_time sends first the kept events already indexed, oldest
  // first (they become searchable within the index's sync period).
  std::string history;
  for (int attempt = 0; attempt < 15 && history.find("fifth") == std::string::npos; ++attempt) {
    ToolRun h = curlBare(home,
                         {"-sN", "--max-time", "20", "-H", "Authorization: Velmor " + key,
                         base + "/streams/tail?output_mode=json&earliest_time=-1h&max_time=1", "--data-urlencode",
                          "search=search error | where code>=500"});
    history = h.out;
  }
  size_t first = history.find("error code=503 first"), fifth = history.find("error code=500 fifth");
  EXPECT_NE(std::string::npos, first) << history;
  EXPECT_NE(std::string::npos, fifth) << history;
  EXPECT_LT(first, fifth) << history;
  EXPECT_EQ(std::string::npos, history.find("second")) << history;

  // The service's stop ends the reply cleanly: curl sees its end and exits 0.
  EXPECT_EQ(0, service.stop(60));
  EXPECT_EQ(0, tail.stop(0, 30)) << slurp(tailOut);
}

}  // namespace
