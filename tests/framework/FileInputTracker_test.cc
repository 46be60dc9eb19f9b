// FileInputTracker: where reading of a file resumes after rotation, rewrite,
// truncation and restart (the position found again through the index); how
// files are told apart (head hash, salt, skipped headers); the record text
// and its parsing; the tracking rule from props; the cache window.
#include "framework/FileInputTracker.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "libbundle/PropertyPages.h"
#include "loaderinfo/LoaderInfo.h"

namespace {

// The index of positions: serves the records the sink received, newest
// first, those that carry the searched key.
class FakeIndex : public IQueryRunner {
 public:
  std::vector<std::shared_ptr<PipelineData>> records;
  std::vector<Str> queries;

  void runQuery(const char*, const char*, const char*, Str&) override { ADD_FAILURE() << "document query"; }
  void runQuery(const char* query, const char*, const char*,
                std::unordered_map<Str, std::vector<std::shared_ptr<Str>>>& results) override {
    queries.emplace_back(query);
    Str q(query);
    size_t b = q.find(' ') + 1, e = q.find(" index::");
    Str key = q.substr(b, e - b) + " ";
    for (auto it = records.rbegin(); it != records.rend(); ++it) {
      const Str& raw = (*it)->getStr(PipelineData::rawKey);
      if (raw.find(" " + key) != Str::npos) results["events"].push_back(std::make_shared<Str>(raw));
    }
  }
  void runSearch(const char*, SearchResults&, SearchResultsInfo&) override { ADD_FAILURE() << "search"; }
};

std::string gSuiteDir;

class FileInputTrackerTest : public ::testing::Test {
 public:  // the case tables' steps use the helpers
  static void SetUpTestSuite() {
    char tmpl[] = "/tmp/velmor-filetracker-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    gSuiteDir = tmpl;
    std::string home = gSuiteDir + "/home";
    ASSERT_EQ(system(("bash " VELMOR_SOURCE_DIR "/scripts/mkhome.sh " + home + " >/dev/null").c_str()), 0);
    setenv("VELMOR_HOME", home.c_str(), 1);
    setenv("VELMOR_DB", (home + "/var/lib/velmor/db").c_str(), 1);
    LoaderInfo::getInstance().populateFromEnvironment();
    std::ofstream props(home + "/etc/bundles/local/props.conf");
    for (const char* rule : {"entire_md5", "MODTIME", "modtime_and_more", "endpoint_md5", "bogus"})
      props << "[source::" << gSuiteDir << "/rules/" << rule << "]\nCHECK_METHOD = " << rule << "\n\n";
    props.close();
    PropertyPages::propsInstance().updateConfigs();
  }
  static void TearDownTestSuite() {
    if (system(("rm -rf " + gSuiteDir).c_str()) != 0) ADD_FAILURE() << "cleanup";
  }

  void SetUp() override {
    dir = gSuiteDir + "/" + ::testing::UnitTest::GetInstance()->current_test_info()->name();
    ASSERT_EQ(mkdir(dir.c_str(), 0700), 0);
    restart();
  }

  // A fresh tracker (as after a restart of the process) on the same index.
  void restart() {
    FileInputTracker::resetForTest();
    tracker().setQueryRunner(&index);
    tracker().setRecordSink([this](std::shared_ptr<PipelineData> r) {
      index.records.push_back(r);
      return true;
    });
  }
  static FileInputTracker& tracker() { return FileInputTracker::instance(); }

  // Deterministic text of n bytes, different per seed.
  static std::string text(size_t n, unsigned seed) {
    std::string s(n, ' ');
    uint32_t x = seed * 2654435761u + 1;
    for (size_t i = 0; i < n; ++i) {
      x = x * 1103515245u + 12345u;
      s[i] = i % 80 == 79 ? '\n' : char('a' + (x >> 16) % 26);
    }
    return s;
  }
  std::string path(const std::string& name) const { return dir + "/" + name; }
  void write(const std::string& name, const std::string& content, long mtime = 1700000000) {
    std::ofstream(path(name), std::ios::binary | std::ios::trunc) << content;
    struct timeval tv[2] = {{mtime, 0}, {mtime, 0}};
    ASSERT_EQ(utimes(path(name).c_str(), tv), 0);
  }
  FileData data(const std::string& name, const char* salt = "", int rule = FileData::kRuleEndpointMd5) const {
    FileData d;
    d.source = "source::" + path(name);
    d.crcSalt = salt;
    d.trackingRule = rule;
    return d;
  }
  // What a follower does: check, read to the end, record the position.
  void readAll(const std::string& name, const char* salt = "", int rule = FileData::kRuleEndpointMd5) {
    FileData d = data(name, salt, rule);
    ASSERT_EQ(tracker().checkFile(d), 0);
    d.seekPtr = d.fileSize;
    tracker().updateSeekCRC(d);
    tracker().updateSeek(d);
  }
  // checkFile with its log captured.
  int check(FileData& d, std::string& log) {
    ::testing::internal::CaptureStderr();
    int rc = tracker().checkFile(d);
    log = ::testing::internal::GetCapturedStderr();
    return rc;
  }

  std::string dir;
  FakeIndex index;
};

constexpr uint64_t kWholeFile = ~uint64_t(0);

struct ResumeCase {
  const char* name;
  std::function<void(FileInputTrackerTest&)> before;  // files written and read
  const char* checked;
  const char* salt;
  int rule;
  uint64_t seekPtr;  // kWholeFile: the file's size
  const char* log;   // expected in the log, or null
};

TEST_F(FileInputTrackerTest, WhereReadingResumes) {
  using T = FileInputTrackerTest;
  const std::string body = text(1000, 1);
  const ResumeCase cases[] = {
      {"renamed file with the same head is not read again",
       [&](T& t) { t.write("a", body); t.readAll("a"); rename(t.path("a").c_str(), t.path("a.1").c_str()); },
       "a.1", "", 1, 1000, "Same mod time"},
      {"appended file resumes where it was left",
       [&](T& t) { t.write("a", body); t.readAll("a"); t.write("a", body + text(300, 2), 1700000100); },
       "a", "", 1, 1000, nullptr},
      {"new file at the old path starts at 0",
       [&](T& t) { t.write("a", body); t.readAll("a"); rename(t.path("a").c_str(), t.path("a.1").c_str());
                   t.write("a", text(500, 3)); },
       "a", "", 1, 0, nullptr},
      {"truncated file shorter than the position starts at 0",
       [&](T& t) { t.write("a", body); t.readAll("a"); t.write("a", body.substr(0, 600), 1700000100); },
       "a", "", 1, 0, "Last time we read this file path it was longer. Resetting seekPtr"},
      {"same head but changed bytes before the position starts at 0",
       [&](T& t) { t.write("a", body); t.readAll("a");
                   t.write("a", body.substr(0, 900) + text(100, 4) + text(200, 5), 1700000100); },
       "a", "", 1, 0, "File appears to have changed; old CRC: "},
      {"entire_md5: an append makes another file",
       [&](T& t) { t.write("a", body); t.readAll("a", "", 2); t.write("a", body + "more\n", 1700000100); },
       "a", "", 2, 0, nullptr},
      {"entire_md5: an unchanged file is skipped",
       [&](T& t) { t.write("a", body); t.readAll("a", "", 2); },
       "a", "", 2, 1000, nullptr},
      {"copy under another name collides without salt",
       [&](T& t) { t.write("a", body); t.readAll("a"); t.write("b", body); },
       "b", "", 1, 1000, nullptr},
      {"copy under another name is kept apart by the <SOURCE> salt",
       [&](T& t) { t.write("a", body); t.readAll("a", "<SOURCE>"); t.write("b", body); },
       "b", "<SOURCE>", 1, 0, nullptr},
      {"older copy of a file read newer elsewhere is skipped",
       [&](T& t) { t.write("a", body, 1700000500); t.readAll("a"); t.write("b", body + "x\n", 1700000000); },
       "b", "", 1, kWholeFile, "We've read a newer version ("},
      {"longer file read under another name: shorter one starts at 0",
       [&](T& t) { t.write("a", body, 1700000000); t.readAll("a"); t.write("b", body.substr(0, 700), 1700000100); },
       "b", "", 1, 0, "Read a similar file to this that was longer."},
      {"zero-length file is accepted with nothing to read",
       [&](T& t) { t.write("a", ""); }, "a", "", 1, 0, "File size is zero: "},
      {"short file read again resumes at its end",
       [&](T& t) { t.write("a", "tiny\n"); t.readAll("a"); }, "a", "", 1, 5, nullptr},
      {"modtime: unchanged time keeps the position",
       [&](T& t) { t.write("a", body); t.readAll("a", "", 3); t.write("a", body + "x\n"); },
       "a", "", 3, 1000, nullptr},
      {"modtime: a changed time reads the file again",
       [&](T& t) { t.write("a", body); t.readAll("a", "", 3); t.write("a", body, 1700000001); },
       "a", "", 3, 0, "Mod time has changed on file "},
      {"modtime: after a restart the index decides",
       [&](T& t) { t.write("a", body); t.readAll("a", "", 3); t.restart(); t.write("a", body, 1700000001); },
       "a", "", 3, 0, "In index, time has changed '"},
      {"restart finds the position through the index",
       [&](T& t) { t.write("a", body); t.readAll("a"); t.restart(); t.write("a", body + "x\n", 1700000100); },
       "a", "", 1, 1000, nullptr},
      {"restart: the newest record wins",
       [&](T& t) { t.write("a", body.substr(0, 400)); t.readAll("a"); t.write("a", body, 1700000050); t.readAll("a");
                   t.tracker().clearCache(); },
       "a", "", 1, 1000, nullptr},
      {"restart without a query runner starts at 0",
       [&](T& t) { t.write("a", body); t.readAll("a"); t.restart(); t.tracker().setQueryRunner(nullptr); },
       "a", "", 1, 0, "There is no query runner registered"},
  };
  for (const ResumeCase& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_EQ(system(("rm -rf " + dir + "/*").c_str()), 0);
    index.records.clear();
    restart();
    c.before(*this);
    FileData d = data(c.checked, c.salt, c.rule);
    std::string log;
    EXPECT_EQ(check(d, log), 0) << log;
    EXPECT_EQ(d.seekPtr, c.seekPtr == kWholeFile ? d.fileSize : c.seekPtr) << log;
    if (c.log) {
      EXPECT_NE(log.find(c.log), std::string::npos) << log;
    }
  }
}

TEST_F(FileInputTrackerTest, UnusableFilesAreRefused) {
  mkdir(path("subdir").c_str(), 0700);
  struct Case {
    const char* name;
    std::string source;
    const char* log;
  } cases[] = {
      {"missing path", "source::" + path("nope"), "Bad file handle: "},
      {"directory", "source::" + path("subdir"), "Not a regular file: "},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    FileData d;
    d.source = c.source;
    d.seekPtr = 77;
    std::string log;
    EXPECT_EQ(check(d, log), -1);
    EXPECT_EQ(d.seekPtr, 0u);
    EXPECT_NE(log.find(c.log), std::string::npos) << log;
  }
  FileData d = data("x");
  EXPECT_EQ(tracker().checkFile(FileDescriptor(-1), d), -1);
}

// The head hash: which files count as the same, and which cannot be hashed yet.
TEST_F(FileInputTrackerTest, HeadHashTellsFilesApart) {
  const std::string body = text(600, 7);
  const std::string csv = "\"cdrRecordType\",\"globalCallID_callManagerId\",\"globalCallID_callId\",";
  auto exch = [](const char* date) {
    return std::string("#Software: Mail Server\n# Version 15.0\n#Date: ") + date + "\n#Fields: a,b\n";
  };
  struct Case {
    const char* name;
    std::string a, b;
    const char *saltA, *saltB;
    bool same;
  } cases[] = {
      {"same first 256 bytes, different after", body, body.substr(0, 256) + text(400, 8), "", "", true},
      {"byte 255 differs", body, body.substr(0, 255) + "#" + body.substr(256), "", "", false},
      {"exchange logs: the header is skipped", exch("2024-01-01") + body, exch("2025-12-31 10:00") + body, "", "",
       true},
      {"comments without the exchange marker are hashed", "#a 1\n" + body, "#a 2\n" + body, "", "", false},
      {"call-record CSV: the first line is skipped", csv + "\"x\"\n" + body, csv + "\"yy\"\n" + body, "", "", true},
      {"another salt", body, body, "one", "two", false},
      {"<SOURCE> salt on two paths", body, body, "<SOURCE>", "<SOURCE>", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    write("a", c.a);
    write("b", c.b);
    FileData da = data("a", c.saltA), db = data("b", c.saltB);
    ASSERT_EQ(tracker().checkFile(da), 0);
    ASSERT_EQ(tracker().checkFile(db), 0);
    EXPECT_NE(da.initCRC, 0u);
    EXPECT_EQ(da.initCRC == db.initCRC, c.same);
  }

  struct Refused {
    const char* name;
    std::string content;
    const char* log;
  } refused[] = {
      {"exchange log with only a header", exch("2024-01-01"), "File only has a header so far: "},
      {"exchange log with a short body", exch("2024-01-01") + body.substr(0, 100),
       "Not enough data (in 100 bytes) to compute exchange CRC"},
      {"CSV log with a short body", csv + "\n" + body.substr(0, 10),
       "Not enough data (in 10 bytes) to compute Cisco CSV CRC"},
  };
  for (const Refused& c : refused) {
    SCOPED_TRACE(c.name);
    write("r", c.content);
    FileData d = data("r");
    std::string log;
    EXPECT_EQ(check(d, log), -1);
    EXPECT_NE(log.find(c.log), std::string::npos) << log;
    EXPECT_NE(log.find("Couldn't create full CRC for file: "), std::string::npos) << log;
  }
}

// The fold is fixed: a store written by one build must be read by the next.
TEST_F(FileInputTrackerTest, HeadHashIsSaltThenHeadFolded) {
  EXPECT_EQ(FileInputTracker::foldedMd5(""), 0x3d9d854163f8f07aull);  // d41d8cd98f00b204 ^ e9800998ecf8427e
  const std::string body = text(700, 9);
  struct Case {
    std::string content;
    const char* salt;
    std::string hashed;
  } cases[] = {
      {"tiny\n", "", "tiny\n"},
      {body, "", body.substr(0, 256)},
      {body, "s", "s" + body.substr(0, 256)},
      {body, "<SOURCE>!", path("f") + "!" + body.substr(0, 256)},
  };
  for (const Case& c : cases) {
    write("f", c.content);
    FileData d = data("f", c.salt);
    ASSERT_EQ(tracker().checkFile(d), 0);
    EXPECT_EQ(d.initCRC, FileInputTracker::foldedMd5(c.hashed)) << c.salt;
  }
}

TEST_F(FileInputTrackerTest, RecordTextAndItsParsing) {
  FileData d;
  d.source = "source::/var/log/my app.log";
  d.initCRC = 0xabc;
  d.seekCRC = 0x12;
  d.seekPtr = 1000;
  d.modTime = 1700000000;
  const Str text = FileInputTracker::recordText(d);
  EXPECT_EQ(text,
            "abc initcrc::abc seekcrc::12 seekptr::3e8 modtime::1700000000 filename::/var/log/my app.log "
            "source::/var/log/my app.log");

  struct Case {
    const char* name;
    Str text;
    uint64_t initCRC;  // of the file asked about
    bool seen;
    uint64_t seekPtr;
  } cases[] = {
      {"round trip", text, 0xabc, true, 1000},
      {"extra tokens after the known ones", text + " extra::1 more", 0xabc, true, 1000},
      {"another file's record", text, 0xabd, false, 0},
      {"without seekptr", "abc initcrc::abc seekcrc::12 modtime::1 filename::/a source::/a", 0xabc, false, 0},
      {"without seekcrc", "abc initcrc::abc seekptr::3e8 modtime::1 filename::/a source::/a", 0xabc, false, 0},
      {"no leading number", "initcrc::abc seekcrc::12 seekptr::3e8 source::/a", 0xabc, false, 0},
      {"empty", "", 0xabc, false, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    FileData q;
    q.source = "source::/elsewhere";
    q.initCRC = c.initCRC;
    q.seekPtr = 77;
    EXPECT_EQ(tracker().fileSeenBefore(c.text, q), c.seen);
    EXPECT_EQ(q.seekPtr, c.seekPtr);
    if (c.seen) {
      EXPECT_EQ(q.seekCRC, 0x12u);
      EXPECT_EQ(q.storedModTime, 1700000000);
    }
  }

  // The event that carries it, and the query that finds it.
  auto r = tracker().seekRecord(d);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->getStr(PipelineData::rawKey), text);
  EXPECT_EQ(r->getStr(PipelineData::sourceKey), "source::fileTracker");
  EXPECT_EQ(r->getStr(PipelineData::sourceTypeKey), "sourcetype::fileTrackerCrcLog");
  EXPECT_EQ(r->getStr(PipelineData::hostKey), "host::fthost");
  EXPECT_EQ(r->getStr(PipelineData::indexKey), "_thefileseeks");
  EXPECT_FALSE(r->getStr(PipelineData::timeKey).empty());
  EXPECT_TRUE(index.records.empty());  // returned, not sent
  index.records.push_back(r);
  FileData q = d;
  q.seekPtr = 0;
  EXPECT_TRUE(tracker().queryIndex(q));
  EXPECT_EQ(q.seekPtr, 1000u);
  q.trackingRule = FileData::kRuleModTime;
  EXPECT_TRUE(tracker().queryIndex(q));
  ASSERT_EQ(index.queries.size(), 2u);
  EXPECT_EQ(index.queries[0], "SEARCH initcrc::abc index::_thefileseeks GET events::0-0 OUTPUT velmorui::2.1");
  EXPECT_EQ(index.queries[1],
            "SEARCH filename::/var/log/my app.log index::_thefileseeks GET events::0-0 OUTPUT velmorui::2.1");

  FileData longName;  // a key longer than the query's room is cut, and said so
  longName.source = "source::/" + std::string(1100, 'x');
  longName.trackingRule = FileData::kRuleModTime;
  ::testing::internal::CaptureStderr();
  EXPECT_FALSE(tracker().queryIndex(longName));
  std::string log = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("Size of key in query is equal to size allocated for key.  Truncation may have occurred."),
            std::string::npos) << log;

  FileData empty;  // no head hash: nothing to record
  empty.source = "source::/x";
  EXPECT_FALSE(tracker().seekRecord(empty));
}

TEST_F(FileInputTrackerTest, TrackingRuleFromProps) {
  struct Case {
    const char* file;
    int rule;
    const char* log;
  } cases[] = {
      {"entire_md5", FileData::kRuleEntireMd5, nullptr},
      {"MODTIME", FileData::kRuleModTime, nullptr},
      {"modtime_and_more", FileData::kRuleModTime, nullptr},
      {"endpoint_md5", FileData::kRuleEndpointMd5, nullptr},
      {"bogus", FileData::kRuleEndpointMd5,
       "Could not recognize value 'bogus' for parameter 'CHECK_METHOD' - using default 'endpoint_md5'."},
      {"unlisted", FileData::kRuleEndpointMd5, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    FileData d;
    d.source = "source::" + gSuiteDir + "/rules/" + c.file;
    ::testing::internal::CaptureStderr();
    tracker().setTrackingRules(d);
    std::string log = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(d.trackingRule, c.rule);
    if (c.log) {
      EXPECT_NE(log.find(c.log), std::string::npos) << log;
    }
  }
}

TEST_F(FileInputTrackerTest, CacheWindowAndResend) {
  int64_t clock = 1000;
  tracker().setClockForTest([&clock] { return clock; });
  EXPECT_EQ(tracker().cacheWindow(), 60);
  FileData d;
  d.source = "source::/x";
  for (uint64_t i = 1; i <= 100000; ++i) {
    d.initCRC = i;
    tracker().seekRecord(d);
  }
  clock = 1050;
  for (uint64_t i = 100001; i <= 100010; ++i) {
    d.initCRC = i;
    tracker().seekRecord(d);
  }
  clock = 1060;
  tracker().checkCache();  // over the limit: window 30, entries of before 1030 go
  EXPECT_EQ(tracker().cacheSize(), 10u);
  EXPECT_EQ(tracker().cacheWindow(), 31);
  for (int i = 0; i < 4000; ++i) tracker().checkCache();
  EXPECT_EQ(tracker().cacheWindow(), 3600);

  // After a roll of the store every cached position is sent again.
  index.records.clear();
  tracker().syncCacheToDisk();
  ASSERT_EQ(index.records.size(), 10u);
  EXPECT_EQ(index.records[0]->getStr(PipelineData::rawKey).substr(0, 16), "186a1 initcrc::1");
  tracker().clearCache();
  EXPECT_EQ(tracker().cacheSize(), 0u);
}

}  // namespace

namespace {

// After a crash the newest stored position may name data that never reached
// the index: the verifier turns it down and the one before counts. A file
// first read while shorter than the hashed head is found again by its path
// once it has grown. A position carried by a queued event is taken into the
// cache, so a restored queue's lines are not read again.
TEST_F(FileInputTrackerTest, VerifiedShortHeadAndQueuedPositions) {
  // Verified records.
  write("v", text(2000, 1));
  FileData d = data("v");
  ASSERT_EQ(tracker().checkFile(d), 0);
  for (uint64_t at : {400, 800}) {
    d.seekPtr = at;
    tracker().updateSeekCRC(d);
    tracker().updateSeek(d);
  }
  index.records.back()->put(PipelineData::rawKey, index.records.back()->getStr(PipelineData::rawKey) + " lost");
  restart();
  tracker().setRecordVerifier([](const Str& text) { return text.find(" lost") == Str::npos; });
  FileData again = data("v");
  ASSERT_EQ(tracker().checkFile(again), 0);
  EXPECT_EQ(again.seekPtr, 400u);
  tracker().setRecordVerifier(nullptr);

  // A short head, then growth.
  write("s", text(100, 2));
  readAll("s");
  write("s", text(100, 2) + text(5000, 3));
  restart();
  FileData grown = data("s");
  std::string log;
  ASSERT_EQ(check(grown, log), 0);
  EXPECT_EQ(grown.seekPtr, 100u);
  EXPECT_NE(log.find("by its first 100 bytes"), std::string::npos) << log;
  // Grown, and still shorter than the head.
  write("t", text(50, 6));
  readAll("t");
  write("t", text(50, 6) + text(30, 7));
  restart();
  FileData stillShort = data("t");
  ASSERT_EQ(tracker().checkFile(stillShort), 0);
  EXPECT_EQ(stillShort.seekPtr, 50u);
  FileData other = data("s2");
  write("s2", text(100, 4) + text(5000, 3));
  ASSERT_EQ(tracker().checkFile(other), 0);
  EXPECT_EQ(other.seekPtr, 0u) << "another file at another path is new";

  // A position carried by an event.
  write("q", text(3000, 5));
  FileData q = data("q");
  ASSERT_EQ(tracker().checkFile(q), 0);
  q.seekPtr = 1600;
  tracker().updateSeekCRC(q);
  PipelineData event;
  event.put(PipelineData::sourceKey, q.source);
  event.put(PipelineData::seekAddrKey, "1600");
  event.put(kInitCRCKey, Str::fromFormat("%llx", (unsigned long long)q.initCRC));
  event.put(kSeekCRCKey, Str::fromFormat("%llx", (unsigned long long)q.seekCRC));
  event.put(kModTimeKey, "1700000000");
  restart();
  EXPECT_TRUE(tracker().notePosition(event));
  PipelineData bare;
  bare.put(PipelineData::rawKey, "no position");
  EXPECT_FALSE(tracker().notePosition(bare));
  FileData queued = data("q");
  ASSERT_EQ(tracker().checkFile(queued), 0);
  EXPECT_EQ(queued.seekPtr, 1600u);
}

}  // namespace
