// velmor-index run as a program against a scratch installation: word counts
// on real logs against grep, a kill -9 in the middle of a write burst,
// buckets rolling under a small maxDataSize, and events read back through
// compressed raw data.
#include <gtest/gtest.h>

#include "../ToolProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <algorithm>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

const std::string kTool = VELMOR_BINARY_DIR "/bin/velmor-index";
const std::string kLoghub = VELMOR_SOURCE_DIR "/../shared/data/loghub/";

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string l; std::getline(in, l);) out.push_back(l);
  return out;
}

// One generated line of about 200 bytes, unique by its "evt<id>" word.
std::string genLine(long id) {
  static const char* kActions[] = {"login", "logout", "read", "write", "delete", "update"};
  char buf[256];
  int n = snprintf(buf, sizeof buf,
                   "2026-11-20T%02ld:%02ld:%02ldZ host%ld evt%07ld user=u%ld action=%s status=%ld latency=%ldms "
                   "path=/api/v1/items/%ld ",
                   (id / 3600) % 24, (id / 60) % 60, id % 60, id % 7, id, (id * 7919) % 500, kActions[id % 6],
                   200 + (id % 3) * 150, (id * 31) % 1000, (id * 104729) % 100000);
  std::string s(buf, size_t(n));
  s.append(200 - s.size() - 1, 'x');
  return s;
}

class IndexToolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (access(kTool.c_str(), X_OK) != 0) GTEST_SKIP() << "velmor-index not built";
    char tmpl[] = "/tmp/velmor-index-tool-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir = tmpl;
    home = dir + "/home";
    db = home + "/var/lib/velmor/db";
    std::string cmd = std::string(VELMOR_SOURCE_DIR "/scripts/mkhome.sh ") + home + " >/dev/null";
    ASSERT_EQ(system(cmd.c_str()), 0);
    std::ofstream conf(home + "/etc/bundles/local/indexes.conf");
    // Events of the logs are years old: nothing may freeze.
    for (const char* name : {"t", "small"}) {
      conf << "[" << name << "]\n"
           << "homePath = $VELMOR_DB/" << name << "/db\n"
           << "coldPath = $VELMOR_DB/" << name << "/colddb\n"
           << "thawedPath = $VELMOR_DB/" << name << "/thaweddb\n"
           << "maxResults = 1000000\ncompressRawdata = true\n"
           << "maxDataSize = " << (std::string(name) == "small" ? 1 : 750) << "\n"
           << "maxTotalDataSizeMB = 500000\nfrozenTimePeriodInSecs = 2147483647\nmaxWarmDBCount = 1000\n\n";
    }
  }
  void TearDown() override {
    if (!dir.empty() && system(("rm -rf " + dir).c_str()) != 0) ADD_FAILURE() << "cleanup";
  }

  void childEnv() {
    setenv("VELMOR_HOME", home.c_str(), 1);
    setenv("VELMOR_DB", db.c_str(), 1);
  }

  ToolRun run(const std::vector<std::string>& args) {
    return runTool(kTool, args, dir, {{"VELMOR_HOME", home}, {"VELMOR_DB", db}});
  }

  [[noreturn]] void exec(const std::vector<std::string>& args) {
    std::vector<char*> argv{const_cast<char*>(kTool.c_str())};
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(kTool.c_str(), argv.data());
    _exit(127);
  }

  // Writes lines first..last of the generated log.
  std::string writeLog(const std::string& name, long first, long last) {
    std::string path = dir + "/" + name;
    std::ofstream f(path);
    for (long i = first; i <= last; ++i) f << genLine(i) << "\n";
    return path;
  }

  // The output lines of a search, which must succeed.
  std::vector<std::string> search(const std::string& index, const std::vector<std::string>& terms) {
    std::vector<std::string> args{"search", index, "--count", "1000000"};
    args.insert(args.end(), terms.begin(), terms.end());
    ToolRun r = run(args);
    EXPECT_EQ(r.status, 0) << r.err;
    return lines(r.out);
  }

  // Event id -> how many times it was found, over every event of the index;
  // each found text must be the generated line of its id.
  std::map<long, int> foundIds(const std::string& index) {
    std::map<long, int> ids;
    for (const std::string& l : search(index, {})) {
      size_t tab2 = l.find('\t', l.find('\t') + 1);
      std::string raw = l.substr(tab2 + 1);
      size_t at = raw.find(" evt");
      long id = at == std::string::npos ? -1 : atol(raw.c_str() + at + 4);
      EXPECT_EQ(raw, genLine(id)) << "corrupt event: " << l;
      ++ids[id];
    }
    return ids;
  }

  int grepCount(const std::string& word, const std::string& file) {
    return int(shellNumber("grep -ciw -- '" + word + "' '" + file + "'"));
  }

  std::string dir, home, db;
};

TEST_F(IndexToolTest, LoghubWordCountsMatchGrep) {
  const std::map<std::string, std::vector<std::string>> words = {
      {"Apache", {"error", "notice", "jk2_init", "workerenv", "mod_jk", "child"}},
      {"HDFS", {"info", "warn", "receiving", "packetresponder", "terminating"}},
      {"Linux", {"sshd", "authentication", "failure", "root", "session", "closed"}},
      {"OpenSSH", {"failed", "invalid", "password", "root", "preauth", "disconnect"}},
      {"Spark", {"info", "executor", "block", "memory", "stored", "task"}},
      {"Thunderbird", {"ntpd", "synchronized", "crond", "pam_unix", "tbird-admin1", "dhcpd"}},
      {"Windows", {"info", "cbs", "sqm", "failed", "session", "trustedinstaller"}},
      {"Zookeeper", {"info", "warn", "error", "quorum", "session", "leader"}},
  };
  int systems = 0;
  for (const auto& [system, list] : words) {
    std::string log = kLoghub + system + "/" + system + "_2k.log";
    if (access(log.c_str(), R_OK) != 0) continue;
    ++systems;
    std::string index = "t";
    ASSERT_EQ(::system(("rm -rf " + db + "/t").c_str()), 0);
    ToolRun add = run({"add", index, log, "--sourcetype", system});
    ASSERT_EQ(add.status, 0) << add.err;
    EXPECT_NE(add.err.find("2000 events added to t"), std::string::npos) << add.err;
    for (const std::string& w : list) {
      int expected = grepCount(w, log);
      ASSERT_GT(expected, 0) << system << " " << w;
      EXPECT_EQ(int(search(index, {w}).size()), expected) << system << " " << w;
    }
    // Upper case terms find the same; two terms intersect.
    EXPECT_EQ(search(index, {list[0]}).size(), search(index, {"meta::all", list[0]}).size()) << system;
    std::string upper = list[1];
    for (char& c : upper) c = char(toupper((unsigned char)c));
    EXPECT_EQ(search(index, {upper}).size(), search(index, {list[1]}).size()) << system;
  }
  if (systems == 0) GTEST_SKIP() << "no sample logs under " << kLoghub;
}

// Text is indexed by its words; a string of several words is looked up by
// them and confirmed in the text, wherever it stands, and --count counts the
// confirmed events only.
TEST_F(IndexToolTest, StringsOfSeveralWordsAreFoundInsideLongerOnes) {
  std::string log = dir + "/net.log";
  {
    std::ofstream f(log);
    f << "2026-11-20T00:00:01Z sync to 10.0.0.2:123 done\n"
         "2026-11-20T00:00:02Z src=10.0.0.2 dst=10.9.9.9\n"
         "2026-11-20T00:00:03Z peer 10.0.0.20 up\n"
         "2026-11-20T00:00:04Z peer 110.0.0.2 up\n"
         "2026-11-20T00:00:05Z words 10 0 2 apart\n"
         "2026-11-20T00:00:06Z path /var/log/Syslog.1 rotated\n";
  }
  ASSERT_EQ(run({"add", "t", log}).status, 0);
  struct Case {
    std::vector<std::string> args;
    std::vector<int> seconds;  // of the events found, newest first
  } cases[] = {
      {{"10.0.0.2"}, {2, 1}},
      {{"src=10.0.0.2"}, {2}},
      {{"10.0.0.2:123"}, {1}},
      // The words 0 and 2 must be words of the event: 10.0.0.20 holds the
      // string but not the word 2.
      {{"0.0.2"}, {4, 2, 1}},
      {{"10.0.0"}, {3, 2, 1}},
      {{"10.0.*.2"}, {2, 1}},  // a star in a string is a wildcard, as in a search
      {{"/var/log/syslog.1"}, {6}},
      {{"log/SYSLOG"}, {6}},
      {{"10.0.0.2", "dst=10.9.9.9"}, {2}},
      {{"10.0.0.2", "--count", "1"}, {2}},
      {{"10.0.0.3"}, {}},
  };
  for (const Case& c : cases) {
    std::vector<std::string> args{"search", "t"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    if (std::find(c.args.begin(), c.args.end(), "--count") == c.args.end()) args.insert(args.end(), {"--count", "100"});
    ToolRun r = run(args);
    ASSERT_EQ(r.status, 0) << c.args[0] << ": " << r.err;
    std::vector<int> got;
    for (const std::string& l : lines(r.out)) got.push_back(std::stoi(l.substr(17, 2)));
    EXPECT_EQ(got, c.seconds) << c.args[0];
  }
}

TEST_F(IndexToolTest, TimesBoundsAndOrder) {
  // A line with no stamp before any stamped line is timed by the file's
  // modification time; one after a stamped line takes that line's time.
  std::string log = dir + "/a.log";
  {
    std::ofstream f(log);
    f << "no stamp here evtnostamp\n";
  }
  writeLog("rest.log", 1, 3600);
  ASSERT_EQ(system(("cat " + dir + "/rest.log >> " + log).c_str()), 0);
  {
    std::ofstream f(log, std::ios::app);
    f << "\tat continuation evtcontinued\n\n   \n";
  }
  struct timespec times[2] = {{1700000000, 0}, {1700000000, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, log.c_str(), times, 0), 0);
  ToolRun add = run({"add", "t", log, "--host", "web9"});
  ASSERT_EQ(add.status, 0) << add.err;
  EXPECT_NE(add.err.find("3602 events added to t, 2 blank lines skipped"), std::string::npos) << add.err;

  std::vector<std::string> all = search("t", {});
  ASSERT_EQ(all.size(), 3602u);
  std::vector<std::string> continued = search("t", {"evtcontinued"});
  ASSERT_EQ(continued.size(), 1u);
  EXPECT_EQ(continued[0].substr(0, 21), "2026-11-20T01:00:00Z\t") << "the time of the last stamped line";
  // Newest first; the stamp-less line carries the file time (the oldest).
  EXPECT_EQ(all.front().substr(0, 21), "2026-11-20T01:00:00Z\t");
  EXPECT_EQ(all.back().substr(0, 21), "2023-11-14T22:13:20Z\t");
  EXPECT_EQ(search("t", {"evtnostamp"}).size(), 1u);
  EXPECT_EQ(search("t", {"host::web9"}).size(), 3602u);
  // [00:10:00, 00:19:59] holds ids 600..1199.
  EXPECT_EQ(search("t", {"--earliest", "2026-11-20T00:10:00Z", "--latest", "2026-11-20T00:19:59Z"}).size(), 600u);
  EXPECT_EQ(search("t", {"action=delete", "--earliest", "2026-11-20T00:10:00Z"}).size(), 500u);
  EXPECT_EQ(search("t", {"evt0000042", "--latest", "2026-11-20T00:00:41Z"}).size(), 0u);
  ToolRun few = run({"search", "t", "--count", "7"});
  EXPECT_EQ(lines(few.out).size(), 7u);
}

TEST_F(IndexToolTest, BadInputIsRefusedClearly) {
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string text;  // in stderr
  };
  std::string log = writeLog("ok.log", 1, 3);
  const Case cases[] = {
      {{}, 2, "no command given"},
      {{"search", "t", "--count", "x"}, 2, "--count needs a positive number"},
      {{"add", "nosuch", log}, 1, "no index named 'nosuch' in the indexes configuration"},
      {{"add", "default", log}, 1, "no index named 'default'"},
      {{"add", "t", dir + "/missing.log"}, 1, "cannot read " + dir + "/missing.log"},
      {{"add", "t", dir}, 1, "is a directory"},
  };
  for (const Case& c : cases) {
    ToolRun r = run(c.args);
    EXPECT_EQ(r.status, c.status) << r.err;
    EXPECT_NE(r.err.find(c.text), std::string::npos) << r.err;
  }
  // Reading commands on an index never written say so and create nothing.
  ToolRun info = run({"info", "small"});
  EXPECT_EQ(info.status, 0) << info.err;
  EXPECT_NE(info.out.find("index 'small' holds no buckets"), std::string::npos) << info.out;
  EXPECT_NE(access((db + "/small").c_str(), F_OK), 0) << "info created the index directory";
  // Nothing was written by the refused adds.
  EXPECT_EQ(search("t", {}).size(), 0u);
  ToolRun empty = run({"roll", "t"});
  EXPECT_EQ(empty.status, 0);
  EXPECT_NE(empty.err.find("empty; nothing to roll"), std::string::npos) << empty.err;
}

TEST_F(IndexToolTest, KillDuringWriteBurstKeepsSyncedEvents) {
  const long total = 200000;
  std::string log = writeLog("burst.log", 1, total);
  int errPipe[2];
  ASSERT_EQ(pipe(errPipe), 0);
  pid_t pid = fork();
  if (pid == 0) {
    close(errPipe[0]);
    dup2(errPipe[1], 2);
    int devnull = open("/dev/null", O_WRONLY);
    dup2(devnull, 1);
    childEnv();
    exec({"add", "t", log, "--sync-every", "20000"});
  }
  close(errPipe[1]);
  // Kill it right after its third sync, in the middle of the burst.
  FILE* err = fdopen(errPipe[0], "r");
  char line[1024];
  long synced = 0;
  int syncs = 0;
  while (syncs < 3 && fgets(line, sizeof line, err)) {
    const char* p = strstr(line, " bytes, ");
    if (!p) continue;
    synced = atol(p + 8);
    ++syncs;
  }
  kill(pid, SIGKILL);
  fclose(err);
  int st = 0;
  waitpid(pid, &st, 0);
  ASSERT_TRUE(WIFSIGNALED(st)) << "the add finished before it was killed";
  ASSERT_EQ(syncs, 3);
  ASSERT_EQ(synced, 60000);

  std::map<long, int> ids = foundIds("t");
  for (long id = 1; id <= synced; ++id) {
    auto it = ids.find(id);
    ASSERT_TRUE(it != ids.end() && it->second == 1) << "event " << id << " found " << (it == ids.end() ? 0 : it->second)
                                                    << " times";
  }
  for (const auto& [id, n] : ids) {
    EXPECT_EQ(n, 1) << "event " << id;
    EXPECT_TRUE(id >= 1 && id <= total) << id;
  }

  // The index takes writes again and still answers by term.
  ToolRun info = run({"info", "t"});
  EXPECT_EQ(info.status, 0) << info.err;
  std::string more = writeLog("more.log", total + 1, total + 100);
  ToolRun add = run({"add", "t", more});
  ASSERT_EQ(add.status, 0) << add.err;
  char word[32];
  snprintf(word, sizeof word, "evt%07ld", total + 50);
  std::vector<std::string> hit = search("t", {word});
  ASSERT_EQ(hit.size(), 1u);
  EXPECT_EQ(hit[0].substr(hit[0].rfind('\t') + 1), genLine(total + 50));
  std::vector<std::string> old = search("t", {"evt0000777"});
  ASSERT_EQ(old.size(), 1u);
  EXPECT_EQ(old[0].substr(old[0].rfind('\t') + 1), genLine(777));
}

// Progress lines count the bytes and events of their own file; a file added
// without --sourcetype gets the source type its name gives.
TEST_F(IndexToolTest, ProgressIsPerFileAndSourceTypeComesFromTheName) {
  const long perFile = 21000;  // 200-byte lines: just over the 4 MiB that earns progress lines
  std::string auth = writeLog("auth.log.1", 1, perFile);
  std::string web = writeLog("web_access.log", perFile + 1, 2 * perFile);
  ToolRun add = run({"add", "t", auth, web, "--sync-every", "5000"});
  ASSERT_EQ(add.status, 0) << add.err;
  std::map<std::string, int> progress;
  for (const std::string& l : lines(add.err)) {
    unsigned long long bytes = 0, size = 0, events = 0;
    char file[512];
    if (sscanf(l.c_str(), "velmor-index: %511[^:]: %llu/%llu bytes, %llu events", file, &bytes, &size, &events) != 4)
      continue;
    ++progress[file];
    EXPECT_EQ(size, 200ull * perFile) << l;
    EXPECT_EQ(bytes, 200 * events) << l;
    EXPECT_EQ(events % 5000, 0u) << l;
    EXPECT_LE(events, (unsigned long long)perFile) << l;
  }
  EXPECT_EQ(progress[auth], 4) << add.err;
  EXPECT_EQ(progress[web], 4) << add.err;

  EXPECT_EQ(search("t", {"sourcetype::auth"}).size(), size_t(perFile));
  EXPECT_EQ(search("t", {"sourcetype::web_access"}).size(), size_t(perFile));
  EXPECT_EQ(search("t", {"sourcetype::unknown1"}).size(), 0u);
}

TEST_F(IndexToolTest, BucketsRollAndFindTheSameEvents) {
  const long total = 30000;  // about 6 MB of text against a 1 MB bucket size
  std::string log = writeLog("roll.log", 1, total);
  ToolRun add = run({"add", "small", log, "--sync-every", "2000"});
  ASSERT_EQ(add.status, 0) << add.err;
  ToolRun info = run({"info", "small"});
  ASSERT_EQ(info.status, 0) << info.err;
  std::vector<std::string> rows = lines(info.out);
  size_t warm = 0;
  long events = 0;
  for (size_t i = 1; i < rows.size(); ++i) {
    std::istringstream in(rows[i]);
    std::string state, id, first, last;
    long n = 0;
    in >> state >> id >> first >> last >> n;
    warm += state == "warm";
    events += n;
  }
  EXPECT_GE(warm, 3u) << info.out;
  EXPECT_EQ(events, total) << info.out;

  // A few more events stay in the hot bucket (far below 1 MB).
  ToolRun tail = run({"add", "small", writeLog("tail.log", total + 1, total + 60)});
  ASSERT_EQ(tail.status, 0) << tail.err;
  std::map<long, int> ids = foundIds("small");
  ASSERT_EQ(ids.size(), size_t(total + 60));
  for (const auto& [id, n] : ids) ASSERT_EQ(n, 1) << "event " << id;
  std::vector<std::string> before = search("small", {"action=write"});
  EXPECT_EQ(before.size(), size_t((total + 60) / 6));
  std::vector<std::string> rare = search("small", {"evt0012345"});
  ASSERT_EQ(rare.size(), 1u);

  // An explicit roll changes which bucket is hot, not what is found.
  ToolRun roll = run({"roll", "small"});
  ASSERT_EQ(roll.status, 0) << roll.err;
  EXPECT_NE(roll.err.find("rolled the hot bucket of small to "), std::string::npos) << roll.err;
  EXPECT_EQ(search("small", {"action=write"}), before);
  EXPECT_EQ(search("small", {"evt0012345"}), rare);
  ToolRun again = run({"roll", "small"});
  EXPECT_NE(again.err.find("empty; nothing to roll"), std::string::npos) << again.err;
}

// With a tiny hot-slice budget each sync leaves several slices; add starts
// the optimiser and waits for it, so the bucket ends in far fewer, and what
// is found does not change. With optimizeEvery = 0 nothing is merged.
TEST_F(IndexToolTest, AddMergesTheSlicesItMade) {
  {
    std::ofstream conf(home + "/etc/bundles/local/indexes.conf", std::ios::app);
    for (const char* name : {"merged", "unmerged"})
      conf << "[" << name << "]\nhomePath = $VELMOR_DB/" << name << "/db\ncoldPath = $VELMOR_DB/" << name
           << "/colddb\nthawedPath = $VELMOR_DB/" << name << "/thaweddb\nmaxResults = 1000000\n"
           << "compressRawdata = true\nmaxDataSize = 750\nmaxTotalDataSizeMB = 500000\n"
           << "frozenTimePeriodInSecs = 2147483647\nmaxMemMB = 1\n"
           << "optimizeEvery = " << (std::string(name) == "merged" ? 20 : 0) << "\n\n";
  }
  std::string log = writeLog("merge.log", 1, 20000);
  auto slices = [&](const std::string& index) {
    return shellNumber("ls " + db + "/" + index + "/db/db-hot/*.tsidx | wc -l");
  };
  for (const char* index : {"merged", "unmerged"}) {
    ToolRun add = run({"add", index, log, "--sync-every", "2000"});
    ASSERT_EQ(add.status, 0) << add.err;
  }
  EXPECT_GE(slices("unmerged"), 10);
  EXPECT_LE(slices("merged"), slices("unmerged") / 2);
  EXPECT_EQ(search("merged", {"action=write"}), search("unmerged", {"action=write"}));
  EXPECT_EQ(search("merged", {"evt0012345"}).size(), 1u);
  EXPECT_EQ(search("merged", {}).size(), 20000u);
}

TEST_F(IndexToolTest, CompressedRawAddressesMapBackToTheirEvents) {
  const long total = 70000;  // 14 MB: the raw data rolls into a gzipped file
  std::string log = writeLog("gz.log", 1, total);
  ToolRun add = run({"add", "t", log});
  ASSERT_EQ(add.status, 0) << add.err;
  std::string raw = db + "/t/db/db-hot/rawdata";
  ASSERT_EQ(access((raw + "/0.gz").c_str(), R_OK), 0) << "no compressed raw file";

  // Ids across the compressed and the plain file, read one at a time and
  // all together.
  std::set<std::string> cds;
  long previousAddress = -1;
  for (long id = 1; id <= total; id += 997) {
    char word[32];
    snprintf(word, sizeof word, "evt%07ld", id);
    std::vector<std::string> hit = search("t", {word});
    ASSERT_EQ(hit.size(), 1u) << word;
    std::vector<std::string> parts;
    std::istringstream in(hit[0]);
    for (std::string p; std::getline(in, p, '\t');) parts.push_back(p);
    ASSERT_EQ(parts.size(), 3u) << hit[0];
    EXPECT_EQ(parts[2], genLine(id)) << word;
    long address = atol(parts[1].c_str() + parts[1].find(':') + 1);
    EXPECT_GT(address, previousAddress) << "addresses follow the write order";
    previousAddress = address;
    cds.insert(parts[1]);
  }
  EXPECT_EQ(cds.size(), size_t((total - 1) / 997 + 1));
  std::map<long, int> ids = foundIds("t");
  EXPECT_EQ(ids.size(), size_t(total));
}

}  // namespace
