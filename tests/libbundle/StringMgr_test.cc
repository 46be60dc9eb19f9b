#include "libbundle/StringMgr.h"

#include <gtest/gtest.h>

#include "ConfTestUtil.h"
#include "libbundle/PropertyPages.h"

using conftest::TempHome;

TEST(StringMgr, DefaultTextTable) {
  struct Row {
    const char* key;
    const char* text;
  } rows[] = {
      {"FILE_CLASSIFIER_UNABLE_TO_CONVERT_TO_UTF8__S", "FILE_CLASSIFIER_UNABLE_TO_CONVERT_TO_UTF8 Arguments:  '%s'"},
      {"A__S_D", "A Arguments:  '%s' '%d'"},
      {"A__LLD_LLU_LLX_LD_LU_LX_UL_U", "A Arguments:  '%lld' '%llu' '%llx' '%ld' '%lu' '%lx' '%ul' '%u'"},
      {"A__C_F_M_P", "A Arguments:  '%c' '%f' '%m' '%p'"},
      {"NO_ARGS__", "NO_ARGS Arguments: "},
      {"A__S_ODD", "A Arguments:  '%s' ODD"},
      {"A__S__D", "A Arguments:  '%s' '%d'"},
  };
  for (const Row& row : rows) EXPECT_EQ(StringMgr::defaultText(row.key), row.text) << row.key;
}

TEST(StringMgr, CatalogueFromAllBundlesAndMissingKeys) {
  TempHome home;
  home.write("default", "strings.conf",
             "[SEARCH]\nERROR__S = Error in '%s'\nOTHER__D = other %d\n[default]\nX__S = default stanza\n");
  home.write("local", "strings.conf", "[SEARCH]\nERROR__S = Local error in '%s'\n");
  PropertyPages pages("strings");
  pages.updateConfigs();
  StringMgr mgr(pages);
  EXPECT_EQ(mgr.lookup("SEARCH_ERROR__S"), "Local error in '%s'");
  EXPECT_EQ(mgr.lookup("SEARCH_OTHER__D"), "other %d");
  EXPECT_EQ(mgr.lookup("default_X__S"), "default stanza");

  testing::internal::CaptureStdout();
  const Str& made = mgr.lookup("SEARCH_MISSING__S");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "String not found in searchstrings.conf -- SEARCH_MISSING__S\n");
  EXPECT_EQ(made, "SEARCH_MISSING Arguments:  '%s'");
  // The made-up text is remembered: no second message.
  testing::internal::CaptureStdout();
  EXPECT_EQ(&mgr.lookup("SEARCH_MISSING__S"), &made);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST(StringMgrDeathTest, KeyWithoutArgumentTypesAborts) {
  TempHome home;
  PropertyPages pages("strings");
  pages.updateConfigs();
  StringMgr mgr(pages);
  EXPECT_DEATH(mgr.lookup("NO_SEPARATOR"), "NO_SEPARATOR");
}
