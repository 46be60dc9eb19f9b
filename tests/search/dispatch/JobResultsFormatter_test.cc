// The output modes of a job's rows: the JSON layout clients rely on (pinned,
// and read back by python3's json module with hostile values), XML escaping
// and segmentation of _raw, CSV and raw with a field list.
#include <gtest/gtest.h>
#include <stdio.h>

#include <string>

#include "search/SearchResults.h"
#include "search/dispatch/JobResultsFormatter.h"

namespace {

SearchResults rowsOf(const std::vector<std::vector<std::pair<Str, Str>>>& rows) {
  SearchResults rs;
  for (const auto& row : rows) {
    SearchResult* r = rs.addNewResult();
    for (const auto& [k, v] : row) r->setValue(k, v);
  }
  return rs;
}

// Runs python3 over `json`: loads it and prints it back with sorted keys and
// ASCII escapes, so the test compares what a client would see.
std::string throughPython(const std::string& json) {
  char path[] = "/tmp/velmor-json-XXXXXX";
  int fd = mkstemp(path);
  if (fd < 0) return "mkstemp failed";
  FILE* f = fdopen(fd, "w");
  fwrite(json.data(), 1, json.size(), f);
  fclose(f);
  std::string cmd = std::string("python3 -c \"import json,sys; print(json.dumps(json.load(open(sys.argv[1], "
                                "encoding='utf-8')), sort_keys=True))\" ") + path + " 2>&1";
  std::string out;
  if (FILE* p = popen(cmd.c_str(), "r")) {
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
    pclose(p);
  }
  unlink(path);
  return out;
}

std::string format(const SearchResults& rs, const char* mode, const std::vector<Str>& fields = {},
                   const char* seg = "raw") {
  Str out;
  JobResultsFormatter::format(rs, mode, fields, seg, out);
  return out;
}

TEST(JobResultsFormatterTest, JsonLayoutIsPinnedAndRowsMissingAFieldLeaveItOut) {
  SearchResults rs = rowsOf({{{"host", "a"}, {"n", "1"}}, {{"host", "b"}}});
  EXPECT_EQ(format(rs, "json"),
            "[\n\t{\n\t\t\"host\": \"a\",\n\t\t\"n\": \"1\"\n\t},\n\t{\n\t\t\"host\": \"b\"\n\t}\n]");
  EXPECT_EQ(format(rs, "json", {"n", "host"}),
            "[\n\t{\n\t\t\"n\": \"1\",\n\t\t\"host\": \"a\"\n\t},\n\t{\n\t\t\"host\": \"b\"\n\t}\n]");
}

TEST(JobResultsFormatterTest, PythonReadsEveryHostileValueBack) {
  // value as stored -> as python's json.dumps (ASCII) writes it back
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"say \"hi\"", R"("say \"hi\"")"},
      {"C:\\dir\\", R"("C:\\dir\\")"},
      {"line1\nline2\r\tend", R"("line1\nline2\r\tend")"},
      {std::string("bell\x01\x1f", 6), R"("bell\u0001\u001f")"},
      {"caf\xc3\xa9", R"("caf\u00e9")"},
      {"bad\xff\xfe" "byte", R"("bad\ufffd\ufffdbyte")"},
      {"cut\xe2\x82", R"("cut\ufffd\ufffd")"},
      {"surrogate\xed\xa0\x80", R"("surrogate\ufffd\ufffd\ufffd")"},
      {"", R"("")"},
  };
  // One document for all cases: one row each, read by one python run.
  SearchResults rs;
  std::string expected = "[";
  for (const auto& [value, want] : cases) {
    rs.addNewResult()->setValue(Str("k"), Str(value));
    expected += std::string(expected.size() > 1 ? ", " : "") + "{\"k\": " + want + "}";
  }
  EXPECT_EQ(throughPython(format(rs, "json")), expected + "]\n");
}

TEST(JobResultsFormatterTest, XmlEscapesValuesAndSegmentsRawOnlyWhenAsked) {
  SearchResults rs = rowsOf({{{"_raw", "a<b> x_1"}, {"q", "it's & \"so\""}}});
  // The output commands' document: quotes in element text stay as they are.
  EXPECT_EQ(format(rs, "xml"),
            "<?xml version=\"1.0\"?>\n<results>\n<result offset='0'>\n"
            "<field k='_raw'><v xml:space='preserve'>a&lt;b&gt; x_1</v></field>\n"
            "<field k='q'>\n<value><text>it's &amp; \"so\"</text></value>\n</field>\n"
            "</result>\n</results>\n");
  // Words as the segmenter cuts them ("_" is a breaker).
  std::string seg = format(rs, "xml", {"_raw"}, "full");
  EXPECT_NE(seg.find("<v xml:space='preserve'><sg>a</sg>&lt;<sg>b</sg>&gt; <sg>x</sg>_<sg>1</sg></v>"),
            std::string::npos)
      << seg;
  EXPECT_EQ(seg.find("k='q'"), std::string::npos);
}

TEST(JobResultsFormatterTest, XmlGivesAValuePerElementOfAMultiValueField) {
  SearchResults rs;
  SearchResult* r = rs.addNewResult();
  r->setValue(Str("host"), Str("a b"));
  rs.internalKeyIndex("__mv_host", true);
  ASSERT_TRUE(r->setMultiValues(rs.keyIndex("host"), {"a", "b<"}));
  EXPECT_NE(format(rs, "xml").find("<field k='host'>\n<value><text>a</text></value>\n<value><text>b&lt;</text></value>\n"
                                   "</field>"),
            std::string::npos)
      << format(rs, "xml");
}

TEST(JobResultsFormatterTest, CsvAndRawFollowTheFieldList) {
  SearchResults rs = rowsOf({{{"_raw", "first line"}, {"host", "a,b"}}, {{"_raw", "second"}, {"host", "c"}}});
  EXPECT_EQ(format(rs, "csv", {"host"}), "host\n\"a,b\"\nc\n");
  EXPECT_EQ(format(rs, "raw"), "first line\nsecond\n");
  EXPECT_FALSE(JobResultsFormatter::isOutputMode("yaml"));
  EXPECT_STREQ(JobResultsFormatter::contentType("json"), "application/json");
}

}  // namespace
