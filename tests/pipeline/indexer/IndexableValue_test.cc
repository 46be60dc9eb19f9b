#include "pipeline/indexer/IndexableValue.h"

#include <gtest/gtest.h>

#include <cctype>
#include <climits>
#include <cstdlib>
#include <cstring>
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

// A scratch engine directory, removed at the end.
struct ScratchDir {
  std::string path;
  ScratchDir() {
    char tmpl[] = "/tmp/velmor-iv-XXXXXX";
    path = mkdtemp(tmpl) ? tmpl : "";
  }
  ~ScratchDir() {
    if (!path.empty() && system(("rm -rf " + path).c_str()) != 0) {
    }
  }
};

// With a real engine handle the terms go straight into the batch (and a
// well-formed meta text in one pass); the engine must end up holding what
// putting the same terms one by one gives.
TEST(IndexableValue, BatchedTermsMatchTermByTerm) {
  const std::string longTerm(IndexableValue::kMaxTerm + 5, 'L'), fullTerm(IndexableValue::kMaxTerm, 'F');
  struct Event {
    std::string meta, raw;
  } events[] = {
      {"host::Web01 source::/var/log/A sourcetype::syslog date_second::7", "User=Bob\nFAILED login"},
      {"", "no meta at all"},
      {"Tag::X  double::blank", "two blanks make an empty term"},
      {" lead::blank trail::blank ", "blanks at both ends"},
      {"host::h " + longTerm + " after::long", "a meta term longer than kept"},
      {"host::h " + fullTerm, "a meta term of exactly the kept length"},
      {"ONE", std::string(3000, 'w') + " " + std::string(70000, 'x')},  // segments past the batch size
      // Bytes on both sides of the upper-case letters, and above 0x7f.
      {"Edge::@AZ[`az{\xc3\x89\xc1\xda MORE::Caps\xc0Z", "edge bytes"},
      {"a::B c::D e::F g::H i::J k::LMNOPQRSTUVWXYZ", "terms across eight-byte words"},
  };
  ScratchDir a, b;
  ASSERT_FALSE(a.path.empty());
  ASSERT_FALSE(b.path.empty());
  st_handle* batched = st_open(a.path.c_str());
  st_handle* single = st_open(b.path.c_str());
  ASSERT_NE(batched, nullptr);
  ASSERT_NE(single, nullptr);
  PropertiesMap m = shippedDefault();
  GenericCleaner cleaner(m);
  std::set<std::string> all;
  uint32_t address = 0;
  for (const Event& e : events) {
    IndexableEvent ev;
    ev.meta = StrSegment(e.meta);
    ev.raw = StrSegment(e.raw);
    IndexableValue direct(&cleaner, batched);
    direct.setTime(1700000000 + int32_t(address));
    direct.setAddress(address);
    direct.setCodes(1, 2, 3);
    direct.index(ev);
    Recorder rec(&cleaner, nullptr);
    rec.index(ev);
    for (const std::string& t : rec.terms) {
      ASSERT_EQ(st_put(single, t.c_str(), 1700000000 + int32_t(address), address, 0, 2, 3, 1), 0) << t;
      all.insert(t);
    }
    ++address;
  }
  ASSERT_EQ(st_sync(batched), 0);
  ASSERT_EQ(st_sync(single), 0);
  std::vector<st_tsval> x(64), y(64);
  for (const std::string& t : all) {
    int nx = st_get(batched, t.c_str(), 0, INT32_MAX, x.data(), 64, 0);
    int ny = st_get(single, t.c_str(), 0, INT32_MAX, y.data(), 64, 0);
    ASSERT_GT(ny, 0) << t;
    ASSERT_EQ(nx, ny) << t;
    EXPECT_EQ(memcmp(x.data(), y.data(), size_t(nx) * sizeof(st_tsval)), 0) << t;
  }
  std::vector<st_enum_answer> ex(200), ey(200);
  int nx = st_enum(batched, nullptr, 1, ex.data(), 200), ny = st_enum(single, nullptr, 1, ey.data(), 200);
  EXPECT_EQ(nx, ny);
  EXPECT_EQ(size_t(ny), all.size());
  st_close(batched);
  st_close(single);
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
