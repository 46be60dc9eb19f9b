#include "util/xml/XmlNode.h"

#include <gtest/gtest.h>

#include "util/xml/XmlDocument.h"
#include "util/xml/XmlTreeParser.h"

namespace {

xml::document parse(const std::string& text) {
  xml::tree_parser p(text.data(), text.size());
  return p.get_document();
}

std::string names(const std::vector<xml::node>& v) {
  std::string out;
  for (const auto& n : v) out += std::string(n.is_text() ? "#" : n.get_name()) + " ";
  return out;
}

// Text and attribute values are literal: markup characters are escaped on
// output and read back unchanged, never taken as entity references.
TEST(XmlNode, TextAndAttributesAreLiteral) {
  xml::node n("a");
  n.set_content("x &amp; <y> & z");
  n.set_attribute("k", "\"q\" &lt; &");
  xml::document d(n);
  std::string text;
  ASSERT_TRUE(d.save_to_string(text));
  xml::document back = parse(text);
  EXPECT_EQ(back.get_root_node().get_content(), "x &amp; <y> & z");
  EXPECT_EQ(back.get_root_node().get_attribute("k"), "\"q\" &lt; &");

  n.set_content("replaced");
  EXPECT_EQ(n.children().size(), 1u);
  EXPECT_EQ(n.get_content(), "replaced");
}

TEST(XmlNode, Attributes) {
  xml::node n("p");
  std::string v = "unchanged";
  EXPECT_FALSE(n.get_attribute("name", v));
  EXPECT_EQ(v, "unchanged");
  n.set_attribute("name", "");
  EXPECT_TRUE(n.get_attribute("name", v));  // present though empty
  EXPECT_EQ(v, "");
  n.set_attribute("name", "one");
  n.set_attribute("name", "two");
  n.set_attribute("other", "3");
  EXPECT_EQ(n.get_attributes().size(), 2u);
  EXPECT_TRUE(n.erase_attribute("name"));
  EXPECT_FALSE(n.erase_attribute("name"));
  EXPECT_FALSE(n.has_attribute("name"));
}

TEST(XmlNode, NavigationSkipsNonElementsWhereAsked) {
  xml::document d = parse("<r>t1<a n='1'/><!--c--><b/>t2<a n='2'>x<i/></a></r>");
  xml::node r = d.get_root_node();
  EXPECT_EQ(names(r.children()), "# a comment b # a ");
  EXPECT_EQ(names(r.elements()), "a b a ");
  EXPECT_EQ(r.elements("a").size(), 2u);
  EXPECT_EQ(r.find("a").get_attribute("n"), "1");
  EXPECT_EQ(r.find_by_attribute("a", "n", "2").get_content(), "x");
  EXPECT_EQ(r.find_by_attribute(nullptr, "n", "2").get_attribute("n"), "2");
  EXPECT_TRUE(r.find_by_attribute("a", "n", "3").empty());
  EXPECT_TRUE(r.find("zz").empty());
  EXPECT_STREQ(r.first_element().next_element().get_name(), "b");
  EXPECT_TRUE(r.parent().empty());  // the document is not a node
  EXPECT_EQ(r.find("b").parent(), r);
  std::string s;
  EXPECT_TRUE(r.child_content("a", s));
  EXPECT_EQ(s, "");
  EXPECT_FALSE(r.child_content("zz", s));
}

// Inserting copies from any tree; the source stays where it was, and the
// copy outlives the source's tree.
TEST(XmlNode, InsertionCopiesAcrossTrees) {
  xml::node list("list");
  list.append_element("b");
  xml::node inserted;
  {
    xml::document other = parse("<src><a x='1'><deep/></a></src>");
    xml::node a = other.get_root_node().find("a");
    inserted = list.insert_before(list.find("b"), a);
    list.insert_after(list.find("b"), a).set_attribute("x", "2");
    list.append_child(a).set_attribute("x", "3");
    EXPECT_EQ(other.get_root_node().elements().size(), 1u);  // source untouched
    EXPECT_EQ(a.get_attribute("x"), "1");
  }
  EXPECT_EQ(names(list.children()), "a b a a ");
  EXPECT_EQ(inserted.parent(), list);
  EXPECT_FALSE(inserted.find("deep").empty());
  EXPECT_EQ(list.elements()[2].get_attribute("x"), "2");
  EXPECT_EQ(list.elements()[3].get_attribute("x"), "3");
}

// Inserting a node into its own subtree must not create a cycle.
TEST(XmlNode, InsertIntoOwnDescendant) {
  xml::document d = parse("<r><a><b/></a></r>");
  xml::node r = d.get_root_node();
  xml::node b = r.find("a").find("b");
  b.append_child(r);
  EXPECT_EQ(d.get_root_node().to_string(), "<r><a><b><r><a><b/></a></r></b></a></r>");
}

TEST(XmlNode, AppendedTextMergesWithNeighbour) {
  xml::node n("t", "ab");
  xml::node text = xml::node("x", "cd").first_child();
  xml::node merged = n.append_child(text);
  EXPECT_EQ(n.children().size(), 1u);
  EXPECT_TRUE(merged.is_text());
  EXPECT_EQ(merged.get_content(), "abcd");
}

TEST(XmlNode, ReplaceEraseClear) {
  xml::document d = parse("<r><a/><b/><c/></r>");
  xml::node r = d.get_root_node();
  xml::node z = r.replace_child(r.find("b"), xml::node("z", "new"));
  EXPECT_EQ(names(r.children()), "a z c ");
  EXPECT_EQ(z.get_content(), "new");
  r.erase_child(r.find("a"));
  EXPECT_EQ(names(r.children()), "z c ");
  r.clear_children();
  EXPECT_TRUE(r.children().empty());
  EXPECT_EQ(r.to_string(), "<r/>");
}

TEST(XmlNode, DeepCopyIsIndependent) {
  xml::document d = parse("<r a='1'><c>t</c></r>");
  xml::node copy = d.get_root_node().deep_copy();
  copy.set_attribute("a", "2");
  copy.find("c").set_content("u");
  EXPECT_EQ(d.get_root_node().to_string(), "<r a=\"1\"><c>t</c></r>");
  EXPECT_EQ(copy.to_string(), "<r a=\"2\"><c>u</c></r>");
  EXPECT_TRUE(copy.parent().empty());
  // A handle keeps its tree alive after every document handle is gone.
  xml::node kept;
  { kept = parse("<k><v>1</v></k>").get_root_node().find("v"); }
  EXPECT_EQ(kept.get_content(), "1");
}

}  // namespace
