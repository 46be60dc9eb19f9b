// outputxml, outputraw, outputrawr, outputtext and outputatom: the one
// "_xml" row they leave, its well-formedness, windows and marking, and the
// same text over spilled chunks as over rows in memory.
#include <gtest/gtest.h>

#include "FileTestUtil.h"
#include "search/processors/OutputAtom.h"
#include "util/xml/XmlDocument.h"
#include "util/xml/XmlNode.h"
#include "util/xml/XmlTreeParser.h"

namespace {

using filetest::Home;
using searchtest::Row;

std::string render(const std::string& search, const std::vector<Row>& rows, SearchResultsInfo* infoIn = nullptr) {
  SearchResults rs;
  searchtest::addRows(rs, rows);
  SearchResultsInfo info;
  if (infoIn) info = *infoIn;
  std::string err = filetest::run(search, rs, info);
  return err.empty() ? filetest::xmlOf(rs) : err;
}

// Parses an XML text; the root element, or an empty node when not well-formed.
xml::node parse(const std::string& text, xml::document& keep) {
  xml::tree_parser p(text.data(), text.size(), false);
  if (p.failed()) return xml::node();
  keep = p.get_document();
  return keep.get_root_node();
}

// The text of a <field>'s first value.
std::string valueOf(const xml::node& field) { return field.find("value").find("text").get_content(); }

const std::vector<Row> kEvents = {
    {{"_raw", "GET /a 200"}, {"_time", "1763280000"}, {"host", "web<1>"}, {"_hidden", "h"}},
    {{"_raw", "POST /b 500 & 'x'"}, {"host", "web2"}, {"status", "500"}},
    {{"status", "404"}},
};

TEST(OutputRenderTest, OutputXmlIsTheResultsDocument) {
  Home home;
  std::string text = render("outputxml", kEvents);
  xml::document doc;
  xml::node root = parse(text, doc);
  ASSERT_FALSE(root.empty()) << text;
  EXPECT_STREQ(root.get_name(), "results");
  std::vector<xml::node> results = root.elements("result");
  ASSERT_EQ(results.size(), 3u);
  EXPECT_EQ(results[1].get_attribute("offset"), "1");
  // Hidden fields are left out except _raw and _time; values escape cleanly.
  std::vector<std::string> keys;
  for (const xml::node& f : results[0].elements("field")) keys.push_back(f.get_attribute("k"));
  EXPECT_EQ(keys, (std::vector<std::string>{"_raw", "_time", "host"}));
  EXPECT_EQ(valueOf(results[0].find_by_attribute("field", "k", "host")), "web<1>");
  EXPECT_EQ(results[1].find_by_attribute("field", "k", "_raw").get_content(), "POST /b 500 & 'x'");
  EXPECT_EQ(results[2].elements("field").size(), 1u);
}

TEST(OutputRenderTest, OutputXmlWindowMarkingAndEmptyForms) {
  Home home;
  std::vector<Row> rows;
  for (int i = 0; i < 30; ++i) rows.push_back({{"n", std::to_string(i)}});
  struct Case {
    const char* search;
    std::vector<std::string> n;
  } cases[] = {
      {"outputxml count=2", {"0", "1"}},
      {"outputxml offset=28", {"28", "29"}},
      {"outputxml offset=5 count=3", {"5", "6", "7"}},
      {"outputxml offset=40", {}},
  };
  for (auto& c : cases) {
    xml::document doc;
    xml::node root = parse(render(c.search, rows), doc);
    ASSERT_FALSE(root.empty()) << c.search;
    std::vector<std::string> got;
    for (const xml::node& r : root.elements("result")) got.push_back(valueOf(r.find("field")));
    EXPECT_EQ(got, c.n) << c.search;
  }
  EXPECT_EQ(render("outputxml segmentation=some", rows),
            "Error in 'outputxml' command: Invalid segmentation 'some'; use none or full");
  EXPECT_EQ(render("outputxml 5", rows), "Error in 'outputxml' command: Invalid argument: '5'");

  // Keywords of the search are marked, in values and in segmented _raw.
  SearchResultsInfo info;
  info.keywords = {"error"};
  std::string marked = render("outputxml segmentation=full",
                              {{{"_raw", "an ERROR: disk-full"}, {"level", "error"}}}, &info);
  EXPECT_NE(marked.find("<sg>an</sg> <sg h='1'>ERROR</sg>: <sg>disk</sg>-<sg>full</sg>"), std::string::npos)
      << marked;
  EXPECT_NE(marked.find("<value h='1'><text>error</text></value>"), std::string::npos) << marked;

  EXPECT_EQ(render("outputxml", {}), "<?xml version=\"1.0\"?>\n<results/>\n");
  SearchResultsInfo warned;
  warned.addWarning("careful <here>");
  EXPECT_EQ(render("outputxml", {}, &warned),
            "<?xml version=\"1.0\"?>\n<results type=\"message\">\n<msg type=\"WARN\">careful &lt;here&gt;</msg>\n"
            "</results>\n");
}

TEST(OutputRenderTest, RawTextAndAtom) {
  Home home;
  EXPECT_EQ(render("outputraw", kEvents), "GET /a 200\nPOST /b 500 & 'x'\n");
  EXPECT_EQ(render("outputrawr", kEvents), "POST /b 500 & 'x'\nGET /a 200\n");
  EXPECT_EQ(render("outputraw", {}), "");
  EXPECT_EQ(render("outputtext", {{{"a", "1"}, {"bb", "two\nlines"}}, {{"a", "333"}}}),
            "a    bb\n"
            "---  ---------\n"
            "1    two lines\n"
            "333  \n");

  SearchResultsInfo info;
  info.queryId = "q1";
  std::string atom = render("outputatom", kEvents, &info);
  xml::document doc;
  xml::node feed = parse(atom, doc);
  ASSERT_FALSE(feed.empty()) << atom;
  EXPECT_STREQ(feed.get_name(), "feed");
  std::vector<xml::node> entries = feed.elements("entry");
  ASSERT_EQ(entries.size(), 3u);
  EXPECT_EQ(entries[0].find("title").get_content(), "GET /a 200");
  EXPECT_EQ(entries[0].find("updated").get_content(), "2025-11-16T08:00:00Z");
  EXPECT_EQ(entries[2].find("title").get_content(), "status=404");
  EXPECT_EQ(entries[2].find("id").get_content(), "velmor:search:q1:2");
  EXPECT_EQ(OutputAtom::isoTime(0), "1970-01-01T00:00:00Z");
  // A long title is cut on a character boundary: the feed stays well-formed.
  std::string longRaw = std::string(79, 'a') + "\xc3\xa9tait";
  xml::document doc2;
  xml::node cut = parse(render("outputatom", {{{"_raw", longRaw}}}), doc2);
  ASSERT_FALSE(cut.empty());
  EXPECT_EQ(cut.find("entry").find("title").get_content(), std::string(79, 'a'));
}

TEST(OutputRenderTest, SpilledEqualsInMemory) {
  Home home(100);
  std::vector<Row> rows = filetest::numbered(10000);
  // With a time of their own the entries do not depend on the clock.
  for (size_t i = 0; i < rows.size(); ++i) rows[i]["_time"] = std::to_string(1763280000 + i);
  for (const char* search : {"outputxml", "outputxml offset=150 count=120 segmentation=full", "outputraw",
                             "outputrawr", "outputtext", "outputatom"}) {
    SearchResults mem, sp;
    searchtest::addRows(mem, rows);
    searchtest::addRows(sp, rows);
    searchtest::ScratchDir dir;
    filetest::spill(sp, dir.path(), 100);
    SearchResultsInfo i1, i2;
    i1.queryId = i2.queryId = "same";
    ASSERT_EQ(filetest::run(search, mem, i1), "") << search;
    ASSERT_EQ(filetest::run(search, sp, i2), "") << search;
    std::string a = filetest::xmlOf(mem), b = filetest::xmlOf(sp);
    // The feed's own <updated> is the clock at rendering: not compared.
    for (std::string* t : {&a, &b}) {
      size_t at = t->find("<updated>");
      if (std::string(search) == "outputatom" && at != std::string::npos) t->erase(at, t->find('\n', at) - at);
    }
    EXPECT_GT(a.size(), 1000u) << search;
    EXPECT_TRUE(a == b) << search;
    EXPECT_FALSE(sp.hasFiles());
  }
}

}  // namespace
