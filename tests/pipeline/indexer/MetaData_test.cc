#include "pipeline/indexer/MetaData.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <fstream>

#include "util/Exceptions.h"
#include <sstream>

namespace {

class MetaDataTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/metadata_test.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir = Pathname(tmpl);
  }
  void TearDown() override { dir.removeRecursive(); }
  std::string fileText(const char* name) {
    std::ifstream in((dir / name).c_str());
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
  }
  void writeFile(const char* name, const std::string& text) {
    std::ofstream out((dir / name).c_str());
    out << text;
  }
  Pathname dir;
};

TEST_F(MetaDataTest, CodesCaseAndCounts) {
  MetaData md(dir, "Hosts.data", "Hosts");
  EXPECT_EQ(md.addWord("Web01", 100), 0);
  EXPECT_EQ(md.addWord("db", 50), 1);
  EXPECT_EQ(md.addWord("WEB01", 300), 0);  // same word by case: same code, first case kept
  EXPECT_EQ(md.addWord("web01", 200), 0);
  EXPECT_EQ(md.addWord("new", 1, true), -1);
  EXPECT_EQ(md.getCodeForWord("wEb01"), 0);
  EXPECT_EQ(md.getCodeForWord("nope"), -1);
  WordPositionData row;
  ASSERT_TRUE(md.getWordData(0, row));
  EXPECT_EQ(row.word, "Web01");
  EXPECT_EQ(row.count, 3u);
  EXPECT_EQ(row.firstTime, 100);
  EXPECT_EQ(row.lastTime, 300);
  EXPECT_EQ(row.recentTime, 200);
  EXPECT_FALSE(md.getWordData(2, row));
  EXPECT_EQ(md.getTotalCount(), 4u);
  int64_t lo, hi;
  ASSERT_TRUE(md.getMinAndMaxTimes(lo, hi));
  EXPECT_EQ(lo, 50);
  EXPECT_EQ(hi, 300);
  EXPECT_TRUE(md.decrement("DB", 5));
  ASSERT_TRUE(md.getWordData(1, row));
  EXPECT_EQ(row.count, 0u);
  EXPECT_EQ(md.getTotalCount(), 3u);
  EXPECT_FALSE(md.decrement("nope", 1));
}

TEST_F(MetaDataTest, NormalizationKeepsTheFormat) {
  MetaData md(dir, "Sources.data", "Sources");
  EXPECT_EQ(md.addWord("a\tb\nc\x01", 1), 0);
  EXPECT_EQ(md.addWord("sourceType::Syslog", 1), 1);
  EXPECT_EQ(md.getAllKeys(), (std::vector<Str>{"a b c?", "sourcetype::Syslog"}));
  // The lookup key is limited, so two very long words sharing 1000 bytes meet.
  std::string a(1200, 'a'), b = std::string(1000, 'a') + "zzz";
  EXPECT_EQ(md.addWord(a, 1), md.addWord(b, 1));
}

TEST_F(MetaDataTest, SaveEverySeventeenthServiceAndRoundTrip) {
  MetaData md(dir, "Hosts.data", "Hosts");
  md.addWord("alpha", 10);
  md.addWord("Beta", 20);
  md.addWord("alpha", 5);
  for (int i = 0; i < 16; ++i) md.service(false);
  EXPECT_FALSE((dir / "Hosts.data").exists());
  md.service(false);
  EXPECT_EQ(fileText("Hosts.data"), "0\talpha\t2\t5\t10\t5\n1\tBeta\t1\t20\t20\t20\n");
  EXPECT_FALSE((dir / "Hosts.data.temp").exists());

  MetaData back(dir, "Hosts.data", "Hosts");
  EXPECT_EQ(back.open(), 2u);
  EXPECT_EQ(back.getCodeForWord("BETA"), 1);
  EXPECT_EQ(back.getTotalCount(), 3u);
  EXPECT_EQ(back.addWord("gamma", 30), 2);
  back.sync();
  EXPECT_EQ(fileText("Hosts.data").substr(fileText("Hosts.data").rfind("2\t")), "2\tgamma\t1\t30\t30\t30\n");
}

TEST_F(MetaDataTest, DamagedFilesKeepTheRowsBeforeTheDamage) {
  struct {
    const char* text;
    size_t rows;
  } cases[] = {
      {"", 0},
      {"0\ta\t1\t1\t1\t1\n1\tb\t2\t2\t2", 1},          // torn last line
      {"0\ta\t1\t1\t1\t1\n2\tb\t1\t1\t1\t1\n", 1},     // code out of order
      {"0\ta\t1\t1\t1\t1\n1\tA\t1\t1\t1\t1\n", 1},     // repeated word
      {"0\ta\tx\t1\t1\t1\n", 0},                       // not a number
      {"0\ta\t1\t1\t1\n", 0},                          // missing field
      {"0\ta\t1\t1\t1\t1\textra\n", 0},                // extra field
      {"0\ta\t1\t1\t1\t1\n1\tb\t1\t1\t1\t1\n", 2},
  };
  for (const auto& c : cases) {
    writeFile("Hosts.data", c.text);
    MetaData md(dir, "Hosts.data", "Hosts");
    EXPECT_EQ(md.open(), c.rows) << c.text;
    EXPECT_EQ(md.addWord("fresh", 1), long(c.rows));
  }
  writeFile("Hosts.data", std::string(5000, 'x') + "\n");
  MetaData md(dir, "Hosts.data", "Hosts");
  EXPECT_EQ(md.open(), 0u);
  MetaData missing(dir, "None.data", "None");
  EXPECT_EQ(missing.open(), 0u);
}

TEST_F(MetaDataTest, BucketAndGlobalTablesHaveTheirOwnCodes) {
  MetaData bucket(dir, "Hosts.data", "Hosts");
  MetaData global(dir, "GlobalHosts.data", "Hosts");
  bucket.addWord("x", 5);
  bucket.addWord("y", 7);
  global.addWord("y", 1);
  WordPositionData row;
  ASSERT_TRUE(bucket.getWordData(1, row));
  EXPECT_EQ(global.addWordPositionData(row), 0);
  ASSERT_TRUE(global.getWordData(0, row));
  EXPECT_EQ(row.count, 2u);
  EXPECT_EQ(row.firstTime, 1);
  EXPECT_EQ(row.lastTime, 7);
  EXPECT_EQ(bucket.getCodeForWord("y"), 1);
}

TEST_F(MetaDataTest, UnwritableDirectoryThrows) {
  MetaData md(dir / "missing", "Hosts.data", "Hosts");
  md.addWord("a", 1);
  EXPECT_THROW(md.sync(), MetaDataException);
}

TEST(MetaDataDeath, NonZeroStartIsAnAssertion) {
  MetaData md(Pathname("/nonexistent"), "Hosts.data", "Hosts");
  EXPECT_DEATH(md.getMetaData(1, 1), "startPosition == 0");
}

}  // namespace
