// SL::getLimit: typed reads of `limits` with the warnings on bad values,
// which must leave the caller's default in place.
#include <gtest/gtest.h>

#include "search/SLLimits.h"
#include "SearchTestUtil.h"

namespace {

TEST(SLGetLimit, GoodBadAndMissingValues) {
  searchtest::ScratchHome home;
  home.writeConf("limits",
                 "[t]\n"
                 "i = -12\n"
                 "u = 42\n"
                 "d = 2.5\n"
                 "neg = -1\n"
                 "negzero = -0\n"
                 "trail = 12abc\n"
                 "huge = 99999999999999999999999\n"
                 "word = many\n");
  struct Case {
    const char* key;
    const char* kind;  // "int", "ulong", "double"
    bool ok;
    double value;      // expected when ok
    const char* warning;
  } cases[] = {
      {"i", "int", true, -12, nullptr},
      {"u", "ulong", true, 42, nullptr},
      {"d", "double", true, 2.5, nullptr},
      {"i", "ulong", false, 0, "(expected non-negative integer) for stanza 't', key 'i'"},
      {"neg", "ulong", false, 0, "Invalid limits.conf value '-1' (expected non-negative integer)"},
      {"negzero", "ulong", false, 0, "(expected non-negative integer)"},
      {"trail", "ulong", false, 0, "Invalid limits.conf value '12abc' (expected non-negative integer)"},
      {"huge", "ulong", false, 0, "(expected non-negative integer)"},
      {"huge", "int", false, 0, "(expected integer)"},
      {"huge", "double", true, 1e23, nullptr},
      {"word", "double", false, 0, "Invalid limits.conf value 'many' (expected numerical)"},
      {"absent", "int", false, 0, nullptr},
  };
  for (const Case& c : cases) {
    Str kind = c.kind;
    int iv = 7;
    unsigned long uv = 7;
    double dv = 7;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    bool ok = kind == "int" ? SL::getLimit("t", c.key, iv)
              : kind == "ulong" ? SL::getLimit("t", c.key, uv)
                                : SL::getLimit("t", c.key, dv);
    std::string log = testing::internal::GetCapturedStdout() + testing::internal::GetCapturedStderr();
    EXPECT_EQ(ok, c.ok) << c.key << " " << c.kind;
    double got = kind == "int" ? iv : kind == "ulong" ? static_cast<double>(uv) : dv;
    EXPECT_EQ(got, c.ok ? c.value : 7) << c.key << " " << c.kind;  // default kept on failure
    if (c.warning)
      EXPECT_NE(log.find(c.warning), std::string::npos) << c.key << " " << c.kind << ": " << log;
    else
      EXPECT_EQ(log.find("Invalid limits.conf"), std::string::npos) << log;
  }
  Str s;
  EXPECT_TRUE(SL::getLimit("t", "word", s));
  EXPECT_EQ(s, "many");
}

}  // namespace
