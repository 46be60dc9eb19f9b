// The pattern language of `transaction pattern=`: its conversion into a
// regular expression over the event-type stream, its faults, and what the
// expressions match on streams.
#include <gtest/gtest.h>

#include "CatalogueHome.h"
#include "search/processors/PatternBuilder.h"
#include "util/RE.h"

namespace {

const std::map<Str, char> kLetters = {{"L", 'A'}, {"B", 'B'}, {"P", 'C'}, {"out", 'D'}};

std::string convert(const char* p) {
  rowtest::CatalogueHome::ensure();
  try {
    return PatternBuilder::convert(p, kLetters);
  } catch (const std::exception& e) {
    return e.what();
  }
}

TEST(PatternBuilderTest, Conversions) {
  const std::vector<std::pair<const char*, const char*>> cases = {
      {"L", "A"},
      {"L P", "A(.*?)C"},                      // ordered, gap captured
      {"L,P", "AC"},                           // adjacent
      {"L,B* P", "AB*(.*?)C"},                 // "," binds tighter than the blank
      {"L (B,B)+ out", "A(.*?)(?:BB)+(.*?)D"},  // groups and repetition
      {"L & P", "(?:A.*?C|C.*?A)"},            // either order
      {"L & B P", "(?:A.*?B(.*?)C|B(.*?)C.*?A)"},  // "&" is loosest
      {"L . [^B out] P?", "A(.*?).(.*?)[^BD](.*?)C?"},
      {"  L\tP  ", "A(.*?)C"},
  };
  for (auto& c : cases) EXPECT_EQ(convert(c.first), c.second) << c.first;
}

TEST(PatternBuilderTest, Faults) {
  const std::vector<std::pair<const char*, const char*>> cases = {
      {"L Q", "Unable to find the alias 'Q' used in the pattern 'L Q'."},
      {"[^Q]", "Unable to find the alias 'Q' used in the pattern '[^Q]'."},
      {"", "Invalid pattern '': it is empty."},
      {"(L P", "Invalid pattern '(L P': a '(' is not closed."},
      {"L P)", "Invalid pattern 'L P)': unexpected text after the end."},
      {"L &", "Invalid pattern 'L &': it ends where an alias was expected."},
      {"L , * P", "Invalid pattern 'L , * P': an alias was expected."},
      {"[^L", "Invalid pattern '[^L': a '[^' is not closed."},
      {"[^ ]", "Invalid pattern '[^ ]': '[^ ]' names no alias."},
      {"L & L & L & L & L", "Invalid pattern 'L & L & L & L & L': at most four parts may be joined with '&'."},
  };
  for (auto& c : cases) EXPECT_EQ(convert(c.first), c.second) << c.first;
}

TEST(PatternBuilderTest, ExpressionsOverStreams) {
  // pattern, stream, the first match ("" for none)
  const std::vector<std::tuple<const char*, const char*, const char*>> cases = {
      {"L P", "_A_B_C_", "A_B_C"},
      {"L,P", "_A_B_C_AC", "AC"},
      {"L & P", "__C_B_A", "C_B_A"},
      {"L (B,B)+ out", "A_BBBB_D", "A_BBBB_D"},
      {"L (B,B)+ out", "A_B_B_D", ""},
      {"L [^B] P", "ABC", ""},
      {"L [^B] P", "ADC", "ADC"},
  };
  for (auto& c : cases) {
    RE re("(" + convert(std::get<0>(c)) + ")");
    std::string m;
    re.PartialMatch(std::get<1>(c), &m);
    EXPECT_EQ(m, std::get<2>(c)) << std::get<0>(c) << " over " << std::get<1>(c);
  }
}

}  // namespace
