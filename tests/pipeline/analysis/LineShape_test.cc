#include "pipeline/analysis/LineShape.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(LineShape, LinesOfOneFormatShareAShape) {
  struct Case {
    std::string line;
    std::string shape;
  } cases[] = {
      {"Nov 23 10:00:01 web1 sshd[42]: Accepted", "Nov  ::  []: "},
      {"Dec  1 23:59:59 db2 sshd[7]: Failed", "Dec   ::  []: "},
      // The word starts at the first letter after the first letter or digit.
      {"2026-11-24 13:05:56,123 INFO [main] x", "INFO ::,  [] "},
      {"   \tat com.example.Main.run(Main.java:10)", "at   \t ...(.:)"},
      // "-" and "_" are not punctuation; the word stops at them.
      {"user_id=7 a-b", "user= "},
      // At most 10 bytes of word and 30 of punctuation.
      {"abcdefghijklmnop", "abcdefghij"},
      {"x" + std::string(40, '.'), "x" + std::string(30, '.')},
      {"", ""},
      {"12345", ""},
      {"!!", "!!"},
      {"\xc3\xa9t\xc3\xa9 ok", "t\xc3\xa9\xc3\xa9 "},
  };
  for (const Case& c : cases) {
    Str out = "stale";
    LineShape::normalize(StrSegment(c.line), out);
    EXPECT_EQ(out, Str(c.shape)) << c.line;
  }
}

TEST(LineShape, OnlyWhiteSpaceLooksBlank) {
  struct Case {
    std::string text;
    bool blank;
  } cases[] = {
      {"", true},        {" \t\r\n\v\f", true}, {"  x ", false},
      {std::string(1, '\0'), false},            {"\xa0", false},
  };
  for (const Case& c : cases) EXPECT_EQ(LineShape::looksBlank(StrSegment(c.text)), c.blank) << c.text.size();
}

}  // namespace
