// Text escaped for XML must parse back to itself (less the characters XML
// cannot hold at all), in element text and in attribute values alike.
#include <gtest/gtest.h>

#include "util/XmlEscape.h"

namespace {

TEST(XmlEscape, MarkupAndQuotesAndControls) {
  struct Case {
    const char* in;
    bool quotes;
    const char* out;
  } cases[] = {
      {"a<b>&c", true, "a&lt;b&gt;&amp;c"},
      {"say \"hi\" 'x'", true, "say &quot;hi&quot; &apos;x&apos;"},
      {"say \"hi\" 'x'", false, "say \"hi\" 'x'"},
      {"&amp;", true, "&amp;amp;"},  // already escaped text is escaped again
      {"t\x01\tx\n\r\x1f", true, "t\tx\n\r"},
      {"caf\xc3\xa9 \xff", true, "caf\xc3\xa9 \xff"},
      {"", true, ""},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(xmlEscaped(c.in, c.quotes), c.out) << c.in;
    Str appended("pre:");
    appendXmlEscaped(appended, c.in, c.quotes);
    EXPECT_EQ(appended, Str("pre:") + c.out) << c.in;
  }
}

}  // namespace
