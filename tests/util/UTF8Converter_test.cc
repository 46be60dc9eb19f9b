#include "util/UTF8Converter.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>

namespace {

struct Sample {
  const char* charset;
  std::string in;
  std::string utf8;
};

// Known text in each kind of charset, with its UTF-8 form.
const Sample kSamples[] = {
    {"ISO-8859-1", "caf\xe9 \xff", "caf\xc3\xa9 \xc3\xbf"},
    {"windows-1252", "\x80 5 \x93q\x94", "\xe2\x82\xac 5 \xe2\x80\x9cq\xe2\x80\x9d"},
    {"850", "\x82t\x82", "\xc3\xa9t\xc3\xa9"},
    {"KOI8-R", "\xf0\xd2\xc9\xd7\xc5\xd4", "\xd0\x9f\xd1\x80\xd0\xb8\xd0\xb2\xd0\xb5\xd1\x82"},
    {"IBM037", "\xc8\x85\x93\x93\x96", "Hello"},
    {"x0201", "\x5c\xb1", "\xc2\xa5\xe3\x82\xa2"},  // katakana as full-width
    {"Shift_JIS", "a\x93\xfa\x96\x7b", "a\xe6\x97\xa5\xe6\x9c\xac"},
    {"EUC-JP", "\xc6\xfc\xcb\xdc\x8e\xb1\x8f\xb0\xa1!",
     "\xe6\x97\xa5\xe6\x9c\xac\xef\xbd\xb1\xe4\xb8\x82!"},
    {"big5", "\xa4\xa4\xa4\xe5", "\xe4\xb8\xad\xe6\x96\x87"},
    {"GB2312", "\xd6\xd0\xce\xc4", "\xe4\xb8\xad\xe6\x96\x87"},
    {"gb18030", std::string("\xd6\xd0\x81\x30\x81\x30\x90\x30\x81\x30\x95\x32\x82\x36\xa2\xe3"),
     "\xe4\xb8\xad\xc2\x80\xf0\x90\x80\x80\xf0\xa0\x80\x80\xe2\x82\xac"},
    {"EUC-KR", "\xc7\xd1\xb1\xdb", "\xed\x95\x9c\xea\xb8\x80"},
    {"cp949", "\x8c\x63", "\xeb\x98\xa0"},
    {"UTF-8", "a\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80", "a\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80"},
    {"UTF-16LE", std::string("h\0\xe9\0\x3d\xd8\x00\xde", 8), "h\xc3\xa9\xf0\x9f\x98\x80"},
    {"UTF-16BE", std::string("\0h\xd8\x3d\xde\x00", 6), "h\xf0\x9f\x98\x80"},
    {"UTF-16", std::string("\xff\xfeh\0i\0", 6), "hi"},  // reversed BOM flips to LE
    {"UTF-32LE", std::string("\x00\xf6\x01\x00h\0\0\0", 8), "\xf0\x9f\x98\x80h"},
    {"UTF-32BE", std::string("\0\0\xfe\xff\0\0\0h", 8), "h"},
    {"UCS-2", std::string("\xe9\0\x3d\xd8\x00\xde", 6), "\xc3\xa9"},  // no surrogate pairs
};

std::string convertAll(const char* charset, const std::string& in) {
  UTF8Converter c;
  EXPECT_TRUE(c.setCharset(charset)) << charset;
  Str out;
  c.convert(in.data(), in.size(), out);
  return out;
}

}  // namespace

TEST(UTF8Converter, KnownTextInEveryEngine) {
  std::set<UTF8Engine> engines;
  for (const Sample& s : kSamples) {
    SCOPED_TRACE(s.charset);
    EXPECT_EQ(convertAll(s.charset, s.in), s.utf8);
    UTF8Converter::Spec spec;
    ASSERT_TRUE(UTF8Converter::find_engine(spec, s.charset));
    engines.insert(spec.engine);
  }
  EXPECT_EQ(engines.size(), 9u);
}

TEST(UTF8Converter, InputSplitAtEveryBytePosition) {
  for (const Sample& s : kSamples) {
    for (size_t cut = 0; cut <= s.in.size(); ++cut) {
      SCOPED_TRACE(std::string(s.charset) + " cut at " + std::to_string(cut));
      UTF8Converter c;
      ASSERT_TRUE(c.setCharset(s.charset));
      Str out;
      c.convert(s.in.data(), cut, out);
      EXPECT_LE(c.pending().size(), 3u);
      c.convert(s.in.data() + cut, s.in.size() - cut, out);
      EXPECT_EQ(out, s.utf8);
      EXPECT_TRUE(c.pending().empty());
    }
    // And one byte per call.
    UTF8Converter c;
    ASSERT_TRUE(c.setCharset(s.charset));
    Str out;
    for (char b : s.in) {
      c.convert(&b, 1, out);
      EXPECT_LE(c.pending().size(), 3u);
    }
    EXPECT_EQ(out, s.utf8) << s.charset << " byte by byte";
  }
}

TEST(UTF8Converter, InvalidSequencesAreDropped) {
  struct Case {
    const char* charset;
    std::string in;
    std::string out;
  } cases[] = {
      // overlong, surrogate, above U+10FFFF, stray continuation, bad lead
      {"utf8", "a\xc0\xaf" "b\xed\xa0\x80" "c\xf4\x90\x80\x80" "d\x80" "e\xff", "abcde"},
      {"utf8", "x\xe2\x82y", "xy"},                         // truncated in the middle
      {"cp1252", "a\x81\x8d\x8f\x90\x9d" "b", "ab"},         // unmapped bytes
      {"ascii", "a\x80\xff" "b", "ab"},
      {"big5", "\xa4 A", " A"},                            // bad trail: lead dropped, trail kept
      {"sjis", "\x81\x7f" "z", "\x7fz"},
      {"gb18030", std::string("\x81\x30\x20\x30" "k", 5), "0 0k"},  // bad third byte
      {"utf16le", std::string("\x00\xd8" "a\0", 4), "a"},  // high surrogate without its pair
      {"utf16le", std::string("\x00\xdc" "a\0", 4), "a"},  // lone low surrogate
      {"utf32be", std::string("\0\x11\0\0\0\0\xd8\0\0\0\0b", 12), "b"},
      {"ucs2", std::string("\xfe\xff\0a", 4), "a"},         // reversed BOM: big-endian
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.charset);
    EXPECT_EQ(convertAll(c.charset, c.in), c.out);
  }
}

TEST(UTF8Converter, ByteOrderMarkOnlyAtTheStart) {
  UTF8Converter c;
  ASSERT_TRUE(c.setCharset("utf-16le"));
  Str out;
  std::string bom("\xff\xfe", 2), a("a\0", 2);
  c.convert(bom.data(), 2, out);
  c.convert(a.data(), 2, out);
  c.convert(bom.data(), 2, out);  // a later U+FEFF is text
  EXPECT_EQ(out, "a\xef\xbb\xbf");
  c.reset();
  out.clear();
  c.convert(bom.data(), 2, out);
  EXPECT_EQ(out, "");
  // A partial unit at the end is held, then a reset drops it.
  c.convert("b", 1, out);
  EXPECT_EQ(c.pending(), "b");
  c.reset();
  EXPECT_TRUE(c.pending().empty());
}

TEST(UTF8Converter, AliasTable) {
  EXPECT_EQ(UTF8Converter::aliasCount(), 275u);
  std::set<const UTF8Table*> tables;
  std::set<UTF8Engine> engines;
  for (size_t i = 0; i < generated_UTF8FindEngine_size; ++i) {
    const UTF8FindEngineRow& r = generated_UTF8FindEngine_rows[i];
    if (i > 0) {
      EXPECT_LT(std::strcmp(generated_UTF8FindEngine_rows[i - 1].name, r.name), 0) << r.name;
    }
    EXPECT_EQ(UTF8Converter::normalizeName(r.name), r.name);
    EXPECT_EQ(r.table == nullptr, r.engine >= UTF8_ENGINE_UTF8) << r.name;
    if (r.table) tables.insert(r.table);
    engines.insert(r.engine);
    UTF8Converter::Spec spec;
    EXPECT_TRUE(UTF8Converter::find_engine(spec, r.name));
    EXPECT_EQ(spec.table, r.table);
  }
  EXPECT_EQ(tables.size(), 69u);
  EXPECT_EQ(engines.size(), 9u);
  EXPECT_STREQ(generated_UTF8FindEngine_rows[0].name, "850");
  EXPECT_STREQ(generated_UTF8FindEngine_rows[generated_UTF8FindEngine_size - 1].name, "x0212");
}

TEST(UTF8Converter, LookupsOfOddSpellings) {
  struct Case {
    const char* spelling;
    const char* name;  // null: unknown
  } cases[] = {
      {"ISO-8859-1", "iso88591"}, {"iso_8859-1:1987", "iso885911987"}, {"Latin-1", "latin1"},
      {"WINDOWS-1252", "windows1252"}, {"  utf 8 ", "utf8"}, {"Shift_JIS", "shiftjis"},
      {"EUC-KR", "euckr"}, {"ANSI_X3.4-1968", "ansix341968"}, {"Big5", "big5"}, {"X0212", "x0212"},
      {"IBM-850", "ibm850"}, {"ucs-2", "ucs2"},
      {"", nullptr}, {"---", nullptr}, {"utf-7", nullptr}, {"iso-8859-12", nullptr}, {"zzz", nullptr},
      {"0", nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.spelling);
    UTF8Converter::Spec spec;
    bool found = UTF8Converter::find_engine(spec, c.spelling);
    EXPECT_EQ(found, c.name != nullptr);
    if (found) {
      EXPECT_STREQ(spec.name, c.name);
    }
  }
  UTF8Converter conv;
  EXPECT_FALSE(conv.setCharset("no-such-charset"));
  Str out;
  EXPECT_FALSE(conv.convert("x", 1, out));
  EXPECT_TRUE(out.empty());
}

TEST(UTF8Converter, EverySingleByteTableGivesValidUtf8) {
  // All 256 byte values through every one-byte table: the output must be
  // valid UTF-8 (the UTF-8 engine passes it through unchanged).
  std::string all;
  for (int b = 0; b < 256; ++b) all.push_back(static_cast<char>(b));
  for (size_t i = 0; i < generated_UTF8FindEngine_size; ++i) {
    const UTF8FindEngineRow& r = generated_UTF8FindEngine_rows[i];
    if (r.engine != UTF8_ENGINE_SBCS) continue;
    SCOPED_TRACE(r.name);
    std::string out = convertAll(r.name, all);
    EXPECT_EQ(convertAll("utf8", out), out);
    EXPECT_GE(out.size(), 128u);
  }
}
