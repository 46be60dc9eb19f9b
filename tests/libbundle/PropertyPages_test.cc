#include "libbundle/PropertyPages.h"

#include <archive.h>
#include <archive_entry.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ConfTestUtil.h"
#include "libbundle/BundlePaths.h"
#include "libbundle/ExpandedStanzaName.h"
#include "libbundle/SubstituteEnvs.h"

using conftest::dump;
using conftest::readFile;
using conftest::TempHome;

namespace {

PropertiesMap mapOf(std::initializer_list<std::pair<const char*, const char*>> kv) {
  PropertiesMap m;
  for (auto& [k, v] : kv) m.put(k, v);
  return m;
}

std::string layered(PropertyPages& pages, const char* path, bool useRegex = false) {
  PropertiesMap dest;
  pages.fillLayers(dest, path, useRegex);
  dest.erase("_raw");
  SettingsMap s;
  s["r"].copy(dest);
  return dump(s);
}

void writeBundleArchive(const std::string& path, const std::string& entry, const std::string& data) {
  archive* a = archive_write_new();
  archive_write_set_format_zip(a);
  archive_write_open_filename(a, path.c_str());
  archive_entry* e = archive_entry_new();
  archive_entry_set_pathname(e, entry.c_str());
  archive_entry_set_size(e, (la_int64_t)data.size());
  archive_entry_set_filetype(e, AE_IFREG);
  archive_entry_set_perm(e, 0644);
  archive_write_header(a, e);
  archive_write_data(a, data.data(), data.size());
  archive_entry_free(e);
  archive_write_close(a);
  archive_write_free(a);
}

}  // namespace

TEST(PropertyPagesLayers, OrderAndSkippedBundles) {
  TempHome home;
  for (const char* b : {"local", "default", "learned", "bbb", "aaa", "Zed", "foo.disabled", "a.disabled.b", ".hidden"}) {
    home.write(b, "props.conf", std::string("[s]\nfrom = ") + b + "\n");
  }
  writeBundleArchive(home.bundle("zip.bundle"), "zip/props.conf", "[s]\nfrom = zip\n");
  conftest::writeFile(home.bundle("notes.txt"), "[s]\nfrom = notes\n");

  PropertyPages pages("props");
  pages.updateConfigs();
  EXPECT_EQ(pages.getBundleNames(),
            (std::vector<Str>{"local", "Zed", "aaa", "bbb", "zip.bundle", "default", "learned"}));
  EXPECT_STREQ(pages.get("s")->get("from"), "local");
  EXPECT_EQ(pages.get("nothing"), nullptr);
}

TEST(PropertyPagesLayers, FillLayersPrecedence) {
  TempHome home;
  home.write("local", "props.conf",
             "[sourcetype]\nk = local-st\nx = foo$+\nshort = $+\nempty =\n"
             "[host::h]\nlist = a,$+\n");
  home.write("mid", "props.conf", "[host::h]\nlist = b,$+\n[sourcetype]\nonlymid = m\n");
  home.write("default", "props.conf",
             "[default]\nk = default-default\nd = dd\n"
             "[host::h]\nk = default-host\nlist = c\n"
             "[sourcetype]\nx = bar\nshort = bar\nempty = hidden\n");
  home.write("learned", "props.conf", "[default]\nd = learned\nl = learned\n[sourcetype]\nk = learned\n");
  PropertyPages pages("props");
  pages.updateConfigs();

  struct Row {
    const char* path;
    const char* expected;
  } rows[] = {
      // Name first, bundle second: host::h from default beats sourcetype from local.
      {"host::h|sourcetype",
       "r{d=dd;empty=;k=default-host;l=learned;list=a,b,c;onlymid=m;short=$+;x=foobar}"},
      {"sourcetype|host::h",
       "r{d=dd;empty=;k=local-st;l=learned;list=a,b,c;onlymid=m;short=$+;x=foobar}"},
      // A record's path names its type "sourcetype::x"; the head [sourcetype::x]
      // was read as [x], and the lookup finds it either way.
      {"sourcetype::sourcetype",
       "r{d=dd;empty=;k=local-st;l=learned;onlymid=m;short=$+;x=foobar}"},
      // Empty names are passed over; defaults come last even with no stanza.
      {"||", "r{d=dd;k=default-default;l=learned}"},
      {"unknown", "r{d=dd;k=default-default;l=learned}"},
  };
  for (const Row& row : rows) EXPECT_EQ(layered(pages, row.path), row.expected) << row.path;

  PropertiesMap merged;
  pages.fillLayers(merged, "sourcetype", false);
  EXPECT_EQ(PropertyPages::layeredFind("empty", merged), nullptr);  // empty hides "hidden"
  Str s;
  EXPECT_FALSE(PropertyPages::layeredFind("empty", merged, s));
  EXPECT_TRUE(PropertyPages::layeredFind("x", merged, s));
  EXPECT_EQ(s, "foobar");
}

TEST(PropertyPagesLayers, LongNamesAreCut) {
  TempHome home;
  std::string name(2047, 'n');
  home.write("default", "props.conf", "[" + name + "]\nk = v\n");
  PropertyPages pages("props");
  pages.updateConfigs();
  EXPECT_EQ(layered(pages, (name + "EXTRA").c_str()), "r{k=v}");
}

TEST(PropertyPagesLayers, PatternsThroughFillLayers) {
  TempHome home;
  home.write("default", "props.conf", "[source::/var/log/.../*.log]\nkind = log\n");
  PropertyPages pages("props");
  pages.updateConfigs();
  EXPECT_EQ(layered(pages, "source::/var/log/app/x.log", true), "r{kind=log}");
  testing::internal::CaptureStderr();
  EXPECT_EQ(layered(pages, "source::/var/log/app/x.log", false), "r{}");
  EXPECT_NE(testing::internal::GetCapturedStderr().find("loading properties failure: source::/var/log/app/x.log"),
            std::string::npos);
}

TEST(PropertyPagesLayers, ByPrefixMergesAndNamesSources) {
  TempHome home;
  home.write("local", "inputs.conf", "[default]\nhost = here\n[script://./bin/a.sh]\ninterval = 5\n[monitor:///x]\nk = local\n");
  home.write("default", "inputs.conf", "[default]\nindex = main\nhost = there\n[monitor:///x]\nk = default\nj = 1\n");
  PropertyPages pages("inputs");
  pages.updateConfigs();

  SettingsMap plain;
  pages.propsByPrefix("monitor://", plain);
  EXPECT_EQ(dump(plain, false), "monitor:///x{host=here;index=main;j=1;k=local}");

  SettingsMap withSources;
  pages.propsObjByPrefix("", withSources);
  std::string script = "script://" + home.bundle("local") + "/bin/a.sh";
  ASSERT_TRUE(withSources.contains(script)) << dump(withSources);
  EXPECT_STREQ(withSources.find(script)->get("host"), "here");
  EXPECT_STREQ(withSources.find(script)->get("index"), "main");
  EXPECT_EQ(Str(withSources.find("monitor:///x")->get("_raw")),
            "# source: " + home.bundle("local") + "/inputs.conf\nk = local\n" +
                "# source: " + home.bundle("default") + "/inputs.conf\nk = default\nj = 1\n");
}

TEST(PropertyPagesWrite, PutLocalEditAndRemoveInherited) {
  TempHome home;
  home.write("default", "server.conf", "[general]\nport = 8089\nname = box\n");
  PropertyPages pages("server");
  pages.updateConfigs();

  // No local bundle yet: putLocal makes it, and the view picks it up.
  ASSERT_TRUE(pages.putLocal("general", mapOf({{"name", "other"}}), true));
  EXPECT_EQ(readFile(home.bundle("local") + "/server.conf"), "[general]\nname = other\n\n");
  EXPECT_EQ(layered(pages, "general"), "r{name=other;port=8089}");

  home.write("local", "server.conf", "[general]\n# keep me\nname = other\n");
  pages.updateConfigs();
  ASSERT_TRUE(pages.putLocal("general", mapOf({{"ssl", "true"}}), false));
  EXPECT_EQ(readFile(home.bundle("local") + "/server.conf"), "[general]\n# keep me\nname = other\nssl = true\n\n");

  PropertiesMap wanted = mapOf({{"port", "8089"}, {"name", "box"}, {"ssl", "false"}});
  pages.removeInherited("general", wanted);
  EXPECT_EQ(wanted.size(), 1u);
  EXPECT_STREQ(wanted.get("ssl"), "false");
}

TEST(PropertyPagesWrite, SaveAllSkipsUntouchedMissingFiles) {
  TempHome home;
  home.write("default", "web.conf", "[settings]\nport = 1\n");
  conftest::writeFile(home.bundle("local") + "/other.conf", "");
  PropertyPages pages("web");
  pages.updateConfigs();
  EXPECT_TRUE(pages.saveAll());
  EXPECT_EQ(access((home.bundle("local") + "/web.conf").c_str(), F_OK), -1);
  EXPECT_EQ(readFile(home.bundle("default") + "/web.conf"), "[settings]\nport = 1\n\n");
}

TEST(PropertyPagesShared, InstancesAndFilesAreShared) {
  TempHome home;
  home.write("default", "transforms.conf", "[t]\nREGEX = x\n");
  PropertyPages& a = PropertyPages::regexInstance();
  EXPECT_EQ(&a, &PropertyPages::instance("transforms"));
  PropertyPages other("transforms");
  other.updateConfigs();
  ASSERT_EQ(other.getConfigs().size(), 1u);
  EXPECT_EQ(other.getConfigs()[0], a.getBundle("default", true));
}

TEST(LayeredFind, Conversions) {
  PropertiesMap m = mapOf({{"n", "42"},
                           {"neg", "-7"},
                           {"big", "99999999999"},
                           {"bad", "12 "},
                           {"empty", ""},
                           {"yes", "YES"},
                           {"one", "1"},
                           {"other", "maybe"},
                           {"env", "$VELMOR_TEST_LF/x"}});
  unsigned long ul = 0;
  long l = 0;
  unsigned int u = 0;
  int i = 0;
  bool b = true;
  EXPECT_TRUE(PropertyPages::layeredFind("n", m, ul) && ul == 42);
  EXPECT_FALSE(PropertyPages::layeredFind("neg", m, ul));
  EXPECT_TRUE(PropertyPages::layeredFind("neg", m, l) && l == -7);
  EXPECT_FALSE(PropertyPages::layeredFind("big", m, u));
  EXPECT_FALSE(PropertyPages::layeredFind("big", m, i));
  EXPECT_TRUE(PropertyPages::layeredFind("big", m, l) && l == 99999999999L);
  EXPECT_FALSE(PropertyPages::layeredFind("bad", m, l));
  EXPECT_FALSE(PropertyPages::layeredFind("empty", m, i));
  EXPECT_FALSE(PropertyPages::layeredFind("missing", m, b));
  EXPECT_TRUE(PropertyPages::layeredFind("yes", m, b) && b);
  EXPECT_TRUE(PropertyPages::layeredFind("one", m, b) && b);
  EXPECT_TRUE(PropertyPages::layeredFind("other", m, b) && !b);
  setenv("VELMOR_TEST_LF", "/opt", 1);
  Str s;
  EXPECT_TRUE(PropertyPages::layeredFind("env", m, s));
  EXPECT_EQ(s, "/opt/x");
  EXPECT_STREQ(PropertyPages::layeredFind("env", m), "$VELMOR_TEST_LF/x");
}

TEST(SubstituteEnvs, Table) {
  setenv("VELMOR_T_A", "alpha", 1);
  setenv("VELMOR_T_EMPTY", "", 1);
  unsetenv("VELMOR_T_UNSET");
  struct Row {
    const char* in;
    const char* out;
  } rows[] = {
      {"$VELMOR_T_A/x", "alpha/x"},
      {"a$VELMOR_T_A$VELMOR_T_A", "aalphaalpha"},
      {"$VELMOR_T_UNSET/x", "$VELMOR_T_UNSET/x"},
      {"${VELMOR_T_A}", "${VELMOR_T_A}"},
      {"cost: 5$", "cost: 5$"},
      {"$ $-", "$ $-"},
      {"[$VELMOR_T_EMPTY]", "[]"},
      {"$VELMOR_T_A.b", "alpha.b"},
      {"no dollar", "no dollar"},
  };
  for (const Row& row : rows) EXPECT_EQ(substituteEnvs(row.in), row.out) << row.in;
}

TEST(ExpandedStanzaName, DotAfterScheme) {
  setenv("VELMOR_T_A", "alpha", 1);
  struct Row {
    const char* in;
    const char* out;
  } rows[] = {
      {"script://./bin/a.sh", "script:///b/bin/a.sh"},
      {"monitor:///var/log", "monitor:///var/log"},
      {"script://x/bin", "script://x/bin"},
      {"script://.", "script://."},
      {"script://../x", "script://../x"},
      {"a://./x|b://./y", "a:///b/x|b:///b/y"},
      {"script://./$VELMOR_T_A", "script:///b/alpha"},
  };
  for (const Row& row : rows) EXPECT_EQ(ExpandedStanzaName(row.in, Pathname("/b")), row.out) << row.in;

  TempHome home;
  EXPECT_EQ(ExpandedStanzaName("s://./x"), "s://" + home.bundle("local") + "/x");
  EXPECT_EQ(get_bundles_default_path(), home.bundle("default"));
}
