#include "pipeline/indexer/QueryStateMachine.h"

#include <gtest/gtest.h>

#include "FakeQueryIndex.h"
#include "framework/UserManager.h"
#include "pipeline/indexer/QueryPart.h"
#include "util/Exceptions.h"

namespace {

struct ParseCase {
  std::vector<Str> tokens;
  Str want;  // toString() after finalize, or "ERROR: <exact text>"
};

Str parse(const std::vector<Str>& tokens, QueryStateMachine* out = nullptr) {
  QueryStateMachine own("q", "q");
  QueryStateMachine& sm = out ? *out : own;
  try {
    for (const Str& t : tokens) sm.accept(t);
    sm.finalize();
  } catch (const QueryParseException& e) {
    return Str("ERROR: ") + e.what();
  }
  return sm.toString();
}

std::vector<Str> parens(int depth) {
  std::vector<Str> t(size_t(depth), "(");
  t.push_back("a");
  t.insert(t.end(), size_t(depth), ")");
  return t;
}

Str nested(int depth) {
  Str s = "a";
  for (int i = 0; i < depth; ++i) s = "AND(" + s + ")";
  return "AND(" + s + ")";
}

TEST(QueryStateMachineTest, TokensBuildTheTree) {
  const ParseCase cases[] = {
      // plain terms, AND, OR, NOT
      {{"a"}, "AND(a)"},
      {{"A", "AND", "b"}, "AND(a, b)"},
      {{}, "AND(meta::all)"},
      {{"*"}, "AND(meta::all)"},
      {{"a", "OR", "b"}, "OR(a, b)"},
      {{"a", "OR", "b", "OR", "c"}, "OR(a, b, c)"},
      {{"a", "b", "OR", "c"}, "AND(a, OR(b, c))"},
      {{"a", "OR", "b", "c"}, "AND(c, OR(a, b))"},
      {{"a", "OR", "b", "c", "OR", "d"}, "AND(OR(c, d), OR(a, b))"},
      {{"a", "NOT", "b"}, "AND(a, NOT b)"},
      {{"NOT", "a"}, "AND(meta::all, NOT a)"},
      {{"a", "OR"}, "AND(a)"},
      {{"", "a", ""}, "AND(a)"},
      // the errors of NOT and OR
      {{"a", "OR", "NOT", "b"},
       "ERROR: OR NOT is unsupported. If you REALLY mean this try doing OR ( meta::all NOT key )"},
      {{"NOT", "a", "OR", "b"},
       "ERROR: OR NOT is unsupported. If you REALLY mean this try doing OR ( meta::all NOT key )"},
      {{"a", "OR", "(", "meta::all", "NOT", "b", ")"}, "OR(a, AND(meta::all, NOT b))"},
      {{"a", "OR", "(", "NOT", "b", ")"}, "OR(a, AND(meta::all, NOT b))"},
      {{"NOT", "NOT", "a"}, "ERROR: Query parse failure : NOT NOT"},
      {{"a", "NOT"}, "ERROR: Query parse failure: trailing NOT"},
      {{"(", "a", "NOT", ")"}, "ERROR: Query parse failure: trailing NOT"},
      // parentheses
      {{"(", "a", "b", ")"}, "AND(AND(a, b))"},
      {{"NOT", "(", "a", "b", ")"}, "AND(meta::all, NOT AND(a, b))"},
      {{"(", ")", "a"}, "AND(a)"},
      {{"a", "OR", "(", ")"}, "OR(a)"},
      {parens(20), nested(20)},
      {parens(21), "ERROR: Maximum paren depth exceeded"},
      {{"a", ")"}, "ERROR: Trailing closing paren."},
      {{"(", "a"}, "ERROR: Mismatched parens"},
      {{"(", "(", "a", ")"}, "ERROR: Mismatched parens"},
      // words as the segmenter cuts them, phrases
      {{"[Error]"}, "AND(error)"},
      {{"blk_10.1"}, "AND(AND(1, blk_10)) PHRASE(*blk_10.1*)"},  // punctuation breaks words, "_" does not
      {{"foo bar"}, "AND(AND(bar, foo)) PHRASE(*foo bar*)"},
      {{"\"Foo Bar\""}, "AND(AND(bar, foo)) PHRASE(*foo bar*)"},
      {{"foo ba*r"}, "AND(AND(ba*r, foo)) PHRASE(*foo ba*r*)"},
      {{"foo * bar"}, "AND(AND(bar, foo)) PHRASE(*foo * bar*)"},
      {{"x", "foo bar"}, "AND(x, AND(bar, foo)) PHRASE(*foo bar*)"},
      {{"(", "foo bar", ")"},
       "ERROR: Velmor detected foo bar as a phrase search, which is not supported within parentheses."},
      {{"a", "OR", "foo bar"}, "ERROR: Velmor detected foo bar as a phrase search, which does not support NOT or OR."},
      {{"NOT", "foo bar"}, "ERROR: Velmor detected foo bar as a phrase search, which does not support NOT or OR."},
      // stars, exact case, keys
      {{"foo*"}, "AND(foo*)"},
      {{"*Fail"}, "AND(*fail)"},
      {{"a*b"}, "AND(a*b)"},
      {{"Host::Web1"}, "AND(host::web1)"},
      {{"+"}, "ERROR: + is not a valid search term. If you want to search for \"+\" you can use ++"},
      {{"++"}, "AND(++)"},
      {{"+Foo"}, "AND(+Foo)"},
      // the access control marker: the clause after it is always ANDed
      {{"(", "a", "OR", " ACCESS_CONTROL_NEXT ", "host::x", ")"}, "AND(AND(a, host::x))"},
      {{"(", "a", "NOT", "ACCESS_CONTROL_NEXT", "host::x", ")"}, "AND(AND(a, host::x))"},
      // special parts
      {{"idlist::1:20,1:21"}, "AND(IDLIST(1:20, 1:21))"},
      {{"related::Foo bar"}, "AND(RELATED(foo, bar))"},
      {{"eventtypeconnected::X"}, "AND(CONNECTED(x))"},
  };
  for (const ParseCase& c : cases) {
    Str joined;
    for (const Str& t : c.tokens) joined += "[" + t + "]";
    EXPECT_EQ(parse(c.tokens), c.want) << joined;
  }
}

TEST(QueryStateMachineTest, RelatedTermsTurnScoringOn) {
  QueryStateMachine plain("q", "q"), related("q", "q");
  parse({"a"}, &plain);
  parse({"related::a b"}, &related);
  EXPECT_FALSE(plain.getUseScore());
  EXPECT_TRUE(related.getUseScore());
}

// The rewrites before evaluation, against an index that knows the host
// "web1" and the source "x" in two buckets.
class CodedIndex : public FakeQueryIndex {
 public:
  void getBucketCodesForWord(int table, const Str& word, std::vector<std::pair<uint32_t, uint32_t>>& out) override {
    out.clear();
    if ((table == 1 && (word == "web1" || word == "web2")) || (table == 2 && word == "x")) {
      out.push_back({1, 0});
      out.push_back({2, 3});
    }
  }
};

TEST(QueryStateMachineTest, RewritesFlattenFilterAndPushTermsDown) {
  CodedIndex index;
  FakeContainer container;
  container.indexes["main"] = &index;
  const ParseCase cases[] = {
      {{"a", "b", "NOT", "c"}, "AND(MULTI(a, b, NOT c))"},
      {{"a", "OR", "b"}, "AND(MULTI(OR(a, b)))"},
      {{"(", "a", "b", ")", "c"}, "AND(MULTI(a, b, c))"},
      {{"a", "(", "b", "OR", "(", "c", "OR", "d", ")", ")"}, "AND(MULTI(a, OR(b, c, d)))"},
      {{"NOT", "c"}, "AND(MULTI(meta::all, NOT c))"},
      {{"NOT", "(", "a", "b", ")"}, "AND(meta::all, NOT MULTI(a, b))"},
      {{"a", "OR", "b", "c", "OR", "d"}, "AND(MULTI(OR(a, b)), MULTI(OR(c, d)))"},
      {{"a", "idlist::1:2", "NOT", "c"}, "AND(MULTI(a, NOT c), IDLIST(1:2))"},
      {{"a", "OR", "idlist::1:2", "OR", "b"}, "OR(MULTI(OR(a, b)), IDLIST(1:2))"},
      {{"a"}, "AND(a)"},
      // host and source terms become a filter when something else gives ids
      {{"error", "host::web1", "NOT", "source::x"}, "AND(error, FILTER(host::web1, NOT source::x))"},
      {{"host::web1"}, "AND(host::web1)"},
      {{"host::unknown", "error"}, "AND(MULTI(host::unknown, error))"},
      {{"host::web*", "error"}, "AND(MULTI(host::web*, error))"},
      // an event has one host: a second required host stays a term
      {{"error", "host::web1", "host::web2"}, "AND(MULTI(error, host::web2), FILTER(host::web1))"},
  };
  for (const ParseCase& c : cases) {
    QueryStateMachine sm("q", "q");
    sm.setContainer(&container);
    sm.setDomain("main");
    parse(c.tokens, &sm);
    sm.getRoot()->optimizeSubQueries();
    sm.getRoot()->optimizeToMultiTermQueryPart();
    Str joined;
    for (const Str& t : c.tokens) joined += "[" + t + "]";
    EXPECT_EQ(sm.toString(), c.want) << joined;
  }
}

// --- the checks ---------------------------------------------------------------------

class ChecksTest : public ::testing::Test {
 protected:
  void SetUp() override {
    index.size = 5000;
    index.terms["a"] = [](uint32_t) { return true; };
    index.terms["c"] = [](uint32_t i) { return i % 2 == 0; };
    index.terms["user::bob"] = [](uint32_t i) { return i % 10 == 3; };
    container.indexes["main"] = &index;
    container.indexes["history"] = &index;
    container.indexes["_audit"] = &index;
    container.indexes["velmorlogger"] = &index;
  }

  // Runs the tokens; the error text, or "" with the ids in `out`.
  Str run(QueryStateMachine& sm, const std::vector<Str>& tokens, std::vector<ValueWrapper>* out = nullptr) {
    sm.setContainer(&container);
    sm.setCancelChecker(&cancel);
    if (sm.getDomain().empty()) sm.setDomain("main");
    std::vector<ValueWrapper> ids;
    try {
      for (const Str& t : tokens) sm.accept(t);
      sm.finalize();
      sm.execute(ids);
    } catch (const QueryException& e) {
      return e.what();
    }
    if (out) *out = ids;
    return "";
  }

  FakeQueryIndex index;
  FakeContainer container;
  FakeCancel cancel;
};

const char kBudget[] =
    "we reached the maximum number of events available to a search. Try setting a time range, simplifying your "
    "search terms, setting a lower maxresults:: modifier (the default is 10,000) or change the maxQueryIds setting "
    "in indexes.conf. ";
const char kTime[] =
    "it exceeded the maximum time limit to complete the search.  The default is 60 seconds.  You can change it by "
    "adding maxtime::120 to your search to increase it to two minutes, or maxtime::-1 to turn off the time limit.";

TEST_F(ChecksTest, UnknownIndexAndIndexFailures) {
  QueryStateMachine sm("q", "q");
  sm.setDomain("nope");
  EXPECT_EQ(run(sm, {"a"}), "\"nope\" does not appear to be a valid index");

  index.fail = true;
  QueryStateMachine failing("q", "q");
  EXPECT_EQ(run(failing, {"a"}), "the index \"main\" could not be queried.");
  index.fail = false;
  index.throwPolicyError = true;
  QueryStateMachine throwing("q", "q");
  EXPECT_EQ(run(throwing, {"a"}), "the disk went away");
}

TEST_F(ChecksTest, ResultLimitLeavesOneMoreToTellItWasReached) {
  QueryStateMachine sm("q", "q");
  sm.setResultLimit(10);
  std::vector<ValueWrapper> ids;
  ASSERT_EQ(run(sm, {"c"}, &ids), "");
  ASSERT_EQ(ids.size(), 11u);
  EXPECT_EQ(ids.front().address, 4998u);
  EXPECT_EQ(ids.back().address, 4978u);
  EXPECT_TRUE(sm.isFinished());
}

TEST_F(ChecksTest, CancelledUnlessTheIndexIsInternal) {
  cancel.after = 0;
  QueryStateMachine sm("q", "q");
  EXPECT_EQ(run(sm, {"a", "c"}), "it was cancelled.");
  QueryStateMachine internal("q", "q");
  internal.setDomain("_audit");
  std::vector<ValueWrapper> ids;
  EXPECT_EQ(run(internal, {"a", "c"}, &ids), "");
  EXPECT_EQ(ids.size(), 2500u);
  // A cancel that arrives between blocks stops the next one.
  cancel.after = 3;
  cancel.asked = 0;
  QueryStateMachine later("q", "q");
  later.setBlockSizes(10, 10);
  later.setOptimize(false);
  EXPECT_EQ(run(later, {"a", "c"}), "it was cancelled.");
  EXPECT_GT(cancel.asked, 3);
}

TEST_F(ChecksTest, TimeLimitStopsASlowSearchAtTheNextPass) {
  index.size = 300000;
  index.sleepMs = 600;
  QueryStateMachine slow("q", "q");
  slow.setOptimize(false);
  slow.setTimeLimit(1);
  slow.setResultLimit(100000);  // a pass settles 50000: a second is needed
  EXPECT_EQ(run(slow, {"a", "c"}), kTime);

  index.sleepMs = 300;
  QueryStateMachine unlimited("q", "q");
  unlimited.setOptimize(false);
  unlimited.setTimeLimit(-1);
  unlimited.setResultLimit(100000);
  std::vector<ValueWrapper> ids;
  EXPECT_EQ(run(unlimited, {"a", "c"}, &ids), "");
  EXPECT_EQ(ids.size(), 100001u);
}

TEST_F(ChecksTest, AccessRuleRestrictsHistoryAndGuardsInternalIndexes) {
  class Perms : public IUserPermissions {
   public:
    int checkUserPerms(const Str& cap, const Str& user) override {
      return user == "admin" || (cap != "search_history" && cap != "search_admin_index");
    }
    std::vector<Str> getSearchFilters(const Str&) override { return {}; }
  };
  auto old = UserManager::setPermissions(std::make_shared<Perms>());
  struct Case {
    const char* domain;
    const char* user;
    const char* error;
    size_t count;
  } cases[] = {
      {"history", "bob", "", 500},  // silently only bob's own searches
      {"history", "admin", "", 5000},
      {"history", "", "", 5000},  // no user set: no rule
      {"_audit", "bob", "Only admins may search the index _audit", 0},
      {"velmorlogger", "bob", "Only admins may search the index velmorlogger", 0},
      {"_audit", "admin", "", 5000},
      {"main", "bob", "", 5000},
  };
  for (const Case& c : cases) {
    QueryStateMachine sm("q", "q");
    sm.setDomain(c.domain);
    sm.setUser(c.user);
    sm.setResultLimit(100000);
    std::vector<ValueWrapper> ids;
    EXPECT_EQ(run(sm, {"a"}, &ids), c.error) << c.domain << " " << c.user;
    EXPECT_EQ(ids.size(), c.count) << c.domain << " " << c.user;
    if (Str(c.user) == "bob" && Str(c.domain) == "history") {
      for (const ValueWrapper& v : ids) EXPECT_EQ(v.address % 10, 3u);
    }
  }
  UserManager::setPermissions(old);
}

// maxQueryIds bounds the ids held at once, maxQueryIds * 4096 of them. One
// block of 100000 does not fit 4096; a single term asked for 11 ids does.
TEST_F(ChecksTest, IdBudgetFailsOnlyWhenOneBlockExceedsIt) {
  index.size = 1200000;
  struct Case {
    std::vector<Str> tokens;
    unsigned long maxQueryIds;
    bool optimize;
    const char* error;
  } cases[] = {
      {{"a"}, 1, false, ""},
      {{"a", "c"}, 1, true, ""},  // one index call for both: a block of 11
      {{"a", "c"}, 1, false, kBudget},
      {{"a", "c"}, 0, false, ""},  // 0: no budget
      {{"a", "c"}, 1000, false, ""},
  };
  for (const Case& c : cases) {
    QueryStateMachine sm("q", "q");
    sm.setMaxQueryIds(c.maxQueryIds);
    sm.setOptimize(c.optimize);
    sm.setResultLimit(10);
    std::vector<ValueWrapper> ids;
    EXPECT_EQ(run(sm, c.tokens, &ids), c.error) << c.tokens.size() << " terms, " << c.maxQueryIds;
    if (!*c.error) {
      EXPECT_EQ(ids.size(), 11u);
    }
  }
}

// "a NOT b" where b holds 49 of every 50 events of a: 60000 results need
// three million ids of a and almost as many of b, more than the default
// budget (4,096,000) could hold at once; settled ids are let go, so it
// answers, and no more than a few blocks are ever held.
TEST_F(ChecksTest, ReleasedIdsKeepAHugeNotWithinTheBudget) {
  index.size = 3000000;
  index.terms["b"] = [](uint32_t i) { return i % 50 != 0; };
  QueryStateMachine sm("q", "q");
  sm.setMaxQueryIds(1000);
  sm.setOptimize(false);
  sm.setResultLimit(59999);
  index.watch = &sm;
  std::vector<ValueWrapper> ids;
  ASSERT_EQ(run(sm, {"a", "NOT", "b"}, &ids), "");
  ASSERT_EQ(ids.size(), 60000u);
  for (size_t k = 0; k < ids.size(); ++k) ASSERT_EQ(ids[k].address, 2999950u - 50u * k) << k;
  EXPECT_LE(index.peakIds, 2500000u);
}

}  // namespace
