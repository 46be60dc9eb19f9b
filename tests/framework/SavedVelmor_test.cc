// One stored search in its three forms: XML (the template and a full
// round trip, escaping included), property stanza (which keys are written,
// the "search" alias of older event type files), and the helpers that read
// its flags and tags.
#include "framework/SavedVelmor.h"

#include <gtest/gtest.h>

#include "libbundle/PropertiesMap.h"
#include "util/xml/XmlTreeParser.h"

namespace {

SavedVelmor full() {
  SavedVelmor s;
  for (size_t i = 0; i < SavedVelmor::kFieldCount; ++i)
    *s.field(SavedVelmor::kFieldNames[i]) = Str("v_") + SavedVelmor::kFieldNames[i];
  s.query = "status>=500 \"a <b> & c\"";
  return s;
}

TEST(SavedVelmor, TemplateHasEveryFieldEmptyInOrder) {
  EXPECT_EQ(SavedVelmor::templateXml(),
            "<savedVelmor><query></query><name></name><isGlobal></isGlobal><notifyIfExist></notifyIfExist>"
            "<userid></userid><role></role><isEventType></isEventType><tags></tags><priority></priority>"
            "<description></description><schedule></schedule><relation></relation><quantity></quantity>"
            "<group></group><nextrun></nextrun><counttype></counttype><enableSched></enableSched>"
            "<action_email></action_email><action_rss></action_rss><action_script></action_script>"
            "<sendresults></sendresults></savedVelmor>");
  EXPECT_EQ(SavedVelmor::kFieldCount, 21u);
}

TEST(SavedVelmor, XmlRoundTripKeepsEveryFieldAndEscapes) {
  SavedVelmor s = full();
  Str x;
  s.toxml(x);
  EXPECT_NE(x.find("<query>status&gt;=500 &quot;a &lt;b&gt; &amp; c&quot;</query>"), Str::npos) << x;
  xml::tree_parser parser(x.data(), x.size(), false);
  ASSERT_FALSE(parser.failed()) << parser.get_error_message();
  SavedVelmor back;
  back.fromxml(parser.get_document().get_root_node());
  EXPECT_EQ(back, s);
}

TEST(SavedVelmor, FromXmlLeavesAbsentFieldsAlone) {
  const char doc[] = "<savedVelmor><name>n</name><tags>a b</tags></savedVelmor>";
  xml::tree_parser parser(doc, sizeof doc - 1, false);
  ASSERT_FALSE(parser.failed());
  SavedVelmor s;
  s.query = "kept";
  s.fromxml(parser.get_document().get_root_node());
  EXPECT_EQ(s.name, "n");
  EXPECT_EQ(s.tags, "a b");
  EXPECT_EQ(s.query, "kept");
}

TEST(SavedVelmor, PropertyFormSkipsNameTypeAndEmptyFields) {
  SavedVelmor s;
  s.name = "web";
  s.isEventType = "true";
  s.query = "status>=500";
  s.tags = "web, error";
  PropertiesMap m;
  s.toPropMap(&m);
  EXPECT_EQ(m.size(), 2u);
  EXPECT_STREQ(m.get("query"), "status>=500");
  EXPECT_STREQ(m.get("tags"), "web, error");

  SavedVelmor back;
  back.name = "web";
  back.isEventType = "true";
  back.fromPropMap(&m);
  EXPECT_EQ(back, s);

  // Every field but the two the stanza implies goes through.
  SavedVelmor f = full();
  PropertiesMap fm;
  f.toPropMap(&fm);
  EXPECT_EQ(fm.size(), SavedVelmor::kFieldCount - 2);
  SavedVelmor fb;
  fb.name = f.name;
  fb.isEventType = f.isEventType;
  fb.fromPropMap(&fm);
  EXPECT_EQ(fb, f);
}

TEST(SavedVelmor, SearchKeyStandsInForAMissingQuery) {
  struct Case {
    const char* query;   // null: absent
    const char* search;  // null: absent
    const char* want;
  };
  const Case cases[] = {
      {nullptr, "error", "error"}, {"", "error", "error"}, {"fail", "error", "fail"}, {"fail", nullptr, "fail"},
      {nullptr, nullptr, ""},
  };
  for (const Case& c : cases) {
    PropertiesMap m;
    if (c.query) m.put("query", c.query);
    if (c.search) m.put("search", c.search);
    SavedVelmor s;
    s.fromPropMap(&m);
    EXPECT_EQ(s.query, c.want);
  }
  SavedVelmor s;
  s.fromPropMap(nullptr);  // nothing to read
  EXPECT_EQ(s, SavedVelmor());
}

TEST(SavedVelmor, TagsSplitAtBlanksAndCommasOnce) {
  struct Case {
    const char* tags;
    std::vector<Str> want;
  };
  const std::vector<Case> cases = {
      {"", {}},
      {"web", {"web"}},
      {"web error", {"web", "error"}},
      {"web,error", {"web", "error"}},
      {" ,web ,, error\tweb\n", {"web", "error"}},
  };
  for (const Case& c : cases) {
    SavedVelmor s;
    s.tags = c.tags;
    EXPECT_EQ(s.tagList(), c.want) << c.tags;
  }
}

TEST(SavedVelmor, FlagsAndFieldNames) {
  struct Case {
    const char* flag;
    bool want;
  };
  const Case cases[] = {{"true", true}, {"TRUE", true}, {"yes", true}, {"1", true},   {"", false},
                        {"0", false},   {"false", false}, {"y", false}, {"true ", false}};
  for (const Case& c : cases) EXPECT_EQ(SavedVelmor::isTrue(c.flag), c.want) << c.flag;

  SavedVelmor s;
  s.isEventType = "1";
  EXPECT_STREQ(s.typeName(), "eventtype");
  s.isEventType = "";
  EXPECT_STREQ(s.typeName(), "savedsearch");
  EXPECT_EQ(s.field("nosuch"), nullptr);
  ASSERT_NE(s.field("action_rss"), nullptr);
  *s.field("action_rss") = "x";
  EXPECT_EQ(s.action_rss, "x");
}

}  // namespace
