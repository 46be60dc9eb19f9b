#include <gtest/gtest.h>

#include "SearchTestUtil.h"
#include "search/SL.h"
#include "search/SearchResultInserter.h"
#include "search/SearchResultIterator.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "util/Exceptions.h"
#include "util/Logger.h"

using searchtest::Row;
using searchtest::rowsOf;

namespace {

TEST(SearchResult, AbsentFieldLookups) {
  SearchResults rs;
  SearchResult* r = rs.addNewResult();
  sr_index_t a = rs.keyIndex("a", true);
  EXPECT_EQ(r->getValue(SearchResults::nkeyindex), "");
  EXPECT_EQ(r->getValue(a), "");
  Str out("stale");
  EXPECT_FALSE(r->getValue(a, out));
  EXPECT_TRUE(out.empty());
  EXPECT_FALSE(r->getValue(Str("unknown"), out));
  EXPECT_THROW((void)static_cast<const SearchResult*>(r)->operator[](a), SearchResultsException);
  EXPECT_THROW((*r)[SearchResults::nkeyindex], SearchResultsException);
  EXPECT_FALSE(r->setValue(SearchResults::nkeyindex, Str("x")));

  (*r)[a];  // the mutable form creates an empty value
  EXPECT_TRUE(r->getValue(a, out));
  EXPECT_EQ(static_cast<const SearchResult*>(r)->operator[](a), "");

  SearchResult orphan;
  EXPECT_FALSE(orphan.getValue(Str("a"), out));
}

TEST(SearchResult, CopiesAreDeep) {
  SearchResults rs;
  searchtest::addRows(rs, {{{"a", "1"}, {"b", "2"}}});
  SearchResult copy(*rs.front());
  copy.setValue(rs.keyIndex("a"), Str("changed"));
  EXPECT_EQ(rs.front()->getValue(rs.keyIndex("a")), "1");

  SearchResult thief;
  thief.usurp(copy);
  EXPECT_EQ(thief.getValue(rs.keyIndex("a")), "changed");
  EXPECT_FALSE(copy.hasValue(rs.keyIndex("a")));
}

TEST(SearchResult, HashOverPresentValues) {
  SearchResults rs;
  SearchResult* r = rs.addNewResult();
  EXPECT_EQ(r->hash(), 0u);
  r->setValue(Str("b"), Str("b"));
  r->setValue(Str("a"), Str("a"));
  // Slots in index order, bytes not separated: "b" then "a".
  EXPECT_EQ(r->hash(), static_cast<size_t>(98 * 5 + 97));
  SearchResult* s = rs.addNewResult();
  s->setValue(rs.keyIndex("b"), Str("ba"));
  EXPECT_EQ(s->hash(), r->hash());
  // Bytes above 0x7f count as negative.
  SearchResult* t = rs.addNewResult();
  t->setValue(rs.keyIndex("a"), Str("\xff"));
  EXPECT_EQ(t->hash(), static_cast<size_t>(-1));
}

TEST(SearchResults, RenameAndRemoveTouchNoRow) {
  SearchResults rs;
  searchtest::addRows(rs, {{{"a", "1"}, {"b", "2"}}});
  const sr_index_t a = rs.keyIndex("a");
  const sr_index_t b = rs.keyIndex("b");

  EXPECT_EQ(rs.renameKey("a", "a"), a);
  EXPECT_EQ(rs.renameKey("a", ""), 0u);
  EXPECT_EQ(rs.renameKey("nope", "x"), 0u);

  // Onto an existing name: b's values drop from view but stay in the row.
  EXPECT_EQ(rs.renameKey("a", "b"), a);
  EXPECT_EQ(rs.keyIndex("a"), SearchResults::nkeyindex);
  EXPECT_EQ(rs.keyIndex("b"), a);
  EXPECT_EQ(rowsOf(rs), (std::vector<Row>{{{"b", "1"}}}));
  EXPECT_EQ(rs.front()->getValue(b), "2");

  EXPECT_TRUE(rs.removeKey("b"));
  EXPECT_FALSE(rs.removeKey("b"));
  EXPECT_EQ(rowsOf(rs), (std::vector<Row>{{}}));
  EXPECT_EQ(rs.front()->getValue(a), "1");
  // Indices are never reused.
  EXPECT_GT(rs.keyIndex("c", true), b);
}

TEST(SearchResults, Dictionaries) {
  SearchResults rs;
  EXPECT_EQ(rs.keyIndex("", true), SearchResults::nkeyindex);
  sr_index_t z = rs.keyIndex("z", true);
  sr_index_t i = rs.internalKeyIndex("__i", true);
  sr_index_t a = rs.keyIndex("a", true);
  EXPECT_EQ(rs.getKeyFromIndex(a), "a");
  EXPECT_EQ(rs.getKeyFromIndex(i), "");  // internal names are not public
  EXPECT_EQ(rs.getKeyFromIndex(99), "");
  std::vector<Str> order;
  rs.getColumnOrder(order);
  EXPECT_EQ(order, (std::vector<Str>{"z", "a"}));

  std::vector<sr_index_t> inds;
  EXPECT_FALSE(rs.keyIndexes({"a", "q", "z"}, inds));
  EXPECT_EQ(inds, (std::vector<sr_index_t>{a, 0, z}));
  EXPECT_EQ(rs.keyIndex("q"), SearchResults::nkeyindex);  // lookups do not intern

  SearchResults other;
  other.keyIndex("x", true);
  other.appendKeyMap(rs);
  std::vector<Str> otherOrder;
  other.getColumnOrder(otherOrder);
  EXPECT_EQ(otherOrder, (std::vector<Str>{"x", "z", "a"}));
  EXPECT_NE(other.internalKeyIndex("__i"), SearchResults::nkeyindex);
}

TEST(SearchResults, CopyAcrossDictionaries) {
  SearchResults src;
  searchtest::addRows(src, {{{"a", "1"}}, {{"b", "2"}}, {{"a", "3"}, {"b", "4"}}});
  SearchResults dst;
  dst.keyIndex("b", true);  // different index layout
  dst.addNewResult(src.front());
  dst.append(src, 1, 1);
  EXPECT_EQ(rowsOf(dst), (std::vector<Row>{{{"a", "1"}}, {{"b", "2"}}}));
  dst.append(src);
  EXPECT_EQ(dst.size(), 5u);

  // Same dictionary: positional copy.
  SearchResults same(src, false);
  same.append(src, 2, 0);
  EXPECT_EQ(rowsOf(same), (std::vector<Row>{{{"a", "3"}, {"b", "4"}}}));

  SearchResults deep(src);
  deep.front()->setValue(deep.keyIndex("a"), Str("x"));
  EXPECT_EQ(src.front()->getValue(src.keyIndex("a")), "1");

  // Moving a row translates indices and empties the original.
  SearchResults mover;
  mover.keyIndex("b", true);
  mover.moveResult(src.begin(), true);
  EXPECT_EQ(rowsOf(mover), (std::vector<Row>{{{"a", "1"}}}));
  EXPECT_EQ(src.size(), 2u);

  // Taking every row: values move under the names they had, across a
  // different dictionary and within the same one; the source keeps its
  // names but no row.
  SearchResults taker;
  taker.keyIndex("b", true);
  taker.addNewResult()->setValue(taker.keyIndex("b"), Str("0"));
  SearchResults moved(src);
  taker.takeRows(moved);
  EXPECT_EQ(rowsOf(taker), (std::vector<Row>{{{"b", "0"}}, {{"b", "2"}}, {{"a", "3"}, {"b", "4"}}}));
  EXPECT_TRUE(moved.empty());
  EXPECT_NE(moved.keyIndex("a"), SearchResults::nkeyindex);
  EXPECT_EQ(taker.back()->getParent(), &taker);
  SearchResults twin(src, false);
  SearchResults again(src);
  twin.takeRows(again);
  EXPECT_EQ(rowsOf(twin), rowsOf(src));
  EXPECT_TRUE(again.empty());

  SearchResults thief;
  thief.usurp(src);
  EXPECT_TRUE(src.empty());
  EXPECT_EQ(thief.size(), 2u);
  EXPECT_EQ(thief.front()->getParent(), &thief);

  thief.free(true);
  EXPECT_NE(thief.keyIndex("a"), SearchResults::nkeyindex);
  thief.free(false);
  EXPECT_EQ(thief.keyIndex("a"), SearchResults::nkeyindex);
}

TEST(SearchResults, IteratorVisitsPresentPublicFieldsInNameOrder) {
  SearchResults rs;
  searchtest::addRows(rs, {{{"c", "3"}, {"a", "1"}}});
  rs.keyIndex("b", true);
  rs.front()->setValue(rs.internalKeyIndex("__x", true), Str("hidden"));
  std::vector<std::pair<Str, Str>> seen;
  SearchResultIterator end(*rs.front(), true);
  for (SearchResultIterator it(*rs.front()); it != end; ++it) seen.push_back(*it);
  EXPECT_EQ(seen, (std::vector<std::pair<Str, Str>>{{"a", "1"}, {"c", "3"}}));
}

TEST(MultiValue, EncodeDecode) {
  const struct {
    std::vector<Str> values;
    const char* encoded;
  } cases[] = {
      {{"one", "t$o"}, "$one$;$t$$o$"},
      {{""}, "$$"},
      {{"", ""}, "$$;$$"},
      {{"$"}, "$$$$"},
      {{}, ""},
  };
  for (const auto& c : cases) {
    Str enc;
    SearchResults::encodeMV(c.values, enc);
    EXPECT_EQ(enc, c.encoded);
    std::vector<Str> dec;
    EXPECT_TRUE(SearchResults::decodeMV(enc, dec));
    EXPECT_EQ(dec, c.values);
  }
  for (const char* corrupt : {"x", "$a$x", "$open", "$a$;b"}) {
    std::vector<Str> dec{"stale"};
    EXPECT_FALSE(SearchResults::decodeMV(Str(corrupt), dec)) << corrupt;
    EXPECT_TRUE(dec.empty());
  }
}

class MultiValueFields : public ::testing::Test {
 protected:
  void SetUp() override {
    home.writeConf("fields", "[tags]\nTOKENIZER = ([a-z]+)\n");
    SearchResults::isMultiValue("tags", true);
  }
  searchtest::ScratchHome home;
};

TEST_F(MultiValueFields, BothFormsAreRead) {
  SearchResults rs;
  SearchResult* r = rs.addNewResult();
  r->setValue(Str("tags"), Str("red, green;blue"));
  r->setValue(Str("plain"), Str("a b"));
  const sr_index_t tags = rs.keyIndex("tags");
  const sr_index_t plain = rs.keyIndex("plain");

  std::vector<Str> got;
  EXPECT_TRUE(r->getMultiValues(tags, got));
  EXPECT_EQ(got, (std::vector<Str>{"red", "green", "blue"}));
  EXPECT_TRUE(r->getMultiValues(plain, got));
  EXPECT_EQ(got, (std::vector<Str>{"a b"}));
  EXPECT_FALSE(r->getMultiValues(rs.keyIndex("missing", true), got));

  EXPECT_TRUE(SearchResults::isMultiValue("tags"));
  EXPECT_FALSE(SearchResults::isMultiValue("plain"));
  EXPECT_TRUE(rs.hasMultiValue("tags"));
  EXPECT_EQ(rs.getMVIndex(plain), SearchResults::nkeyindex);

  // The encoded companion wins over the plain value.
  EXPECT_TRUE(r->setMultiValues(tags, {"x;y", "$"}));
  EXPECT_TRUE(r->getMultiValues(tags, got));
  EXPECT_EQ(got, (std::vector<Str>{"x;y", "$"}));
  // Fields without a tokenizer have no companion and store nothing.
  EXPECT_FALSE(r->setMultiValues(plain, {"q"}));
  EXPECT_EQ(rs.getInternalKeyMap().size(), 1u);

  // A corrupt companion still answers true, with no elements.
  r->setValue(rs.getMVIndex(tags), Str("garbage"));
  EXPECT_TRUE(r->getMultiValues(tags, got));
  EXPECT_TRUE(got.empty());

  // The companion follows renames and removals of its field.
  r->setMultiValues(tags, {"k"});
  rs.renameKey("tags", "labels");
  EXPECT_NE(rs.internalKeyIndex("__mv_labels"), SearchResults::nkeyindex);
  EXPECT_EQ(rs.internalKeyIndex("__mv_tags"), SearchResults::nkeyindex);
  EXPECT_TRUE(rs.removeKey("labels"));
  EXPECT_EQ(rs.internalKeyIndex("__mv_labels"), SearchResults::nkeyindex);
}

TEST_F(MultiValueFields, CompanionStaysOutOfPublicCsv) {
  SearchResults rs;
  SearchResult* r = rs.addNewResult();
  r->setValue(Str("tags"), Str("a"));
  r->setMultiValues(rs.keyIndex("tags"), {"a", "b"});
  Str pub, all;
  rs.toCSV(pub);
  rs.toCSV(all, true);
  EXPECT_EQ(pub, "tags\na\n");
  EXPECT_EQ(all, "\"__mv_tags\",tags\n\"$a$;$b$\",a\n");

  SearchResults back;
  back.fromCSV(all, 0, SearchResults::kAllRows, true);
  std::vector<Str> got;
  EXPECT_TRUE(back.front()->getMultiValues(back.keyIndex("tags"), got));
  EXPECT_EQ(got, (std::vector<Str>{"a", "b"}));
}

TEST(SearchResultInserter, SplitsAtFirstDoubleColon) {
  SearchResults rs;
  SearchResult* r = rs.addNewResult();
  std::vector<Str> names;
  SearchResultInserter ins(*r, &names);
  for (const char* tok : {"host::web01", "url::a::b", "::nokey", "novalue", "k::"}) ins.handleToken(tok, strlen(tok));
  EXPECT_EQ(rowsOf(rs), (std::vector<Row>{{{"host", "web01"}, {"url", "a::b"}, {"k", ""}}}));
  EXPECT_EQ(names, (std::vector<Str>{"host", "url", "k"}));
}

TEST(SearchResultsInfo, DefaultsAndMissingFieldWarning) {
  SearchResultsInfo info;
  EXPECT_TRUE(info.resultsComplete);
  EXPECT_TRUE(info.firstInPipeline);
  EXPECT_EQ(info.maxEvents, -1);
  Logger log("SearchResultsInfoTest");
  info.warnMissingFields(log, {"b", "a"});
  ASSERT_EQ(info.messages[SearchResultsInfo::MSG_WARN].size(), 1u);
  EXPECT_EQ(info.messages[SearchResultsInfo::MSG_WARN][0], "Specified field(s) missing from results: 'a', 'b'");
  SearchResultsInfo copy(info);
  EXPECT_TRUE(copy.hasMessages(SearchResultsInfo::MSG_WARN));
  EXPECT_FALSE(copy.hasMessages(SearchResultsInfo::MSG_ERROR));
}

TEST(SearchResults, MaxResultRowsFromLimits) {
  searchtest::ScratchHome home;
  home.writeConf("limits", "[searchresults]\nmaxresultrows = 7\n");
  EXPECT_EQ(SearchResults::getMaxResultRows(true), 7u);
  home.writeConf("limits", "[searchresults]\nmaxresultrows = bogus\n");
  EXPECT_EQ(SearchResults::getMaxResultRows(true), 50000u);
  EXPECT_EQ(SL::Raw, "_raw");
}

}  // namespace
