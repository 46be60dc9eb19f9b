#include "util/xml/XmlTreeParser.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <fstream>
#include <string>

#include <unistd.h>

#include "util/xml/XmlException.h"

namespace {

class TempDir {
 public:
  TempDir() {
    char tmpl[] = "/tmp/velmor_xmlparse_XXXXXX";
    path = mkdtemp(tmpl);
  }
  ~TempDir() { std::system(("rm -rf '" + path + "'").c_str()); }
  std::string write(const std::string& name, const std::string& text) const {
    std::string p = path + "/" + name;
    std::ofstream(p) << text;
    return p;
  }
  std::string path;
};

struct BadCase {
  const char* text;
  const char* message_part;
};

TEST(XmlTreeParser, FailuresGiveMessagesWithoutThrowing) {
  const BadCase cases[] = {
      {"", "empty"},
      {"<a>", "end of data"},
      {"<a></b>", "mismatch"},
      {"<a x='1' x='2'/>", "redefined"},
      {"text only", "Start tag expected"},
      {"<a/><b/>", "Extra content"},
      {"<a>&undefined;</a>", "undefined"},
  };
  for (const auto& c : cases) {
    xml::tree_parser p(c.text, strlen(c.text), false);
    EXPECT_TRUE(p.failed()) << c.text;
    EXPECT_TRUE(!p) << c.text;
    EXPECT_NE(p.get_error_message().find(c.message_part), std::string::npos)
        << c.text << " -> " << p.get_error_message();
  }
}

TEST(XmlTreeParser, ThrowsWhenAllowed) {
  const char bad[] = "<a>";
  EXPECT_THROW(xml::tree_parser(bad, sizeof bad - 1), xml::exception);
  EXPECT_THROW(xml::tree_parser("/nonexistent/file.xml"), xml::exception);
  xml::tree_parser p("/nonexistent/file.xml", false);
  EXPECT_TRUE(p.failed());
  EXPECT_FALSE(p.get_error_message().empty());
}

TEST(XmlTreeParser, ParsesFileAndMemory) {
  TempDir dir;
  std::string path = dir.write("a.xml", "<?xml version='1.0'?>\n<cfg><v>1</v></cfg>\n");
  xml::tree_parser fromFile(path.c_str());
  ASSERT_FALSE(fromFile.failed());
  EXPECT_EQ(fromFile.get_document().get_root_node().find("v").get_content(), "1");
  EXPECT_EQ(fromFile.get_error_message(), "");

  const std::string text = "<cfg><v>\xc3\xa9</v></cfg>";
  xml::tree_parser fromMemory(text.data(), text.size());
  EXPECT_EQ(fromMemory.get_document().get_root_node().find("v").get_content(), "\xc3\xa9");
}

// A document must not be able to read local files through external entities,
// whether declared inline or pulled in through an external DTD.
TEST(XmlTreeParser, ExternalEntitiesAreNotLoaded) {
  TempDir dir;
  std::string secret = dir.write("secret.txt", "TOPSECRET");
  std::string dtd = dir.write("ext.dtd", "<!ENTITY leak SYSTEM \"file://" + secret + "\">");
  const std::string docs[] = {
      "<!DOCTYPE r [<!ENTITY leak SYSTEM \"file://" + secret + "\">]><r>&leak;</r>",
      "<!DOCTYPE r SYSTEM \"file://" + dtd + "\"><r>&leak;</r>",
  };
  for (const auto& text : docs) {
    xml::tree_parser p(text.data(), text.size(), false);
    if (!p.failed()) {
      std::string out;
      p.get_document().save_to_string(out);
      EXPECT_EQ(out.find("TOPSECRET"), std::string::npos) << out;
      EXPECT_EQ(p.get_document().get_root_node().get_content().find("TOPSECRET"),
                std::string::npos);
    }
  }
}

TEST(XmlDocument, SaveWithEncodingAndToFile) {
  TempDir dir;
  xml::document d("root");
  d.get_root_node().append_element("v", "caf\xc3\xa9");
  std::string latin;
  ASSERT_TRUE(d.save_to_string(latin, "ISO-8859-1"));
  EXPECT_NE(latin.find("encoding=\"ISO-8859-1\""), std::string::npos);
  EXPECT_NE(latin.find("caf\xe9"), std::string::npos);
  std::string bogus;
  EXPECT_FALSE(d.save_to_string(bogus, "NO-SUCH-ENCODING"));

  std::string path = dir.path + "/out.xml";
  ASSERT_TRUE(d.save_to_file(path.c_str(), "UTF-8", true));
  EXPECT_NE(access((path + ".tmp").c_str(), F_OK), 0);
  xml::tree_parser back(path.c_str());
  EXPECT_EQ(back.get_document().get_root_node().find("v").get_content(), "caf\xc3\xa9");
  EXPECT_FALSE(d.save_to_file((dir.path + "/missing/out.xml").c_str()));

  // A document built from a node holds a copy; the two then go their ways.
  xml::document copy(d.get_root_node());
  copy.get_root_node().set_name("other");
  EXPECT_STREQ(d.get_root_node().get_name(), "root");
  EXPECT_TRUE(xml::document().get_root_node().empty());
}

}  // namespace
