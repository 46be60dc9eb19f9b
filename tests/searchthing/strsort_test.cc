// String sort of the slice writers: the result must be strcmp order exactly,
// including texts that share their first eight (or sixteen) bytes, texts that
// are prefixes of others, texts that end right at a chunk boundary, bytes
// above 0x7F (unsigned order, as strcmp) and repeated texts.
#include "searchthing/strsort.h"

#include <gtest/gtest.h>
#include <string.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

namespace {

// Sorts `texts` both ways and compares; tags must come along with texts.
void expectStrcmpOrder(const std::vector<std::string>& texts) {
  std::vector<st_str_row> rows(texts.size());
  for (size_t i = 0; i < texts.size(); ++i) rows[i] = {0, texts[i].c_str(), uint32_t(i)};
  st_str_sort(rows.data(), rows.size());
  std::vector<std::string> want = texts;
  std::sort(want.begin(), want.end(), [](const std::string& a, const std::string& b) {
    return strcmp(a.c_str(), b.c_str()) < 0;
  });
  ASSERT_EQ(rows.size(), want.size());
  for (size_t i = 0; i < rows.size(); ++i) {
    ASSERT_EQ(std::string(rows[i].text), want[i]) << "at " << i;
    ASSERT_EQ(rows[i].text, texts[rows[i].tag].c_str()) << "tag parted from its text at " << i;
  }
}

TEST(StrSort, EdgesOfTheEightByteChunks) {
  expectStrcmpOrder({});
  expectStrcmpOrder({"only"});
  expectStrcmpOrder({
      "", "a", "abcdefg", "abcdefgh", "abcdefgh", "abcdefgha", "abcdefgh\x01", "abcdefgi", "abcdefghabcdefgh",
      "abcdefghabcdefg", "abcdefghabcdefgha", "abcdefghabcdefgh", "2026-11-20t01:02:03z", "2026-11-20t01:02:04z",
      "2026-11-20t01:02", "2026-11-20", "2026-11-", "2026-11", "\xff", "\x80zz", "z\xe9t\xe9", "zeta", "Zeta",
      "path=/api/v1/items/12345/detail", "path=/api/v1/items/12345", "path=/api/v1/items/1234/detail",
  });
}

TEST(StrSort, RandomTextsOverASmallAlphabetMatchStrcmp) {
  // A small alphabet and long shared stems make runs of equal chunks at
  // every depth, which is where a chunked sort can go wrong.
  std::mt19937 rng(11);
  for (int round = 0; round < 20; ++round) {
    std::vector<std::string> texts;
    std::string stem(size_t(rng() % 20), 's');
    int n = 1 + int(rng() % 3000);
    for (int i = 0; i < n; ++i) {
      std::string t = rng() % 2 ? stem : "";
      for (int k = int(rng() % 30); k > 0; --k) t.push_back("ab\x7f\x80"[rng() % 4]);
      texts.push_back(t);
    }
    expectStrcmpOrder(texts);
  }
}

}  // namespace
