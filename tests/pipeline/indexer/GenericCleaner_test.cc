#include "pipeline/indexer/GenericCleaner.h"

#include <gtest/gtest.h>

#include "libbundle/PropertiesMap.h"

namespace {

struct Collect : ICleanCallback {
  std::vector<std::string> terms;
  std::vector<std::pair<size_t, size_t>> spans;
  size_t stopAfter = size_t(-1);
  bool acceptToken(const char* term, size_t len, size_t start, size_t end) override {
    EXPECT_EQ(term[len], '\0');
    terms.emplace_back(term, len);
    spans.emplace_back(start, end);
    return terms.size() < stopAfter;
  }
};

std::string joined(GenericCleaner& c, const std::string& text) {
  Collect cb;
  c.tokenize(StrSegment(text), cb);
  std::string out;
  for (auto& t : cb.terms) out += (out.empty() ? "" : "|") + t;
  return out;
}

PropertiesMap stanza(std::initializer_list<std::pair<const char*, const char*>> extra) {
  PropertiesMap m;
  m.put("MAJOR", "\\s \\t \\n [ ] , ; %20");
  m.put("MINOR", ". - / : = %");
  for (auto& kv : extra) m.put(kv.first, kv.second);
  return m;
}

struct Row {
  const char* settingKey;
  const char* settingValue;
  const char* in;
  const char* out;
};

TEST(GenericCleaner, SegmentsTable) {
  const Row rows[] = {
      {nullptr, nullptr, "a.b c", "a|a.b|b|c"},
      {nullptr, nullptr, "a-b-c", "a|a-b|b|a-b-c|c"},
      {"INTERMEDIATE_MAJORS", "false", "a-b-c", "a|b|a-b-c|c"},
      {nullptr, nullptr, "Hello WORLD", "hello|world"},
      {nullptr, nullptr, "  x  ", "x"},
      {nullptr, nullptr, "", ""},
      {nullptr, nullptr, "a--b", "a|a-|a--b|b"},
      {nullptr, nullptr, "10.1.2.3", "10|10.1|1|10.1.2|2|10.1.2.3|3"},
      // Longest breaker wins: "%20" is major although "%" is minor.
      {nullptr, nullptr, "x%20y", "x|y"},
      {nullptr, nullptr, "x%41y", "x|x%41y|41y"},
      // A longer breaker cut short by the end of the text, or by another.
      {nullptr, nullptr, "x%2", "x|x%2|2"},
      {nullptr, nullptr, "x%%20y", "x|x%|y"},
      {nullptr, nullptr, "%20%20", ""},
      // Minor and major breakers of one byte side by side.
      {nullptr, nullptr, "a.:b c", "a|a.|a.:b|b|c"},
      {nullptr, nullptr, "A.B,c", "a|a.b|b|c"},
      // Control bytes break like majors.
      {nullptr, nullptr, "a\x01" "b", "a|b"},
      {"MAJOR_LEN", "3", "abcd ab.cd", "ab|cd"},
      {"MINOR_LEN", "1", "a.bc.d", "a|a.bc|a.bc.d|d"},
      {"MAJOR_COUNT", "1", "a b c", "a"},
      {"MINOR_COUNT", "1", "a.b.c", "a|a.b|b|a.b.c"},
      {"LOOKAHEAD", "3", "abc def", "abc"},
      {"LOOKAHEAD", "0", "abc def", ""},
      {"FILTER", "msg=(\\S+)", "ts=1 msg=Hi.There", "msg|msg=hi|hi|msg=hi.there|there"},
      {"FILTER", "nomatch", "ts=1", ""},
      {"FILTER", "([", "a b", "a|b"},  // invalid: ignored
      // A breaker of two bytes whose first byte alone is none, and one that
      // begins with a control byte: that byte alone still breaks.
      {"MAJOR", "\\s ab \\x01\\x02", "xaby a", "x|y|a"},
      {"MAJOR", "\\s ab \\x01\\x02", "x\x01\x02y x\x01y", "x|y|x|y"},
      // UTF-8 bytes are word bytes.
      {nullptr, nullptr, "caf\xc3\xa9 ok", "caf\xc3\xa9|ok"},
  };
  for (const Row& r : rows) {
    PropertiesMap m = r.settingKey ? stanza({{r.settingKey, r.settingValue}}) : stanza({});
    if (r.settingKey && std::string(r.settingKey) == "MAJOR") m.put("MAJOR", r.settingValue);
    GenericCleaner c(m);
    EXPECT_EQ(joined(c, r.in), r.out) << "in=" << r.in << " " << (r.settingKey ? r.settingKey : "");
  }
}

TEST(GenericCleaner, OffsetsPointIntoTheGivenText) {
  GenericCleaner c(stanza({}));
  Collect cb;
  std::string text = "ab.cd ef";
  c.tokenize(StrSegment(text), cb);
  ASSERT_EQ(cb.terms.size(), 4u);  // ab, ab.cd, cd, ef
  for (size_t i = 0; i < cb.terms.size(); ++i) {
    auto [s, e] = cb.spans[i];
    EXPECT_EQ(text.substr(s, e - s), cb.terms[i]);
  }
}

TEST(GenericCleaner, CallbackCanStopTheWalk) {
  GenericCleaner c(stanza({}));
  Collect cb;
  cb.stopAfter = 2;
  c.tokenize(StrSegment("a b c d"), cb);
  EXPECT_EQ(cb.terms.size(), 2u);
}

TEST(GenericCleaner, LongTokenIsCutAndTailDroppedToNextMajor) {
  GenericCleaner c(stanza({}));
  std::string longTok(3000, 'x');
  longTok[2500] = '.';
  Collect cb;
  c.tokenize(StrSegment(longTok + " tail"), cb);
  ASSERT_EQ(cb.terms.size(), 2u);
  EXPECT_EQ(cb.terms[0], std::string(GenericCleaner::kMaxSegment, 'x'));
  EXPECT_EQ(cb.terms[1], "tail");
}

TEST(GenericCleaner, BreakerListEscapes) {
  auto v = GenericCleaner::parseBreakerList("\\s \\t  a\\\\b \\x41 %20");
  ASSERT_EQ(v.size(), 5u);
  EXPECT_EQ(v[0], " ");
  EXPECT_EQ(v[1], "\t");
  EXPECT_EQ(v[2], "a\\b");
  EXPECT_EQ(v[3], "A");
  EXPECT_EQ(v[4], "%20");
}

}  // namespace
