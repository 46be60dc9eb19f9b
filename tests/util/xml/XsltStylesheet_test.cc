#include "util/xml/XsltStylesheet.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include <unistd.h>

#include "util/xml/XmlException.h"
#include "util/xml/XmlTreeParser.h"

namespace {

xml::document parse(const std::string& text) {
  xml::tree_parser p(text.data(), text.size());
  return p.get_document();
}

const char kEcho[] =
    "<xsl:stylesheet version='1.0' xmlns:xsl='http://www.w3.org/1999/XSL/Transform'>"
    "<xsl:param name='who' select=\"'nobody'\"/>"
    "<xsl:template match='/'><out who='{$who}'><xsl:value-of select='count(//i)'/></out>"
    "</xsl:template></xsl:stylesheet>";

TEST(XsltStylesheet, ParametersAreLiteralStrings) {
  xslt::stylesheet s(parse(kEcho));
  xml::document in = parse("<r><i/><i/></r>");
  xml::document out = s.apply(in);
  EXPECT_EQ(out.get_root_node().get_attribute("who"), "nobody");
  EXPECT_EQ(out.get_root_node().get_content(), "2");
  // An XPath-looking value stays text, quotes included.
  out = s.apply(in, {{"who", "count(//i) 'and' \"more\""}});
  EXPECT_EQ(out.get_root_node().get_attribute("who"), "count(//i) 'and' \"more\"");
}

TEST(XsltStylesheet, TextOutputHonoursOutputMethod) {
  xslt::stylesheet s(parse(
      "<xsl:stylesheet version='1.0' xmlns:xsl='http://www.w3.org/1999/XSL/Transform'>"
      "<xsl:output method='text'/>"
      "<xsl:template match='/'><xsl:for-each select='//i'><xsl:value-of select='@v'/>,"
      "</xsl:for-each></xsl:template></xsl:stylesheet>"));
  std::string text;
  ASSERT_TRUE(s.apply_to_string(parse("<r><i v='a&amp;b'/><i v='c'/></r>"), text));
  EXPECT_EQ(text, "a&b,c,");
}

TEST(XsltStylesheet, CompileFailuresThrowWithText) {
  const char* bad[] = {
      "<notxsl/>",
      "<xsl:stylesheet version='1.0' xmlns:xsl='http://www.w3.org/1999/XSL/Transform'>"
      "<xsl:template match='['/></xsl:stylesheet>",
  };
  for (const char* text : bad) {
    try {
      xslt::stylesheet s(parse(text));
      ADD_FAILURE() << "compiled: " << text;
    } catch (const xml::exception& e) {
      EXPECT_NE(std::string(e.what()).find("cannot compile stylesheet"), std::string::npos);
    }
  }
  EXPECT_THROW(xslt::stylesheet("/nonexistent.xsl"), xml::exception);
}

TEST(XsltStylesheet, RuntimeFailureAndForbiddenWrites) {
  xslt::stylesheet term(parse(
      "<xsl:stylesheet version='1.0' xmlns:xsl='http://www.w3.org/1999/XSL/Transform'>"
      "<xsl:template match='/'><xsl:message terminate='yes'>stop here</xsl:message>"
      "</xsl:template></xsl:stylesheet>"));
  xml::document result;
  EXPECT_FALSE(term.apply(parse("<r/>"), result));
  EXPECT_NE(term.get_error_message().find("stop here"), std::string::npos);
  EXPECT_THROW(term.apply(parse("<r/>")), xml::exception);

  char tmpl[] = "/tmp/velmor_xslt_XXXXXX";
  std::string dir = mkdtemp(tmpl);
  std::string target = dir + "/written.txt";
  xslt::stylesheet writer(parse(
      "<xsl:stylesheet version='1.0' xmlns:xsl='http://www.w3.org/1999/XSL/Transform'"
      " xmlns:exsl='http://exslt.org/common' extension-element-prefixes='exsl'>"
      "<xsl:template match='/'><exsl:document href='" + target + "' method='text'>x"
      "</exsl:document><done/></xsl:template></xsl:stylesheet>"));
  writer.apply(parse("<r/>"), result);
  EXPECT_NE(access(target.c_str(), F_OK), 0);
  rmdir(dir.c_str());
}

// The shipped pretty-printer re-indents and must not alter the input tree,
// although it strips whitespace.
TEST(XsltStylesheet, PrettyPrintKeepsInputIntact) {
  xslt::stylesheet pretty(VELMOR_SOURCE_DIR "/etc/prettyprint.xsl");
  xml::document in = parse("<a x='1'>  <b>t</b>  <!--c--><c/></a>");
  std::string before = in.get_root_node().to_string();
  std::string text;
  ASSERT_TRUE(pretty.apply_to_string(in, text));
  EXPECT_EQ(text,
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<a x=\"1\">\n  <b>t</b>\n"
            "  <!--c-->\n  <c/>\n</a>\n");
  EXPECT_EQ(in.get_root_node().to_string(), before);
}

}  // namespace
