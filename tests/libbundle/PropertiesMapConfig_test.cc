#include "libbundle/PropertiesMapConfig.h"

#include <archive.h>
#include <archive_entry.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <string_view>

#include "ConfTestUtil.h"
#include "libbundle/BundleArchive.h"
#include "libbundle/ConfRawEditor.h"

using namespace std::string_view_literals;
using conftest::dump;
using conftest::readFile;
using conftest::TempDir;
using conftest::writeFile;

namespace {

SettingsMap parse(std::string_view text) {
  FILE* f = fmemopen(const_cast<char*>(text.data()), text.size(), "r");
  if (text.empty()) f = fopen("/dev/null", "r");
  SettingsMap settings;
  PropertiesMapConfig::loadSettings(settings, f);
  fclose(f);
  return settings;
}

struct ParseRow {
  const char* what;
  std::string_view text;
  const char* expected;  // dump() of the settings
};

const ParseRow kParseRows[] = {
    {"bare key goes to default, raw gets its newline", "a=1", "default{_raw=a=1\\n;a=1}"},
    {"empty file still has default", "", "default{_raw=}"},
    {"empty lines are not kept in raw", "\n\na=1\n\n", "default{_raw=a=1\\n;a=1}"},
    {"NUL first byte is an empty line", "\0junk=1\nb=2\n"sv, "default{_raw=b=2\\n;b=2}"},
    {"comments stay in the raw of their stanza", "# top\n; semi\n[s]\n#in s\nk=v\n",
     "default{_raw=# top\\n; semi\\n}s{_raw=#in s\\nk=v\\n;k=v}"},
    {"stanza met twice is continued; first key wins", "[x]\na=1\n[y]\nb=2\n[x]\na=3\nc=4\n",
     "default{_raw=}x{_raw=a=1\\na=3\\nc=4\\n;a=1;c=4}y{_raw=b=2\\n;b=2}"},
    {"first key wins within one stanza", "a=1\na=2\n", "default{_raw=a=1\\na=2\\n;a=1}"},
    {"leading blank: not a head, and no = means no key", "  [x]\n  [x]=1\n",
     "default{[x]=1;_raw=  [x]\\n  [x]=1\\n}"},
    {"sourcetype:: prefix is dropped", "[sourcetype::foo]\na=1\n[foo]\nb=2\n",
     "default{_raw=}foo{_raw=a=1\\nb=2\\n;a=1;b=2}"},
    {"empty name keeps the current stanza", "[s]\n[]\na=1\n", "default{_raw=}s{_raw=[]\\na=1\\n;a=1}"},
    {"name runs to the last ]", "[a]b] trailing\nk=v\n", "a]b{_raw=k=v\\n;k=v}default{_raw=}"},
    {"missing ] reads to end of line", "[abc\nk=v\n", "abc{_raw=k=v\\n;k=v}default{_raw=}"},
    {"key and value are stripped, # is part of the value", "  k  =  v # not a comment \t\n",
     "default{_raw=  k  =  v # not a comment \t\\n;k=v # not a comment}"},
    {"only the first = splits", "k=a=b\n", "default{_raw=k=a=b\\n;k=a=b}"},
    {"empty key is ignored", " = 5\n", "default{_raw= = 5\\n}"},
    {"empty value is a value", "k=\n", "default{_raw=k=\\n;k=}"},
    {"continuation with backslash-newline", "a = b\\\n  c\nd=1\n",
     "default{_raw=a = b\\\\n  c\\nd=1\\n;a=b\\n  c;d=1}"},
    {"continuation with backslash-CR-newline", "a = b\\\r\n c\r\n",
     "default{_raw=a = b\\\\r\\n c\\r\\n;a=b\\n c}"},
    {"continued line is taken whole, whatever it is", "x=1\\\n[s]\ny=2\n",
     "default{_raw=x=1\\\\n[s]\\ny=2\\n;x=1\\n[s];y=2}"},
    {"a lone backslash continues too", "x=\\\ny=2\n", "default{_raw=x=\\\\ny=2\\n;x=y=2}"},
    {"continuation at end of file", "x=a\\\n", "default{_raw=x=a\\\\n;x=a}"},
    {"lines without = are kept in raw only", "[s]\njust words\nk=v\n",
     "default{_raw=}s{_raw=just words\\nk=v\\n;k=v}"},
    {"explicit default stanza continues the keys before any head", "a=1\n[default]\nb=2\na=3\n",
     "default{_raw=a=1\\nb=2\\na=3\\n;a=1;b=2}"},
    {"_raw in the file is not a key", "_raw=x\n", "default{_raw=_raw=x\\n}"},
};

}  // namespace

TEST(ConfParse, Table) {
  for (const ParseRow& row : kParseRows) {
    EXPECT_EQ(dump(parse(row.text)), row.expected) << row.what;
  }
}

TEST(ConfParse, LongLineIsCutAtTheBuffer) {
  // fgets reads 65533 bytes at a time: "a=" and 65531 x's, then the rest of
  // the line is a line of its own (no "=", so no key).
  std::string text = "a=" + std::string(70000, 'x') + "\nb=1\n";
  SettingsMap s = parse(text);
  const PropertiesMap* def = s.find("default");
  ASSERT_NE(def, nullptr);
  EXPECT_EQ(strlen(def->get("a")), 65531u);
  EXPECT_STREQ(def->get("b"), "1");
  // Both pieces are in raw, each with a newline.
  EXPECT_EQ(strlen(def->get("_raw")), 70000u + 2 + 2 + 4);
}

TEST(ConfParse, MissingBracketWarns) {
  testing::internal::CaptureStderr();
  parse("[abc\n");
  EXPECT_NE(testing::internal::GetCapturedStderr().find("Missing ] for [abc, reading to EOL"), std::string::npos);
}

// --- put / edit regenerate the raw text ------------------------------------

namespace {

PropertiesMap mapOf(std::initializer_list<std::pair<const char*, const char*>> kv) {
  PropertiesMap m;
  for (auto& [k, v] : kv) m.put(k, v);
  return m;
}

struct RawRow {
  const char* what;
  const char* oldRaw;
  PropertiesMap map;
  bool dropAbsent;
  const char* newRaw;
  const char* warning;  // expected on stderr, or ""
};

}  // namespace

TEST(ConfRawEditor, Table) {
  const RawRow rows[] = {
      {"value replaced in place, comment kept", "# c\na = 1\nb=2\n", mapOf({{"a", "9"}}), false,
       "# c\na = 9\nb=2\n", ""},
      {"key kept as written, blanks in front too", "  [x]=1\nk\t= 2\n", mapOf({{"[x]", "9"}, {"k", "3"}}), true,
       "  [x] = 9\nk = 3\n", ""},
      {"put drops keys the map lacks", "a=1\nb=2\n", mapOf({{"a", "1"}}), true, "a = 1\n", ""},
      {"new key added at the end", "a=1\n", mapOf({{"z", "26"}}), false, "a=1\nz = 26\n", ""},
      {"only the first occurrence is replaced", "a=1\na=2\n", mapOf({{"a", "3"}}), true, "a = 3\na=2\n", ""},
      {"newlines in values are escaped", "", mapOf({{"a", "x\ny"}}), false, "a = x\\\ny\n", ""},
      {"values are stripped; a final backslash gets a blank", "",
       mapOf({{"a", " x\n"}, {"b", "C:\\"}}), false, "a = x\nb = C:\\ \n", ""},
      {"continued line replaced as one", "a = x\\\n  y\nb=1\n", mapOf({{"a", "z"}}), false, "a = z\nb=1\n", ""},
      {"line without = is dropped", "[]\na=1\n", mapOf({}), false, "a=1\n", "missing '=' in conf line: []"},
      {"empty key is dropped", " =5\na=1\n", mapOf({}), false, "a=1\n", "empty key in conf line:  =5"},
      {"_raw of the map is not a key", "a=1\n", mapOf({{"_raw", "zzz"}}), false, "a=1\n", ""},
  };
  for (const RawRow& row : rows) {
    testing::internal::CaptureStderr();
    Str got = ConfRawEditor::regenerate(row.oldRaw, row.map, row.dropAbsent);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(got, row.newRaw) << row.what;
    if (*row.warning) {
      EXPECT_NE(err.find(row.warning), std::string::npos) << row.what << ": " << err;
    }
  }
}

// --- files: load, put, edit, save ------------------------------------------

TEST(PropertiesMapConfigFile, PutEditSaveRoundTrip) {
  TempDir dir;
  std::string conf = dir / "b/props.conf";
  writeFile(conf, "# head comment\ntop = 1\n[s]\n# about k\nk = old\nkeep = yes\n[t]\nx=1\n");
  auto cfg = PropertiesMapConfig::fromFile(conf, false);

  cfg->edit("s", mapOf({{"k", "new"}, {"added", "a\nb"}}));
  cfg->put("t", mapOf({{"y", "2"}}));
  cfg->put("u", mapOf({{"z", "3"}}));
  ASSERT_TRUE(cfg->save());

  EXPECT_EQ(readFile(conf),
            "# head comment\ntop = 1\n"
            "[s]\n# about k\nk = new\nkeep = yes\nadded = a\\\nb\n\n"
            "[t]\ny = 2\n\n"
            "[u]\nz = 3\n\n");
  EXPECT_FALSE(access((conf + ".tmp").c_str(), F_OK) == 0);

  // Reading the saved file back gives the same stanzas and raw texts.
  SettingsMap before, after;
  cfg->getSettings(before);
  auto again = PropertiesMapConfig::fromFile(conf, false);
  again->getSettings(after);
  EXPECT_EQ(dump(after), dump(before));
  EXPECT_STREQ(again->get("s", false)->get("added"), "a\nb");
  EXPECT_EQ(again->get("t", false)->get("x"), nullptr);
}

TEST(PropertiesMapConfigFile, SaveCreatesTheBundleDirectory) {
  TempDir dir;
  PropertiesMapConfig cfg(Pathname(dir / "bundles/newbundle"), "inputs", false);
  EXPECT_EQ(cfg.size(), 1u);  // just "default"
  cfg.put("monitor:///var/log", mapOf({{"disabled", "false"}}));
  ASSERT_TRUE(cfg.save());
  EXPECT_EQ(readFile(dir / "bundles/newbundle/inputs.conf"), "[monitor:///var/log]\ndisabled = false\n\n");
}

TEST(PropertiesMapConfigFile, FailedSaveLeavesTheOldFile) {
  TempDir dir;
  std::string conf = dir / "b/props.conf";
  writeFile(conf, "a=1\n");
  auto cfg = PropertiesMapConfig::fromFile(conf, false);
  cfg->put("x", mapOf({{"k", "v"}}));
  // A directory where the temporary file must go makes the write fail
  // (whatever the privileges of the test).
  ASSERT_EQ(mkdir((conf + ".tmp").c_str(), 0755), 0);
  testing::internal::CaptureStderr();
  EXPECT_FALSE(cfg->save());
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("Properties file (" + conf + ") cannot be written."), std::string::npos) << err;
  EXPECT_EQ(readFile(conf), "a=1\n");
}

TEST(PropertiesMapConfigFile, MissingFileIsEmptyAndReloadSeesChanges) {
  TempDir dir;
  std::string conf = dir / "b/props.conf";
  auto cfg = PropertiesMapConfig::fromFile(conf, false);
  SettingsMap s;
  cfg->getSettings(s);
  EXPECT_EQ(dump(s), "default{}");
  EXPECT_FALSE(cfg->reloadIfChanged());
  writeFile(conf, "[s]\nk=v\n");
  EXPECT_TRUE(cfg->reloadIfChanged());
  EXPECT_TRUE(cfg->propsExist("s"));
  EXPECT_FALSE(cfg->reloadIfChanged());
}

// --- overlay ---------------------------------------------------------------

TEST(Overlay, Rules) {
  struct Row {
    const char* what;
    PropertiesMap dest, src;
    bool mergeRaw;
    const char* expected;
  };
  const Row rows[] = {
      {"absent keys are added, present ones kept", mapOf({{"a", "1"}}), mapOf({{"a", "2"}, {"b", "3"}}), false,
       "a=1;b=3"},
      {"$+ extends with the lower value", mapOf({{"x", "foo$+"}}), mapOf({{"x", "bar"}}), false, "x=foobar"},
      {"$+ alone is too short to count", mapOf({{"x", "$+"}}), mapOf({{"x", "bar"}}), false, "x=$+"},
      {"shortest extension", mapOf({{"x", "a$+"}}), mapOf({{"x", "b"}}), false, "x=ab"},
      {"extension can chain on", mapOf({{"x", "a$+"}}), mapOf({{"x", "b$+"}}), false, "x=ab$+"},
      {"empty value hides the lower one", mapOf({{"x", ""}}), mapOf({{"x", "bar"}}), false, "x="},
      {"raw merged only when asked", mapOf({{"_raw", "A\n"}}), mapOf({{"_raw", "B\n"}}), true, "_raw=A\\nB\\n"},
      {"raw kept otherwise", mapOf({{"_raw", "A\n"}}), mapOf({{"_raw", "B\n"}}), false, "_raw=A\\n"},
  };
  for (const Row& row : rows) {
    PropertiesMap dest;
    dest.copy(row.dest);
    PropertiesMapConfig::overlay(dest, row.src, row.mergeRaw);
    SettingsMap s;
    s["r"].copy(dest);
    EXPECT_EQ(dump(s), std::string("r{") + row.expected + "}") << row.what;
  }
}

// --- pattern stanzas -------------------------------------------------------

TEST(PatternStanzas, WholeNameMatchesInByteOrder) {
  TempDir dir;
  std::string conf = dir / "b/props.conf";
  writeFile(conf,
            "[source::/var/log/.../*.log]\nwhich = deep\n"
            "[source::/var/log/*.log]\nwhich = shallow\n"
            "[source::/var/log/exact.log]\nwhich = exact\n"
            "[source::/srv/(a|b)/*.txt]\nwhich = group\n");
  testing::internal::CaptureStderr();
  auto cfg = PropertiesMapConfig::fromFile(conf, true);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("Expanded file pattern source::/var/log/*.log into source::/var/log/[^/]*\\.log"),
            std::string::npos)
      << err;

  struct Row {
    const char* name;
    bool useRegex;
    const char* which;  // null: no stanza
  } rows[] = {
      {"source::/var/log/exact.log", true, "exact"},
      // "source::/var/log/*.log" sorts before "source::/var/log/.../*.log".
      {"source::/var/log/a.log", true, "shallow"},
      {"source::/var/log/a/b/c.log", true, "deep"},
      {"source::/var/log/a/b/c.log", false, nullptr},
      {"source::/var/log/a.log.1", true, nullptr},
      {"source::/var/logXa.log", true, nullptr},
      {"xsource::/var/log/a.log", true, nullptr},
      {"source::/srv/b/x.txt", true, "group"},
      {"source::/srv/c/x.txt", true, nullptr},
  };
  for (const Row& row : rows) {
    PropertiesMap* m = cfg->get(row.name, row.useRegex);
    if (row.which == nullptr) {
      EXPECT_EQ(m, nullptr) << row.name;
    } else {
      ASSERT_NE(m, nullptr) << row.name;
      EXPECT_STREQ(m->get("which"), row.which) << row.name;
    }
  }
}

TEST(PatternStanzas, LiteralPrefix) {
  EXPECT_EQ(PropertiesMapConfig::patternLiteralPrefix("source::/var/log/.../*.log"), "source::/var/log/");
  EXPECT_EQ(PropertiesMapConfig::patternLiteralPrefix("source::/a.b/*.log"), "source::/a.b/");
  EXPECT_EQ(PropertiesMapConfig::patternLiteralPrefix("source::/srv/(a|b)/*"), "source::/srv/");
  EXPECT_EQ(PropertiesMapConfig::patternLiteralPrefix("host::web[0-9]*"), "host::web");
  EXPECT_EQ(PropertiesMapConfig::patternLiteralPrefix("*"), "");
}

TEST(PatternStanzas, InvalidPatternStaysAPlainStanza) {
  TempDir dir;
  std::string conf = dir / "b/props.conf";
  writeFile(conf, "[source::/x/(*.log]\nk=v\n");
  testing::internal::CaptureStderr();
  auto cfg = PropertiesMapConfig::fromFile(conf, true);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("Ignoring invalid file pattern \"source::/x/(*.log\": "), std::string::npos) << err;
  EXPECT_NE(cfg->get("source::/x/(*.log", true), nullptr);
  EXPECT_EQ(cfg->get("source::/x/(a.log", true), nullptr);
}

// --- archives --------------------------------------------------------------

namespace {

void writeArchive(const std::string& path, const std::vector<std::pair<std::string, std::string>>& entries) {
  archive* a = archive_write_new();
  archive_write_add_filter_gzip(a);
  archive_write_set_format_pax_restricted(a);
  ASSERT_EQ(archive_write_open_filename(a, path.c_str()), ARCHIVE_OK);
  for (const auto& [name, data] : entries) {
    archive_entry* e = archive_entry_new();
    archive_entry_set_pathname(e, name.c_str());
    archive_entry_set_size(e, (la_int64_t)data.size());
    archive_entry_set_filetype(e, AE_IFREG);
    archive_entry_set_perm(e, 0644);
    archive_write_header(a, e);
    archive_write_data(a, data.data(), data.size());
    archive_entry_free(e);
  }
  archive_write_close(a);
  archive_write_free(a);
}

}  // namespace

TEST(BundleArchive, EntryNames) {
  EXPECT_TRUE(BundleArchive::entryMatches("props.conf", "props.conf"));
  EXPECT_TRUE(BundleArchive::entryMatches("a/b/props.conf", "props.conf"));
  EXPECT_FALSE(BundleArchive::entryMatches("a/myprops.conf", "props.conf"));
  EXPECT_FALSE(BundleArchive::entryMatches("props.conf.bak", "props.conf"));
  EXPECT_FALSE(BundleArchive::entryMatches("onf", "props.conf"));
}

TEST(BundleArchive, LoadsEveryMatchingEntry) {
  TempDir dir;
  std::string path = dir / "x.bundle";
  writeArchive(path, {{"x/default/props.conf", "[s]\na=1\n"},
                      {"x/default/transforms.conf", "[t]\nb=2\n"},
                      {"x/local/props.conf", "[s]\na=9\nc=3\n"}});
  PropertiesMapConfig cfg{Pathname(path), "props", false};
  EXPECT_TRUE(cfg.isArchive());
  SettingsMap s;
  cfg.getSettings(s);
  EXPECT_EQ(dump(s, false), "default{}s{a=1;c=3}");
  // An archive cannot be written back.
  testing::internal::CaptureStderr();
  EXPECT_FALSE(cfg.save());
  testing::internal::GetCapturedStderr();
}

TEST(BundleArchive, CorruptArchives) {
  TempDir dir;
  std::string garbage = dir / "garbage.bundle";
  writeFile(garbage, std::string(100, '\x7f') + "not an archive at all");
  testing::internal::CaptureStderr();
  PropertiesMapConfig bad{Pathname(garbage), "props", false};
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("Unable to read archive: " + garbage + " error: "), std::string::npos) << err;
  EXPECT_EQ(bad.size(), 1u);

  // A good header and a cut-off body.
  std::string whole = dir / "whole.bundle";
  // Letters that do not compress away, so that half the file cuts the data.
  std::string body = "[s]\nk=";
  unsigned x = 12345;
  for (int i = 0; i < 200000; ++i) {
    x = x * 1103515245u + 12345u;
    body += (char)('a' + (x >> 16) % 26);
  }
  writeArchive(whole, {{"props.conf", body + "\n"}});
  std::string data = readFile(whole);
  std::string cut = dir / "cut.bundle";
  writeFile(cut, data.substr(0, data.size() / 2));
  testing::internal::CaptureStderr();
  PropertiesMapConfig truncated{Pathname(cut), "props", false};
  err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("Unable to read file in archive: props.conf error: "), std::string::npos) << err;
  EXPECT_FALSE(truncated.propsExist("s"));
}

// Saving writes what was read; reading the result back must give the same
// stanzas, even for the shapes that could change meaning on the way.
TEST(PropertiesMapConfigFile, SaveReadsBackTheSame) {
  const char* texts[] = {
      "x=a\\\n",                                   // default ends in a continuation
      "[sourcetype::sourcetype::odd]\nk=v\n",      // a name that keeps a prefix
      "[s]\n  [x]=1\n",                             // a key that looks like a head
      "# only a comment",                           // no newline at the end
      "[a]b]\nk=v\n[]\nj=w\n",                      // "]" in a name, empty name
      "[sour\r\n[::odd]\nx=a\\\n",                 // a stanza ending in a continuation
  };
  for (const char* text : texts) {
    TempDir dir;
    std::string conf = dir / "b/x.conf";
    writeFile(conf, text);
    auto first = PropertiesMapConfig::fromFile(conf, false);
    first->edit("s", mapOf({{"[x]", "2"}}));
    ASSERT_TRUE(first->save()) << text;
    std::string saved = readFile(conf);
    SettingsMap before, after;
    first->getSettings(before);
    auto second = PropertiesMapConfig::fromFile(conf, false);
    second->getSettings(after);
    EXPECT_EQ(dump(after, false), dump(before, false)) << text;
    ASSERT_TRUE(second->save());
    EXPECT_EQ(readFile(conf), saved) << text;
  }
}
