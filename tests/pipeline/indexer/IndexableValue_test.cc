#include "pipeline/indexer/IndexableValue.h"

#include <gtest/gtest.h>

#include <cctype>
#include <fstream>
#include <set>

#include "libbundle/PropertiesMap.h"
#include "libbundle/PropertiesMapConfig.h"

namespace {

class Recorder : public IndexableValue {
 public:
  using IndexableValue::IndexableValue;
  std::vector<std::string> terms;

 protected:
  void store(const char* term, size_t len) override {
    EXPECT_EQ(std::strlen(term), len);
    terms.emplace_back(term, len);
  }
};

// The shipped default segmenter.
PropertiesMap shippedDefault() {
  auto cfg = PropertiesMapConfig::fromFile(Pathname(VELMOR_SOURCE_DIR "/etc/bundles/default/segmenters.conf"), false);
  PropertiesMap m;
  EXPECT_TRUE(cfg && cfg->getCopy("default", false, m));
  return m;
}

TEST(IndexableValue, TermsInOrder) {
  PropertiesMap m = shippedDefault();
  GenericCleaner cleaner(m);
  Recorder v(&cleaner, nullptr);
  std::pair<StrSegment, StrSegment> fields[] = {{"Action", "Login OK"}, {"", ""}};
  IndexableEvent ev;
  ev.meta = "host::Web01 source::/var/log/A sourcetype::syslog";
  ev.fields = fields;
  ev.raw = "User=Bob\nFAILED";
  ev.indexTerms = "Extra";
  v.index(ev);
  std::vector<std::string> want = {"meta::all",     "host::web01", "source::/var/log/a", "sourcetype::syslog",
                                   "login ok",      "linecount::2", "user", "bob", "failed", "extra"};
  EXPECT_EQ(v.terms, want);
}

TEST(IndexableValue, NoMetaAndOverlongTerm) {
  PropertiesMap m = shippedDefault();
  GenericCleaner cleaner(m);
  Recorder v(&cleaner, nullptr);
  std::string big(5000, 'Q');
  std::pair<StrSegment, StrSegment> fields[] = {{"k", StrSegment(big)}};
  IndexableEvent ev;
  ev.fields = fields;
  ev.raw = "x";
  v.index(ev);
  ASSERT_EQ(v.terms.size(), 4u);
  EXPECT_EQ(v.terms[0], "meta::all");
  EXPECT_EQ(v.terms[1], std::string(IndexableValue::kMaxTerm, 'q'));
  EXPECT_EQ(v.terms[2], "linecount::1");
  EXPECT_EQ(v.terms[3], "x");
}

bool isWordByte(unsigned char c) { return std::isalnum(c) || c == '_'; }

// Every maximal run of word bytes (what `grep -w` treats as a word) that is
// bounded by blanks or shipped breakers must come out as a term, lowercased.
TEST(IndexableValue, WordsOfRealLogsAreTerms) {
  const char* systems[] = {"Apache", "HDFS", "Linux", "OpenSSH", "Spark", "Thunderbird", "Windows", "Zookeeper"};
  const std::string bounds = " \t[]<>(){}|!;,'\"*&?+`/:=@.-$#\\%";
  PropertiesMap m = shippedDefault();
  GenericCleaner cleaner(m);
  size_t checked = 0;
  for (const char* sys : systems) {
    std::string path = std::string(VELMOR_SOURCE_DIR "/../shared/data/loghub/") + sys + "/" + sys + "_2k.log";
    std::ifstream in(path);
    if (!in) GTEST_SKIP() << "no sample logs at " << path;
    std::string line;
    int n = 0;
    while (std::getline(in, line) && n++ < 300) {
      Recorder v(&cleaner, nullptr);
      IndexableEvent ev;
      ev.raw = StrSegment(line);
      v.index(ev);
      std::set<std::string> terms(v.terms.begin(), v.terms.end());
      for (size_t i = 0; i < line.size();) {
        if (!isWordByte(line[i])) {
          ++i;
          continue;
        }
        size_t j = i;
        while (j < line.size() && isWordByte(line[j])) ++j;
        bool leftOk = i == 0 || bounds.find(line[i - 1]) != std::string::npos;
        bool rightOk = j == line.size() || bounds.find(line[j]) != std::string::npos;
        if (leftOk && rightOk) {
          std::string w = line.substr(i, j - i);
          for (char& c : w) c = char(std::tolower((unsigned char)c));
          EXPECT_TRUE(terms.count(w)) << sys << ": '" << w << "' missing from terms of: " << line;
          ++checked;
        }
        i = j;
      }
    }
  }
  EXPECT_GT(checked, 10000u);
}

}  // namespace
