// The key=value scanner (a table: raw text in, pairs out) and the pass that
// adds the pairs to rows: first occurrence wins, existing fields stay, no
// "_" fields, and key indices that a changed dictionary made stale are not
// used.
#include "search/KVScanner.h"

#include <gtest/gtest.h>

#include <string>

#include "search/SearchResults.h"

namespace {

std::string pairs(const std::string& text) {
  std::string out;
  KVScanner::extract(Str(text), [&](const StrSegment& k, const StrSegment& v) {
    if (!out.empty()) out += "|";
    out += std::string(k.data(), k.size()) + "=" + std::string(v.data(), v.size());
  });
  return out;
}

TEST(KVScannerTest, ScannerFindsPairsAtWordStarts) {
  struct Case {
    const char* text;
    const char* want;
  } cases[] = {
      {"", ""},
      {"no pairs here", ""},
      {"a=1", "a=1"},
      {"user=bob status=200", "user=bob|status=200"},
      {"x=1,y=2;z=3", "x=1|y=2|z=3"},
      {"k=v\tl=w\nm=x\r", "k=v|l=w|m=x"},
      {"msg=\"hello world\" next=1", "msg=hello world|next=1"},
      {"empty=\"\" after=2", "empty=|after=2"},
      {"a.b_c9=7", "a.b_c9=7"},
      {"_internal=1 __x=2", "_internal=1|__x=2"},
      {"9lives=1 x9=2", "x9=2"},            // a key starts with a letter or "_"
      {"abc1def=2", "abc1def=2"},
      {"GET /p?user=ann&id=3 HTTP", "user=ann&id=3"},  // value up to a blank
      {"[pid=42]", "pid=42]"},
      {"a= b=2", "b=2"},                    // an empty bare value is no pair
      {"a==b c=1", "c=1"},
      {"a=b=c d=e", "a=b=c|d=e"},           // a value is never read as a key
      {"q=\"x=1 y=2\" z=3", "q=x=1 y=2|z=3"},
      {"open=\"x=1 y=2", "x=1|y=2"},        // unclosed quote: no pair, goes on inside
      {"k=\"v\"w=1", "k=v|w=1"},
      {"dup=1 dup=2", "dup=1|dup=2"},
      {"key =1 key= 2 =3", ""},
      {"end=", ""},
      {"\xc3\xa9t\xc3\xa9=1 caf\xc3\xa9x=2", "x=2"},  // a non-ASCII byte ends a word
  };
  for (const Case& c : cases) EXPECT_EQ(pairs(c.text), c.want) << c.text;
}

std::string field(const SearchResults& rs, const SearchResult* r, const char* key) {
  sr_index_t i = rs.keyIndex(Str(key));
  const Str* v = r->getValuePtr(i);
  return v ? std::string(*v) : std::string("<none>");
}

TEST(KVScannerTest, AddsFirstOccurrenceWithoutOverwritingOrCreatingInternalKeys) {
  SearchResults rs;
  sr_index_t raw = rs.keyIndex("_raw", true), host = rs.keyIndex("host", true);
  SearchResult* a = rs.addNewResult();
  a->setValue(raw, Str("host=evil user=ann user=bob _time=0 _cd=1:2 size=\"3 kB\""));
  a->setValue(host, Str("web1"));
  SearchResult* b = rs.addNewResult();
  b->setValue(raw, Str("user=carl"));
  SearchResult* noRaw = rs.addNewResult();
  noRaw->setValue(host, Str("web2"));

  KVScanner kv;
  EXPECT_EQ(kv.apply(rs), 3u);  // user and size of a, user of b
  EXPECT_EQ(field(rs, a, "user"), "ann");
  EXPECT_EQ(field(rs, a, "host"), "web1");
  EXPECT_EQ(field(rs, a, "size"), "3 kB");
  EXPECT_EQ(rs.keyIndex(Str("_time")), 0u);
  EXPECT_EQ(rs.keyIndex(Str("_cd")), 0u);
  EXPECT_EQ(field(rs, b, "user"), "carl");
  EXPECT_EQ(field(rs, b, "size"), "<none>");
  EXPECT_EQ(field(rs, noRaw, "user"), "<none>");

  // A second pass adds nothing: every field exists already.
  EXPECT_EQ(kv.apply(rs), 0u);
  // Only the rows from `from` on.
  SearchResult* c = rs.addNewResult();
  c->setValue(raw, Str("user=dan"));
  EXPECT_EQ(kv.apply(rs, std::prev(rs.end())), 1u);
  EXPECT_EQ(field(rs, c, "user"), "dan");
}

// The transformer caches key indices; a dictionary that was dropped (free),
// had a key removed, or belongs to other results must not be written
// through stale indices.
TEST(KVScannerTest, StaleKeyIndicesAreNotReused) {
  KVScanner kv;
  SearchResults rs;
  sr_index_t raw = rs.keyIndex("_raw", true);
  rs.addNewResult()->setValue(raw, Str("a=1 b=2"));
  ASSERT_EQ(kv.apply(rs), 2u);

  // free() forgets the dictionary; new keys take the indices a and b had.
  rs.free(false);
  sr_index_t raw2 = rs.keyIndex("_raw", true);
  sr_index_t other = rs.keyIndex("other", true);
  SearchResult* r = rs.addNewResult();
  r->setValue(raw2, Str("b=3"));
  r->setValue(other, Str("keep"));
  EXPECT_EQ(kv.apply(rs), 1u);
  EXPECT_EQ(field(rs, r, "b"), "3");
  EXPECT_EQ(field(rs, r, "other"), "keep");

  // A removed key is interned again, under a new index.
  rs.removeKey("b");
  SearchResult* s = rs.addNewResult();
  s->setValue(rs.keyIndex("_raw"), Str("b=4"));
  EXPECT_EQ(kv.apply(rs, std::prev(rs.end())), 1u);
  EXPECT_EQ(field(rs, s, "b"), "4");

  // Other results with another dictionary.
  SearchResults second;
  second.keyIndex("x", true);
  second.keyIndex("y", true);
  SearchResult* t = second.addNewResult();
  t->setValue(second.keyIndex("_raw", true), Str("b=5 x=6"));
  EXPECT_EQ(kv.apply(second), 2u);
  EXPECT_EQ(field(second, t, "b"), "5");
  EXPECT_EQ(field(second, t, "x"), "6");
  EXPECT_EQ(field(second, t, "y"), "<none>");
}

}  // namespace
