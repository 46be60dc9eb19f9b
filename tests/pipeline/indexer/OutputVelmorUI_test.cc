// The results document of the inner query language: exact bytes of both
// versions for known events, the segment forms, maxlines, events that
// cannot be read, and the argument errors.
#include "pipeline/indexer/OutputVelmorUI.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "QueryModuleTestIndex.h"
#include "../../search/SearchTestUtil.h"
#include "libbundle/PropertyPages.h"
#include "pipeline/indexer/GetEvents.h"
#include "pipeline/indexer/GetHosts.h"
#include "pipeline/indexer/OutputVelmorUI21.h"
#include "pipeline/indexer/OutputVelmorUI22.h"

namespace {

class OutputVelmorUITest : public ::testing::Test {
 protected:
  void SetUp() override {
    // Newest first: the access line, then the disk error.
    t.put("disk error on /dev/sda1", 1700000000, "web1", "/var/log/app.log", "app");
    t.put("GET /a&b <x>\nline two", 1700000060, "web2", "/var/log/my app.log", "access");
    ids = t.ids();
    ASSERT_EQ(ids.size(), 2u);
  }

  // A query over both events whose search terms are `terms` (they mark
  // segments), with the events and the hosts fetched.
  std::unique_ptr<Query> fetched(const std::vector<Str>& terms) {
    auto q = t.query(ids);
    for (const Str& term : terms) q->stateMachine().accept(term);
    q->stateMachine().finalize();
    std::vector<ValueWrapper> found;
    q->stateMachine().execute(found);
    q->results() = ids;
    QueryModuleTestIndex::run<GetEvents>(*q, {{"events", "0-9"}});
    QueryModuleTestIndex::run<GetHosts>(*q, {{"hosts", "0-9"}});
    return q;
  }

  // The text part of the one event of a 2.2 document.
  static Str eventText(const Str& doc) {
    size_t from = doc.find("\">", doc.find("lines=\""));
    size_t to = doc.find("<meta>");
    if (from == Str::npos || to == Str::npos) return "(no event in: " + doc + ")";
    return doc.substr(from + 2, to - from - 2);
  }

  QueryModuleTestIndex t;
  std::vector<ValueWrapper> ids;
};

TEST_F(OutputVelmorUITest, Version22Document) {
  auto q = fetched({"error", "host::web1"});
  q->addMessage("INFO", "a < b");
  Str doc =
      QueryModuleTestIndex::output<OutputVelmorUI>(*q, {{"velmorui", "2.2"}, {"format", "outer"}, {"idcount", "1"}});
  Str expected =
      "<results type=\"message\">\n"
      "<msg type=\"INFO\">a &lt; b</msg>\n"
      "</results>\n\n"
      "<results type=\"events\" c=\"2\" tc=\"2\">\n"
      "\t<r cd=\"" +
      ids[0].cd() +
      "\" lines=\"2\">"
      "<sg c=\"1\">GET</sg> /<sg c=\"1\">a</sg>&amp;<sg c=\"1\">b</sg> &lt;<sg c=\"1\">x</sg>&gt;\n"
      "<sg c=\"1\">line</sg> <sg c=\"1\">two</sg>"
      "<meta><sg c=\"4\">11/14/2023:22:14:20</sg> "
      "<sg c=\"5\" override=\"+host::web2\">web2</sg> "
      "<sg c=\"6\" override=\"+source::&quot;/var/log/my app.log&quot;\">/var/log/my app.log</sg> "
      "<sg c=\"7\" override=\"+sourcetype::access\">access</sg> </meta></r>\n"
      "\t<r cd=\"" +
      ids[1].cd() +
      "\" lines=\"1\">"
      "<sg c=\"1\">disk</sg> <sg c=\"1\" h=\"1\">error</sg> <sg c=\"1\">on</sg> /<sg c=\"1\">dev</sg>/"
      "<sg c=\"1\">sda1</sg>"
      "<meta><sg c=\"4\">11/14/2023:22:13:20</sg> "
      "<sg c=\"5\" h=\"1\" override=\"+host::web1\">web1</sg> "
      "<sg c=\"6\" override=\"+source::/var/log/app.log\">/var/log/app.log</sg> "
      "<sg c=\"7\" override=\"+sourcetype::app\">app</sg> </meta></r>\n"
      "</results>\n\n"
      "<results type=\"hosts\" c=\"2\" tc=\"2\">\n"
      "\t<cols c=\"1\" cd=\"0\">web1</cols>\n"
      "\t<cols c=\"1\" cd=\"1\">web2</cols>\n"
      "</results>\n\n"
      "<ids>\n" +
      Str::fromFormat("\t<id t=\"1700000060\" ty=\"0\" src=\"1\" h=\"1\" st=\"1\" >%u: %u</id>\n", ids[0].bucketId,
                      ids[0].address) +
      "</ids>\n";
  EXPECT_EQ(doc, expected);
}

TEST_F(OutputVelmorUITest, Version21Document) {
  auto q = fetched({"error"});
  Str doc = QueryModuleTestIndex::output<OutputVelmorUI>(*q, {{"velmorui", "2.1"}});
  Str expected =
      "<results type=\"events\">\n"
      "\t<result cd=\"" +
      ids[0].cd() +
      "\" lines=\"2\">\n"
      "\t\t<timestamp>11/14/2023:22:14:20</timestamp>\n"
      "\t\t<host>web2</host>\n"
      "\t\t<source>/var/log/my app.log</source>\n"
      "\t\t<sourcetype>access</sourcetype>\n"
      "\t\t<text>GET /a&amp;b &lt;x&gt;\nline two</text>\n"
      "\t</result>\n"
      "\t<result cd=\"" +
      ids[1].cd() +
      "\" lines=\"1\">\n"
      "\t\t<timestamp>11/14/2023:22:13:20</timestamp>\n"
      "\t\t<host>web1</host>\n"
      "\t\t<source>/var/log/app.log</source>\n"
      "\t\t<sourcetype>app</sourcetype>\n"
      "\t\t<text>disk error on /dev/sda1</text>\n"
      "\t</result>\n"
      "</results>\n\n"
      "<results type=\"hosts\">\n"
      "\t\t<host cd=\"0\" name=\"web1\" >1</host>\n"
      "\t\t<host cd=\"1\" name=\"web2\" >1</host>\n"
      "</results>\n\n";
  EXPECT_EQ(doc, expected);
}

// An id whose bucket does not exist keeps its place in the list; the
// document says which event is missing. A scored query gives relevance.
TEST_F(OutputVelmorUITest, MissingEventAndRelevance) {
  ValueWrapper lost;
  lost.bucketId = 77;
  lost.address = 5;
  auto q = t.query({ids[1], lost});
  q->setUseScore(true);
  q->scores()[ids[1].cd()] = 0.5f;
  QueryModuleTestIndex::run<GetEvents>(*q, {{"events", "0-1"}});
  Str doc = QueryModuleTestIndex::output<OutputVelmorUI22>(*q, {{"timeformat", "%H:%M"}});
  EXPECT_EQ(doc,
            "<results type=\"events\" c=\"2\" tc=\"2\">\n"
            "\t<r cd=\"" +
                ids[1].cd() +
                "\" rel=\"0.500000\" lines=\"1\">disk error on /dev/sda1"
                "<meta><sg c=\"4\">22:13</sg> <sg c=\"5\" override=\"+host::web1\">web1</sg> "
                "<sg c=\"6\" override=\"+source::/var/log/app.log\">/var/log/app.log</sg> "
                "<sg c=\"7\" override=\"+sourcetype::app\">app</sg> </meta></r>\n"
                "\t<r cd=\"77:5\">Unable to find this event<meta></meta></r>\n"
                "</results>\n\n");
  EXPECT_EQ(QueryModuleTestIndex::output<OutputVelmorUI21>(*q, {}).find(
                "\t<result cd=\"77:5\">Unable to find this event</result>\n") != Str::npos,
            true);
}

struct SegmentRow {
  const char* format;
  const char* raw;
  const char* maxlines;  // null: no limit
  const char* expected;
};

// Segments come from the index's segmenter (majors: blanks, brackets, "&";
// minors: "/", ".", ...; runs of pieces are terms too). "b" is a search term.
TEST_F(OutputVelmorUITest, SegmentFormsAndMaxLines) {
  // A segmenter with the minor breakers "." and "/", so that segments nest;
  // the configuration of the tests after this one is reloaded without it.
  struct ReloadAfter {
    ~ReloadAfter() { PropertyPages::instance("segmenters").updateConfigs(); }
  } reload;
  searchtest::ScratchHome home;
  home.writeConf("segmenters", "[default]\nMAJOR = \\s \\n < >\nMINOR = . /\nINTERMEDIATE_MAJORS = true\n");
  const SegmentRow rows[] = {
      {"raw", "a.b c<d>", nullptr, "a.b c&lt;d&gt;"},
      {"outer", "a.b c", nullptr, "<sg c=\"1\">a.b</sg> <sg c=\"1\">c</sg>"},
      {"inner", "a.b c", nullptr, "<sg c=\"2\">a</sg>.<sg c=\"2\" h=\"1\">b</sg> <sg c=\"2\">c</sg>"},
      {"all", "a.B c", nullptr, "<sg c=\"1\"><sg c=\"2\">a</sg>.<sg c=\"2\" h=\"1\">B</sg></sg> <sg c=\"1\">c</sg>"},
      {"all", "10.1.2", nullptr,
       "<sg c=\"1\"><sg c=\"3\"><sg c=\"2\">10</sg>.<sg c=\"2\">1</sg></sg>.<sg c=\"2\">2</sg></sg>"},
      {"inner", "/var/log", nullptr, "/<sg c=\"2\">var</sg>/<sg c=\"2\">log</sg>"},
      {"all", "/var/log", nullptr, "<sg c=\"1\"><sg c=\"3\">/<sg c=\"2\">var</sg></sg>/<sg c=\"2\">log</sg></sg>"},
      {"outer", "  x  ", nullptr, "  <sg c=\"1\">x</sg>  "},
      {"raw", "bell\x07 & tab\t", nullptr, "bell &amp; tab\t"},
      {"raw", "one\ntwo\nthree", "2", "one\ntwo"},
      {"raw", "one\ntwo\nthree", "0", ""},
      {"raw", "one\ntwo\nthree", "3", "one\ntwo\nthree"},
      {"outer", "one two\nthree", "1", "<sg c=\"1\">one</sg> <sg c=\"1\">two</sg>"},
  };
  auto q = t.query(ids);
  q->stateMachine().accept("b");
  q->stateMachine().finalize();
  std::vector<ValueWrapper> found;
  q->stateMachine().execute(found);
  for (const SegmentRow& r : rows) {
    SCOPED_TRACE(Str(r.format) + " " + r.raw);
    auto e = std::make_shared<PipelineData>();
    e->put(PipelineData::cdKey, "0:0");
    e->put(PipelineData::timeKey, "0");
    e->put(PipelineData::rawKey, r.raw);
    q->resultMap()["events"] = {e};
    ModuleArgs args{{"velmorui", "2.2"}, {"format", r.format}};
    if (r.maxlines) args["maxlines"] = r.maxlines;
    Str doc = QueryModuleTestIndex::output<OutputVelmorUI>(*q, args);
    EXPECT_EQ(eventText(doc), r.expected);
    // The line count is always that of the whole event.
    EXPECT_NE(doc.find(Str::fromFormat(" lines=\"%ld\"", 1 + long(std::count(r.raw, r.raw + strlen(r.raw), '\n')))),
              Str::npos);
  }
}

TEST_F(OutputVelmorUITest, ArgumentErrors) {
  auto q = t.query(ids);
  EXPECT_EQ(QueryModuleTestIndex::failure<OutputVelmorUI>(*q, {{"velmorui", "3.0"}}),
            "Unsupported version 3.0 requested ");
  EXPECT_EQ(QueryModuleTestIndex::failure<OutputVelmorUI>(*q, {}), "Unsupported version  requested ");
  EXPECT_EQ(QueryModuleTestIndex::failure<OutputVelmorUI>(*q, {{"velmorui", "2.2"}, {"format", "fancy"}}),
            "Unknown format : fancy");
  q->modules("SEARCH").clear();
  EXPECT_EQ(QueryModuleTestIndex::failure<OutputVelmorUI>(*q, {{"velmorui", "2.1"}}),
            "Unable to output because no SEARCH was specified");
}

// Nothing fetched and nothing said: the module writes nothing between the
// frame; ids alone may still be asked for.
TEST_F(OutputVelmorUITest, EmptyQueryWritesOnlyIds) {
  auto q = t.query(ids);
  EXPECT_EQ(QueryModuleTestIndex::output<OutputVelmorUI>(*q, {{"velmorui", "2.2"}}), "");
  Str doc = QueryModuleTestIndex::output<OutputVelmorUI>(*q, {{"velmorui", "2.1"}, {"idcount", "5"}});
  EXPECT_EQ(std::count(doc.begin(), doc.end(), '\n'), 4);  // <ids>, two ids, </ids>
}

}  // namespace
