// The `metadata` command over real indexes: search text (and input rows) in,
// rows or the exact message out; the map half and the merge together give
// what the command gives alone.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <map>
#include <memory>

#include "libbundle/PropertiesMap.h"
#include "pipeline/indexer/DatabaseContainer.h"
#include "pipeline/indexer/DatabasePartitionPolicy.h"
#include "pipeline/indexer/MetadataProcessor.h"
#include "pipeline/indexer/PersistentHashManager.h"
#include "pipeline/indexer/PersistentMapManager.h"
#include "search/SearchParser.h"
#include "search/SearchPipeline.h"
#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "util/MainThread.h"

namespace {

using Row = std::vector<std::pair<std::string, std::string>>;
using Lines = std::vector<std::string>;

const int64_t kBase = 1700000000;

class TestContainer : public DatabaseContainer {
 public:
  IPartitionPolicy* getPolicyByDomain(const Str& name) override {
    auto it = policies.find(name);
    return it == policies.end() ? nullptr : it->second.get();
  }
  Str getDefaultDomain() override { return "main"; }
  void enumerateDomains(std::vector<Str>& out) override {
    for (auto& kv : policies) out.push_back(kv.first);
  }
  std::map<Str, std::unique_ptr<DatabasePartitionPolicy>> policies;
};

class MetadataTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (!MainThread::instance()) new MainThread();
    setenv("VELMOR_ST_NEVER_FORK", "1", 1);
    char tmpl[] = "/tmp/metadata_cmd_test.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    root = new Pathname(tmpl);
    PersistentHashManager::instance()->setDirectory(*root / "tags");
    PersistentMapManager* tags = PersistentMapManager::globalTagMapInstance();
    tags->addTag("tag::host::web1", "prod");
    tags->addTag("tag::web1", "frontend");
    tags->addTag("tag::source::web1", "not-a-host-tag");
    container = new TestContainer;
    // main: web1 at +100 +150 +300, then as WEB1 at +120; db1 at +200.
    put(open("main"), {{"web1", 100}, {"web1", 150}, {"web1", 300}, {"WEB1", 120}, {"db1", 200}});
    // other: web1 at +50 and +400; mail at +10.
    put(open("other"), {{"web1", 50}, {"web1", 400}, {"mail", 10}});
    DatabaseContainer::setProcessContainer(container);
    MetadataProcessor::registerCommands();
  }
  static void TearDownTestSuite() {
    DatabaseContainer::setProcessContainer(nullptr);
    delete container;
    PersistentHashManager::instance()->setDirectory(Pathname());
    root->removeRecursive();
    delete root;
  }

  static DatabasePartitionPolicy& open(const Str& name) {
    PropertiesMap m;
    m.put("homePath", *root / name / "db");
    m.put("coldPath", *root / name / "colddb");
    m.put("thawedPath", *root / name / "thaweddb");
    m.put("maxResults", "100000");
    m.put("compressRawdata", "false");
    m.put("maxDataSize", "0");
    m.put("maxTotalDataSizeMB", "0");
    m.put("rotatePeriodInSecs", "0");
    m.put("optimizeEvery", "0");
    m.put("frozenTimePeriodInSecs", "0");
    auto& p = container->policies[name];
    p = std::make_unique<DatabasePartitionPolicy>(PolicyParameters::fromStanza(name, m));
    p->start();
    return *p;
  }
  static void put(DatabasePartitionPolicy& p, const std::vector<std::pair<const char*, int>>& events) {
    for (const auto& e : events) {
      Str raw = Str::fromFormat("event on %s", e.first), t = ToString((long long)(kBase + e.second)),
          source = Str::fromFormat("/var/log/%s.log", e.first);
      WritableEvent ev;
      ev.raw = StrSegment(raw);
      ev.time = StrSegment(t);
      ev.host = e.first;
      ev.source = StrSegment(source);
      ev.sourceType = "syslog";
      ASSERT_TRUE(p.write(ev));
    }
  }

  // Each row as "k=v ..." in field name order, or the failure text alone.
  static Lines run(const std::string& search, const std::vector<Row>& in = {}, SearchResultsInfo* infoOut = nullptr,
                   bool internal = true) {
    SearchResults rs;
    for (const Row& r : in) {
      SearchResult* sr = rs.addNewResult();
      for (const auto& kv : r) sr->setValue(kv.first, kv.second);
    }
    SearchResultsInfo info;
    info.queryId = "metadata-test";
    try {
      std::unique_ptr<SearchProcessor> p(SearchParser::parse(search, internal));
      p->execute(rs, info);
    } catch (const std::exception& e) {
      return {e.what()};
    }
    if (infoOut) *infoOut = info;
    Lines out;
    for (SearchResult* r : rs) {
      std::string line;
      for (const auto& kv : rs.getKeyMap()) {
        const Str* v = r->getValuePtr(kv.second);
        if (!v) continue;
        if (!line.empty()) line += ' ';
        line += kv.first + "=" + *v;
      }
      out.push_back(line);
    }
    return out;
  }

  static std::string at(int offset) { return std::to_string(kBase + offset); }
  static std::string hostRow(const char* host, int first, int last, int recent, int count, const char* tags = "") {
    return "firstTime=" + at(first) + " host=" + host + " lastTime=" + at(last) + " recentTime=" + at(recent) +
           " tags=" + tags + " totalCount=" + std::to_string(count) + " type=hosts";
  }

  static Pathname* root;
  static TestContainer* container;
};

Pathname* MetadataTest::root = nullptr;
TestContainer* MetadataTest::container = nullptr;

TEST_F(MetadataTest, RowsOfAnIndex) {
  const Lines mainHosts = {hostRow("db1", 200, 200, 200, 1), hostRow("web1", 100, 300, 120, 4, "frontend prod")};
  struct {
    const char* search;
    Lines out;
  } cases[] = {
      {"metadata type=hosts", mainHosts},
      {"metadata type=HOSTS index=main", mainHosts},
      {"metadata type=hosts index=other",
       {hostRow("mail", 10, 10, 10, 1), hostRow("web1", 50, 400, 400, 2, "frontend prod")}},
      {"metadata type=sources index=other",
       {"firstTime=" + at(10) + " lastTime=" + at(10) + " recentTime=" + at(10) +
            " source=/var/log/mail.log tags= totalCount=1 type=sources",
        "firstTime=" + at(50) + " lastTime=" + at(400) + " recentTime=" + at(400) +
            " source=/var/log/web1.log tags= totalCount=2 type=sources"}},
      {"metadata type=sourcetypes",
       {"firstTime=" + at(100) + " lastTime=" + at(300) + " recentTime=" + at(200) +
        " sourcetype=syslog tags= totalCount=5 type=sourcetypes"}},
      // Map halves of two servers (here two indexes) merged by the reduce.
      {"premetadata type=hosts | premetadata type=hosts index=other | metadata type=hosts",
       {hostRow("db1", 200, 200, 200, 1), hostRow("mail", 10, 10, 10, 1),
        hostRow("web1", 50, 400, 400, 6, "frontend prod")}},
  };
  for (const auto& c : cases) EXPECT_EQ(run(c.search), c.out) << c.search;

  SearchResultsInfo info;
  EXPECT_EQ(run("metadata hosts", {}, &info), mainHosts);
  EXPECT_EQ(info.messages[SearchResultsInfo::MSG_WARN], std::vector<Str>{"Assuming 'hosts' is type argument."});
}

TEST_F(MetadataTest, MergesGivenRowsOrFails) {
  const std::vector<Row> parts = {
      {{"host", "a"}, {"totalCount", "2"}, {"firstTime", "10"}, {"lastTime", "20"}, {"recentTime", "15"}},
      {{"host", "A"}, {"totalCount", "3"}, {"firstTime", "5"}, {"lastTime", "18"}, {"recentTime", "18"}},
      {{"host", "b"}, {"totalCount", "junk"}},
  };
  struct {
    const char* search;
    std::vector<Row> in;
    Lines out;
  } cases[] = {
      {"metadata type=hosts",
       parts,
       {"firstTime=5 host=a lastTime=20 recentTime=18 tags= totalCount=5 type=hosts",
        "host=b lastTime=0 recentTime=0 tags= totalCount=0 type=hosts"}},
      {"metadata type=hosts", {{{"source", "x"}}}, {"Error in 'metadata' command: No 'host' key found in results.  "
                                                    "Cannot merge metadata."}},
      // Without gathering the given rows pass and the index's follow.
      {"metadata gather=false type=hosts index=other",
       {{{"x", "1"}}},
       {"x=1", hostRow("web1", 50, 400, 400, 2, "frontend prod"), hostRow("mail", 10, 10, 10, 1)}},
  };
  for (const auto& c : cases) EXPECT_EQ(run(c.search, c.in), c.out) << c.search;
}

TEST_F(MetadataTest, ArgumentAndIndexFailures) {
  struct {
    const char* search;
    std::string message;
  } cases[] = {
      {"metadata", "Error in 'metadata' command: Must specify 'type' argument to 'metadata', as in 'type=hosts'."},
      {"metadata index=main",
       "Error in 'metadata' command: Must specify 'type' argument to 'metadata', as in 'type=hosts'."},
      {"metadata type=users",
       "Error in 'metadata' command: Invalid 'type' argument 'users': use type=hosts, type=sources or "
       "type=sourcetypes."},
      {"metadata type=hosts extra", "Error in 'metadata' command: Invalid argument: 'extra'"},
      {"metadata type=hosts index=nosuch", "Error in 'metadata' command: Unknown index 'nosuch'."},
  };
  for (const auto& c : cases) EXPECT_EQ(run(c.search), Lines{c.message}) << c.search;
  EXPECT_EQ(run("premetadata type=hosts", {}, nullptr, false),
            Lines{"Unknown search operation: 'premetadata'"});

  DatabaseContainer::setProcessContainer(nullptr);
  EXPECT_EQ(run("metadata type=hosts"),
            Lines{"Error in 'metadata' command: No index is available to this search, so there is no metadata to "
                  "read."});
  DatabaseContainer::setProcessContainer(container);
}

// What a dispatcher does: run the command's map half, then the command over
// its rows; the answer is the command's own.
TEST_F(MetadataTest, MapHalfThenReduceEqualsTheCommand) {
  for (const char* search : {"metadata type=sources index=other", "metadata type=hosts"}) {
    std::unique_ptr<SearchProcessor> p(SearchParser::parse(search, false));
    SearchResultsInfo info;
    p->evalArgs(info);
    const SearchProcessor* cmd = static_cast<SearchPipeline*>(p.get())->getProcessors().front();
    ASSERT_TRUE(cmd->isStreamingOpRequired());
    ASSERT_FALSE(cmd->isStreamable());
    Str mapHalf = cmd->getStreamingOp();
    EXPECT_EQ(run(mapHalf + " | " + search), run(search)) << mapHalf;
  }
}

}  // namespace
