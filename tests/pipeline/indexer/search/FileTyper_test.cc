// file and typer over a real log: every line becomes a row with its source
// fields, the options, the failure texts, `search` filtering the lines as a
// plain reading of the file does, and event types added by their searches
// (nothing without an event type source).
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "SearchCommandsFixture.h"
#include "pipeline/indexer/search/FileOperator.h"
#include "pipeline/indexer/search/TyperOperator.h"

namespace {

using velmortest::column;
using velmortest::Row;

const std::string kLog = "/work/shared/data/loghub/OpenSSH/OpenSSH_2k.log";

std::vector<std::string> linesOf(const std::string& path) {
  std::vector<std::string> out;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) {
    if (!line.empty() && line.back() == '\r') line.pop_back();  // the file has CRLF line breaks
    out.push_back(line);
  }
  return out;
}

bool containsWords(std::string line, const std::string& lowerPhrase) {
  std::transform(line.begin(), line.end(), line.begin(), [](unsigned char c) { return char(std::tolower(c)); });
  return line.find(lowerPhrase) != std::string::npos;
}

class FileTyperTest : public velmortest::SearchCommandsFixture {
 protected:
  void SetUp() override {
    SearchCommandsFixture::SetUp();
    IndexSearchCommands::registerAll();
    lines = linesOf(kLog);
    ASSERT_EQ(lines.size(), 2000u) << kLog;
  }
  void TearDown() override {
    TyperOperator::EventTypeSource::install(nullptr);
    SearchCommandsFixture::TearDown();
  }
  std::vector<std::string> lines;
};

TEST_F(FileTyperTest, EachLineIsAnEventOfTheFile) {
  struct stat st;
  ASSERT_EQ(stat(kLog.c_str(), &st), 0);
  char host[256] = {0};
  ASSERT_EQ(gethostname(host, sizeof(host) - 1), 0);
  std::vector<Row> rows = run("file " + kLog);
  ASSERT_EQ(rows.size(), lines.size());
  EXPECT_EQ(column(rows, "_raw"), lines);
  for (size_t i = 0; i < rows.size(); i += 499) {
    EXPECT_EQ(rows[i].at("_serial"), std::to_string(i));
    EXPECT_EQ(rows[i].at("_time"), std::to_string(st.st_mtime));
    EXPECT_EQ(rows[i].at("source"), kLog);
    EXPECT_EQ(rows[i].at("sourcetype"), "OpenSSH_2k");
    EXPECT_EQ(rows[i].at("host"), host);
  }

  rows = run("file " + kLog + " sourcetype=sshd host=lab-01");
  ASSERT_EQ(rows.size(), lines.size());
  EXPECT_EQ(rows.back().at("sourcetype"), "sshd");
  EXPECT_EQ(rows.back().at("host"), "lab-01");
}

TEST_F(FileTyperTest, FileFaultsNameThePath) {
  struct Case {
    std::string text, error;
  };
  const Case cases[] = {
      {"file " + dir + "/missing.log", "Unable to read the file '" + dir + "/missing.log': No such file or directory"},
      {"file " + dir, "Unable to read the file '" + dir + "': not a regular file"},
      {"file", "A file path is required"},
      {"file sourcetype=x", "A file path is required"},
      {"file " + kLog + " extra", "Invalid argument: 'extra'"},
  };
  for (const Case& c : cases) {
    std::string got = failure(c.text);
    EXPECT_NE(got.find(c.error), std::string::npos) << c.text << " -> " << got;
  }
}

TEST(FileSourceType, ComesFromTheBaseName) {
  const std::pair<const char*, const char*> cases[] = {
      {"/var/log/app.log", "app"}, {"HDFS_2k.log", "HDFS_2k"}, {"/x/noext", "noext"},
      {"/x/.hidden", "file"},      {"dir.d/name", "name"},      {"/x/app.log.1", "app"},
  };
  for (const auto& [path, type] : cases) EXPECT_EQ(FileOperator::sourceTypeFromPath(path), type) << path;
}

TEST_F(FileTyperTest, SearchAfterFileKeepsTheLinesThatHoldThePhrase) {
  std::vector<std::string> want;
  for (const std::string& l : lines)
    if (containsWords(l, "failed password")) want.push_back(l);
  ASSERT_FALSE(want.empty());
  std::vector<Row> rows = run("file " + kLog + " | search \"Failed password\"");
  EXPECT_EQ(column(rows, "_raw"), want);
}

class ListedTypes : public TyperOperator::EventTypeSource {
 public:
  void list(const Str&, std::vector<std::pair<Str, Str>>& out) override {
    out = {{"failure", "\"failed password\""}, {"broken", "a OR"}, {"invalid", "\"invalid user\""}, {"never", "NOT *"}};
  }
};

TEST_F(FileTyperTest, TyperAddsTheEventTypesThatMatch) {
  // No source: rows are left as they are.
  std::vector<Row> rows = run("file " + kLog + " | typer");
  ASSERT_EQ(rows.size(), lines.size());
  for (const Row& r : rows) ASSERT_FALSE(r.count("eventtype"));

  TyperOperator::EventTypeSource::install(std::make_shared<ListedTypes>());
  SearchResultsInfo info;
  std::unique_ptr<SearchProcessor> p(SearchParser::parse("file " + kLog + " | typer", true));
  SearchResults results;
  p->execute(results, info);
  ASSERT_EQ(results.size(), lines.size());
  const sr_index_t key = results.keyIndex("eventtype");
  ASSERT_NE(key, 0u);
  size_t i = 0, both = 0;
  for (SearchResult* r : results) {
    bool failed = containsWords(lines[i], "failed password"), invalid = containsWords(lines[i], "invalid user");
    std::string want = failed && invalid ? "failure invalid" : failed ? "failure" : invalid ? "invalid" : "<none>";
    const Str* got = r->getValuePtr(key);
    EXPECT_EQ(got ? std::string(*got) : "<none>", want) << lines[i];
    std::vector<Str> values;
    if (failed && invalid) {
      ++both;
      ASSERT_TRUE(r->getMultiValues(key, values));
      EXPECT_EQ(values, (std::vector<Str>{"failure", "invalid"}));
    }
    ++i;
  }
  EXPECT_GT(both, 0u);
  std::vector<Str> warnings = info.messages[SearchResultsInfo::MSG_WARN];
  ASSERT_EQ(warnings.size(), 2u);
  EXPECT_EQ(warnings[0].find("The eventtype 'broken' has an invalid search: "), 0u) << warnings[0];
  EXPECT_EQ(warnings[1], "The eventtype 'never' can match no event");
}

}  // namespace
