// The regex step of the pipeline over a scratch installation whose
// transforms.conf is the shipped one plus rules of the tests, and whose
// props.conf names them by source and host: which rules run, in what order,
// what broken rules do to the others, and when changed settings are seen.
#include "pipeline/analysis/RegexExtractionProcessor.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "libbundle/PropertyPages.h"
#include "loaderinfo/LoaderInfo.h"

namespace {

// Rules of the tests, added to the shipped ones. first, second and third
// write their own name as a term.
const char kTestRules[] = R"(
[first]
REGEX = ()
FORMAT = first
WRITE_META = true
[second]
REGEX = ()
FORMAT = second
WRITE_META = true
[third]
REGEX = ()
FORMAT = third
WRITE_META = true
[noregex]
DEST_KEY = out
[broken]
REGEX = ([a-
DEST_KEY = out
[good]
REGEX = id=(\d+)
DEST_KEY = out
)";

const char kProps[] = R"(
[source::/var/log/plain.log]
SHOULD_LINEMERGE = false

[source::/var/log/app/...]
TRANSFORMS-b = second
TRANSFORM = first
TRANSFORMS-a = third , first,,

[source::/var/log/mixed.log]
TRANSFORMS-x = noregex, broken, no_such_rule, good

[source::/var/log/web/*.log]
TRANSFORMS-routing = route_alerts, user_terms, client_terms

[host::relay]
TRANSFORMS-host = host_from_text
)";

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

// Replaces the file as a whole (a new inode), so a reload always sees it.
void writeFile(const std::string& path, const std::string& text) {
  std::string tmp = path + ".new";
  std::ofstream(tmp, std::ios::binary) << text;
  ASSERT_EQ(rename(tmp.c_str(), path.c_str()), 0);
}

// One scratch VELMOR_HOME for the whole program: the property pages are
// process-wide.
class Home : public testing::Environment {
 public:
  void SetUp() override {
    char tmpl[] = "/tmp/velmor-regex-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir = tmpl;
    bundle = dir + "/etc/bundles/default";
    ASSERT_EQ(system(("mkdir -p " + bundle).c_str()), 0);
    writeFile(bundle + "/transforms.conf",
              readFile(VELMOR_SOURCE_DIR "/etc/bundles/default/transforms.conf") + kTestRules);
    writeFile(bundle + "/props.conf", kProps);
    setenv("VELMOR_HOME", dir.c_str(), 1);
    LoaderInfo::getInstance().populateFromEnvironment();
    PropertyPages::propsInstance().updateConfigs();
    PropertyPages::regexInstance().updateConfigs();
  }
  void TearDown() override {
    if (system(("rm -rf " + dir).c_str()) != 0) {
    }
  }
  static std::string dir, bundle;
};
std::string Home::dir, Home::bundle;

std::shared_ptr<PipelineData> event(const char* source, const char* host, const char* raw) {
  auto rec = std::make_shared<PipelineData>();
  rec->put(PipelineData::sourceKey, Str("source::") + source);
  rec->put(PipelineData::hostKey, Str("host::") + host);
  rec->put(PipelineData::rawKey, raw);
  rec->put(PipelineData::indexKey, "main");
  return rec;
}

struct Row {
  const char* what;
  const char* source;
  const char* host;
  const char* raw;
  const char* host2;   // MetaData:Host after
  const char* index;   // _MetaData:Index after
  const char* meta;    // _meta after; null: absent
  const char* out;     // out after; null: absent
};

TEST(RegexExtractionProcessorTest, AppliesTheRulesOfThePath) {
  const char* syslog = "Nov 24 17:28:35 web7 sshd[4242]: Accepted publickey";
  const char* access = "10.0.0.7 - - [24/Nov/2026:17:28:35 +0000] \"GET /%s HTTP/1.1\" %s 0";
  char access502[256], access200[256];
  snprintf(access502, sizeof access502, access, "", "502");
  snprintf(access200, sizeof access200, access, "500", "200");
  const Row rows[] = {
      {"key order, then list order, once each", "/var/log/app/a.log", "h", "x", "host::h", "main",
       "first third second", nullptr},
      {"no REGEX, broken and unknown rules passed over", "/var/log/mixed.log", "h", "id=42", "host::h", "main",
       nullptr, "good::42"},
      {"host from the text on the relay", "/var/log/syslog", "relay", syslog, "host::web7", "main", nullptr, nullptr},
      {"other hosts keep theirs", "/var/log/syslog", "db1", syslog, "host::db1", "main", nullptr, nullptr},
      {"error line to alerts, with terms", "/var/log/web/app.log", "h",
       "level=ERROR user=ann client=10.0.0.7 failed", "host::h", "alerts", "user::ann client::10.0.0.7", nullptr},
      {"5xx to alerts", "/var/log/web/access.log", "h", access502, "host::h", "alerts", nullptr, nullptr},
      {"200 stays", "/var/log/web/access.log", "h", access200, "host::h", "main", nullptr, nullptr},
      {"info line keeps its index", "/var/log/web/app.log", "h", "level=INFO user=ann user=bob.k", "host::h", "main",
       "user::ann user::bob.k", nullptr},
      {"no rules for the path", "/var/log/plain.log", "h", "level=ERROR user=ann id=1", "host::h", "main", nullptr,
       nullptr},
  };
  RegexExtractionProcessor p;
  for (const Row& r : rows) {
    SCOPED_TRACE(r.what);
    auto rec = event(r.source, r.host, r.raw);
    size_t keys = rec->size();
    EXPECT_EQ(p.execute(rec), 10000);
    EXPECT_EQ(rec->getStr(PipelineData::hostKey), r.host2);
    EXPECT_EQ(rec->getStr(PipelineData::indexKey), r.index);
    EXPECT_EQ(rec->getStr(PipelineData::metaKey), r.meta ? r.meta : "");
    EXPECT_EQ(rec->getStr("out"), r.out ? r.out : "");
    EXPECT_EQ(rec->size(), keys + 1 + (r.meta != nullptr) + (r.out != nullptr));  // + `_conf`
  }
}

TEST(RegexExtractionProcessorTest, StreamMarkersPassUntouched) {
  RegexExtractionProcessor p;
  auto done = event("/var/log/web/app.log", "h", "level=ERROR user=ann");
  done->put(PipelineData::doneKey, "1");
  Str before = done->toString();
  EXPECT_EQ(p.execute(done), 10000);
  EXPECT_EQ(done->toString(), before);
}

TEST(RegexExtractionProcessorTest, BrokenRuleIsReportedOnce) {
  RegexExtractionProcessor p;
  testing::internal::CaptureStderr();
  for (int i = 0; i < 3; ++i) {
    auto rec = event("/var/log/mixed.log", "h", "id=7");
    p.execute(rec);
    EXPECT_EQ(rec->getStr("out"), "good::7");
  }
  std::string log = testing::internal::GetCapturedStderr();
  size_t at = log.find("Cannot compile RE \"([a-\" for broken: ");
  ASSERT_NE(at, std::string::npos) << log;
  EXPECT_EQ(log.find("Cannot compile RE", at + 1), std::string::npos) << log;
  EXPECT_NE(log.find("Established REGEX name: good, pattern: id=(\\d+)"), std::string::npos) << log;
  EXPECT_TRUE(RegexExtractionProcessor::factory().matchName("regexextractionprocessor"));
}

// Rules are cached by path; a changed props.conf reaches a processor only
// once it has seen more paths than it keeps and starts afresh.
TEST(RegexExtractionProcessorTest, CacheIsClearedPastItsLimit) {
  RegexExtractionProcessor p;
  auto run = [&](const char* source) {
    auto rec = event(source, "h", "id=5");
    p.execute(rec);
    return Str(rec->getStr("_meta"));
  };
  const char* watched = "/var/log/app/watched.log";
  EXPECT_EQ(run(watched), "first third second");

  writeFile(Home::bundle + "/props.conf", Str(kProps) + "\n[source::/var/log/app/watched.log]\nTRANSFORM = second\n");
  PropertyPages::propsInstance().updateConfigs();
  EXPECT_EQ(run(watched), "first third second");  // cached

  // Up to the limit the old list stays; one path more and it is rebuilt.
  for (size_t i = 1; i < RegexExtractionProcessor::kMaxCachedPaths; ++i)
    run(("/var/log/other/" + std::to_string(i)).c_str());
  EXPECT_EQ(p.cachedPaths(), RegexExtractionProcessor::kMaxCachedPaths);
  EXPECT_EQ(run(watched), "first third second");
  run("/var/log/other/last");
  EXPECT_EQ(p.cachedPaths(), RegexExtractionProcessor::kMaxCachedPaths + 1);
  // An exact stanza takes the place of the pattern stanza.
  EXPECT_EQ(run(watched), "second");
  EXPECT_EQ(p.cachedPaths(), 1u);

  writeFile(Home::bundle + "/props.conf", kProps);
  PropertyPages::propsInstance().updateConfigs();
}

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  testing::AddGlobalTestEnvironment(new Home);
  return RUN_ALL_TESTS();
}
