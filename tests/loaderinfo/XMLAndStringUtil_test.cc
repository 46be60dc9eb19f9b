#include "loaderinfo/XMLAndStringUtil.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "util/RE.h"
#include "util/xml/XmlTreeParser.h"

namespace {

struct RegexCase {
  const char* in;
  const char* out;
  bool changed;
};

TEST(XMLAndStringUtilToRegex, Table) {
  const RegexCase cases[] = {
      {"", "", false},
      {"/var/log/messages", "/var/log/messages", false},
      {"/var/log/*.log", "/var/log/[^/]*\\.log", true},
      {"/var/log/.../*.log", "/var/log/.*/[^/]*\\.log", true},
      {"a.b", "a\\.b", true},
      {"....", ".*\\.", true},
      {"......", ".*.*", true},
      {"...*", ".*[^/]*", true},
      {".*", "\\.[^/]*", true},
      {"**", "[^/]*[^/]*", true},
  };
  for (const auto& c : cases) {
    Str s = c.in;
    EXPECT_EQ(XMLAndStringUtil::toRegex(s), c.changed) << c.in;
    EXPECT_EQ(s, c.out) << c.in;
  }
}

// The produced expressions must compile and match what the pattern means.
TEST(XMLAndStringUtilToRegex, MatchesPaths) {
  Str p = "/var/log/.../*.log";
  XMLAndStringUtil::toRegex(p);
  RE re(p);
  EXPECT_TRUE(re.FullMatch("/var/log/a/b/x.log"));
  EXPECT_TRUE(re.FullMatch("/var/log//x.log"));
  EXPECT_FALSE(re.FullMatch("/var/log/a/xlog"));
  EXPECT_FALSE(re.FullMatch("/var/log/x.log.1"));

  Str q = "/tmp/*.txt";
  XMLAndStringUtil::toRegex(q);
  RE rq(q);
  EXPECT_TRUE(rq.FullMatch("/tmp/a.txt"));
  EXPECT_FALSE(rq.FullMatch("/tmp/d/a.txt"));
}

xml::node parse(const std::string& text) {
  xml::tree_parser p(text.data(), text.size());
  return p.get_document().get_root_node();
}

// Each child of the settings node read as every type; "-" marks a failure.
TEST(XMLAndStringUtilFetchValue, Table) {
  xml::node settings = parse(
      "<config><s> spaced </s><t>TRUE</t><y> yes </y><z>0</z><bad>maybe</bad>"
      "<n>-42</n><big>9999999999</big><trail>12x</trail><empty></empty>"
      "<nested><n>5</n></nested></config>");
  struct Row {
    const char* name;
    const char* asStr;
    const char* asBool;
    const char* asLong;
    const char* asInt;
  };
  const Row rows[] = {
      {"s", " spaced ", "-", "-", "-"},
      {"t", "TRUE", "1", "-", "-"},
      {"y", " yes ", "1", "-", "-"},
      {"z", "0", "0", "0", "0"},
      {"bad", "maybe", "-", "-", "-"},
      {"n", "-42", "-", "-42", "-42"},
      {"big", "9999999999", "-", "9999999999", "-"},
      {"trail", "12x", "-", "-", "-"},
      {"empty", "", "-", "-", "-"},
      {"absent", "-", "-", "-", "-"},
  };
  for (const Row& r : rows) {
    Str s = "-";
    bool b = false;
    long l = 0;
    int i = 0;
    bool okS = XMLAndStringUtil::fetchValue(settings, r.name, s);
    bool okB = XMLAndStringUtil::fetchValue(settings, r.name, b);
    bool okL = XMLAndStringUtil::fetchValue(settings, r.name, l);
    bool okI = XMLAndStringUtil::fetchValue(settings, r.name, i);
    EXPECT_EQ(okS ? s : Str("-"), r.asStr) << r.name;
    EXPECT_EQ(okB ? std::string(b ? "1" : "0") : "-", r.asBool) << r.name;
    EXPECT_EQ(okL ? std::to_string(l) : "-", r.asLong) << r.name;
    EXPECT_EQ(okI ? std::to_string(i) : "-", r.asInt) << r.name;
  }
  // Defaults apply on failure and leave a good value alone; only direct
  // children count.
  long l = 1;
  EXPECT_FALSE(XMLAndStringUtil::fetchValue(settings, "trail", l, 77L));
  EXPECT_EQ(l, 77);
  int i = 1;
  EXPECT_TRUE(XMLAndStringUtil::fetchValue(settings, "z", i, 5));
  EXPECT_EQ(i, 0);
  bool b = false;
  EXPECT_FALSE(XMLAndStringUtil::fetchValue(settings, "bad", b, true));
  EXPECT_TRUE(b);
  Str s;
  EXPECT_FALSE(XMLAndStringUtil::fetchValue(xml::node(), "s", s, Str("dflt")));
  EXPECT_EQ(s, "dflt");
  EXPECT_TRUE(XMLAndStringUtil::fetchValue(settings.find("nested"), "n", i));
  EXPECT_EQ(i, 5);
}

TEST(XMLAndStringUtilSubstitute, TokenTable) {
  const XMLAndStringUtil::TokenMap tokens = {
      {"A", "alpha"},
      {"LOOP", "$$LOOP]]"},
      {"EMPTY", ""},
      {std::string(200, 'n'), "long"},
      {std::string(201, 'n'), "toolong"},
  };
  const std::pair<const char*, const char*> cases[] = {
      {"", ""},
      {"plain $ text $$", "plain $ text $$"},
      {"$$A]]", "alpha"},
      {"x$$A]]y$$A]]z", "xalphayalphaz"},
      {"$$$A]]", "$alpha"},
      {"$$A]]]", "alpha]"},
      {"$$A]", "$$A]"},
      {"$$A] ]", "$$A] ]"},
      {"$$B]]", "$$B]]"},
      {"$$]]", "$$]]"},
      {"$$LOOP]]!", "$$LOOP]]!"},  // replaced once, not re-scanned
      {"[$$EMPTY]]]", "[]"},
      {"$$a]]", "$$a]]"},  // names are case sensitive
  };
  for (const auto& [in, out] : cases) {
    Str text = in;
    bool changed = XMLAndStringUtil::substituteTokens(text, tokens);
    EXPECT_EQ(text, out) << in;
    EXPECT_EQ(changed, std::string(in) != out || std::string(in).find("LOOP") != std::string::npos)
        << in;
  }
  Str longName = "$$" + std::string(200, 'n') + "]]";
  XMLAndStringUtil::substituteTokens(longName, tokens);
  EXPECT_EQ(longName, "long");
  Str tooLong = "$$" + std::string(201, 'n') + "]]";
  EXPECT_FALSE(XMLAndStringUtil::substituteTokens(tooLong, tokens));
}

TEST(XMLAndStringUtilSubstitute, TreeAttributesTextAndCdata) {
  xml::node root = parse(
      "<r a='$$A]]' b='keep'><!--$$A]]--><c>$$A]] &amp; <![CDATA[$$A]]<]]></c>"
      "<d x='$$A]]$$A]]'/></r>");
  XMLAndStringUtil::substituteNode(root, {{"A", "<&>"}});
  EXPECT_EQ(root.to_string(),
            "<r a=\"&lt;&amp;&gt;\" b=\"keep\"><!--$$A]]--><c>&lt;&amp;&gt; &amp; "
            "<![CDATA[<&><]]></c><d x=\"&lt;&amp;&gt;&lt;&amp;&gt;\"/></r>");
}

TEST(XMLAndStringUtilEnvCache, SnapshotAndOverrides) {
  setenv("VELMOR_ENV_CACHE_TEST", "before", 1);
  XMLAndStringUtil::set_env_cache();
  setenv("VELMOR_ENV_CACHE_TEST", "after", 1);  // not seen until the next snapshot
  XMLAndStringUtil::set_env_cache("VELMOR_ENV_CACHE_NEW", "v=1");
  XMLAndStringUtil::set_env_cache("VELMOR_ENV_CACHE", "prefix only");
  auto count = [](const std::vector<Str>& env, const std::string& entry) {
    size_t n = 0;
    for (const Str& e : env) n += e == entry;
    return n;
  };
  std::vector<Str> env = XMLAndStringUtil::get_env_cache();
  EXPECT_EQ(count(env, "VELMOR_ENV_CACHE_TEST=before"), 1u);
  EXPECT_EQ(count(env, "VELMOR_ENV_CACHE_NEW=v=1"), 1u);
  EXPECT_EQ(count(env, "VELMOR_ENV_CACHE=prefix only"), 1u);
  EXPECT_EQ(getenv("VELMOR_ENV_CACHE_NEW"), nullptr);

  XMLAndStringUtil::set_env_cache("VELMOR_ENV_CACHE_TEST", "override");
  env = XMLAndStringUtil::get_env_cache();
  EXPECT_EQ(count(env, "VELMOR_ENV_CACHE_TEST=override"), 1u);
  EXPECT_EQ(count(env, "VELMOR_ENV_CACHE_TEST=before"), 0u);

  XMLAndStringUtil::set_env_cache();
  env = XMLAndStringUtil::get_env_cache();
  EXPECT_EQ(count(env, "VELMOR_ENV_CACHE_TEST=after"), 1u);
  EXPECT_EQ(count(env, "VELMOR_ENV_CACHE_NEW=v=1"), 0u);
  unsetenv("VELMOR_ENV_CACHE_TEST");
}

}  // namespace
