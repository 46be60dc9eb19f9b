// Deleting by host, source or source type through the inner query
// language: what is deleted, the texts of refused deletes, privileges, and
// the seek records of a source deleted whole.
#include "pipeline/indexer/QueryDelete.h"

#include <gtest/gtest.h>

#include "QueryModuleTestIndex.h"
#include "framework/UserManager.h"

namespace {

const int64_t kBase = 1700000000;

class QueryDeleteTest : public ::testing::Test {
 protected:
  void SetUp() override {
    t.put("a1", kBase, "web1", "/var/log/app.log", "app");
    t.put("a2", kBase + 1, "web1", "/var/log/app.log", "app");
    t.put("b1", kBase + 2, "web2", "/var/log/app.log", "app");
    t.put("c1", kBase + 3, "web2", "/var/log/other.log", "syslog");
    t.addIndex("_thefileseeks");
    t.put("seek app", kBase, "web1", "/var/log/app.log", "fileseek", "_thefileseeks");
    t.put("seek other", kBase, "web1", "/var/log/other.log", "fileseek", "_thefileseeks");
  }

  // Runs the delete; returns its "INFO" text, or "ERROR: " and the failure.
  Str remove(const Str& key, const Str& restriction = "", int64_t minTime = INT32_MIN, const Str& domain = "main") {
    auto q = t.query({}, domain);
    q->stateMachine().getTimeParser().setMinTime(minTime);
    ModuleArgs args{{"delete", key}};
    if (!restriction.empty()) args["deleterestrict"] = restriction;
    try {
      QueryModuleTestIndex::run<QueryDelete>(*q, args);
    } catch (const std::exception& e) {
      return Str("ERROR: ") + e.what();
    }
    auto it = q->getMessages().find("INFO");
    return it == q->getMessages().end() || it->second.size() != 1 ? Str("(no single INFO message)") : it->second[0];
  }

  // Raw texts left in an index, newest first.
  std::vector<Str> left(const Str& indexName = "main") {
    std::vector<Str> out;
    for (const ValueWrapper& v : t.ids({}, indexName)) {
      DataWrapper d;
      EXPECT_TRUE(t.index(indexName).read(v, d));
      out.push_back(d.raw);
    }
    return out;
  }

  QueryModuleTestIndex t;
};

// The deletes of one test go from the newest events to the oldest: the
// index's deletion mark of an event may clear that of the next older event
// in the same slice, which the index keeps as it is.
TEST_F(QueryDeleteTest, DeletesByKind) {
  EXPECT_EQ(remove("sourcetype::SYSLOG"), "Deleted 1 ids from sourcetype::SYSLOG");
  EXPECT_EQ(left(), (std::vector<Str>{"b1", "a2", "a1"}));
  // Only the query's time range, and words in any case.
  EXPECT_EQ(remove("host::WEB2", "", kBase + 3), "Deleted 0 ids from host::WEB2");
  EXPECT_EQ(remove("host::WEB2", "", kBase + 2), "Deleted 1 ids from host::WEB2");
  EXPECT_EQ(left(), (std::vector<Str>{"a2", "a1"}));
  EXPECT_EQ(remove("host::web1"), "Deleted 2 ids from host::web1");
  EXPECT_TRUE(left().empty());
  // A word stays in the table when its events are gone: deleting it again
  // finds it and deletes nothing.
  EXPECT_EQ(remove("host::web1"), "Deleted 0 ids from host::web1");
}

TEST_F(QueryDeleteTest, RefusedDeletes) {
  const struct {
    const char* key;
    const char* restriction;
    const char* expected;
  } rows[] = {
      {"host::nosuch", "", "ERROR: Unable to find host to delete : nosuch"},
      {"source::/nope", "", "ERROR: Unable to find source to delete : /nope"},
      {"sourcetype::x", "", "ERROR: Unable to find sourcetype to delete : x"},
      {"eventtype::login", "", "ERROR: Unable to find eventtype to delete : login"},
      {"color::red", "", "ERROR: Unrecognised deletion key color::red"},
      {"web1", "", "ERROR: Unrecognised deletion key web1"},
      {"", "", "ERROR: Unrecognised deletion key "},
      {"host::web1", "host::web2", "ERROR: you may not restrict delete::host:: by host"},
      {"source::/var/log/app.log", "source::x", "ERROR: you may not restrict delete::source:: by source"},
      {"sourcetype::app", "sourcetype::x", "ERROR: you may not restrict delete::sourcetype:: by sourcetype"},
      {"host::web1", "eventtype::x", "ERROR: Unrecognised deletion restriction eventtype::x"},
      {"host::web1", "web2", "ERROR: Unrecognised deletion restriction web2"},
      {"host::web1", "source::/var/log/app.log", "ERROR: Restricted deletes are not supported by this index"},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(Str(r.key) + " / " + r.restriction);
    EXPECT_EQ(remove(r.key, r.restriction), r.expected);
  }
  EXPECT_EQ(left().size(), 4u);
  EXPECT_EQ(remove("host::web1", "", INT32_MIN, "nosuch"), "ERROR: No domain nosuch could be found");
}

TEST_F(QueryDeleteTest, NeedsThePrivilege) {
  struct Nobody : IUserPermissions {
    int checkUserPerms(const Str&, const Str&) override { return 0; }
    std::vector<Str> getSearchFilters(const Str&) override { return {}; }
  };
  auto old = UserManager::setPermissions(std::make_shared<Nobody>());
  EXPECT_EQ(remove("host::web1"), "ERROR: insufficient privileges to perform this operation");
  UserManager::setPermissions(old);
  EXPECT_EQ(left().size(), 4u);
}

// The seek record of a source goes once no event of the source is left, so
// that the file is read in again.
TEST_F(QueryDeleteTest, SourceDeletedWholeLosesItsSeekRecord) {
  EXPECT_EQ(remove("source::/var/log/other.log"), "Deleted 1 ids from source::/var/log/other.log");
  EXPECT_EQ(left("_thefileseeks"), (std::vector<Str>{"seek app"}));
  EXPECT_EQ(remove("source::/var/log/app.log", "", kBase + 2), "Deleted 1 ids from source::/var/log/app.log");
  EXPECT_EQ(left("_thefileseeks"), (std::vector<Str>{"seek app"}));
  EXPECT_EQ(remove("source::/var/log/app.log"), "Deleted 2 ids from source::/var/log/app.log");
  EXPECT_TRUE(left("_thefileseeks").empty());
  EXPECT_TRUE(left().empty());
  // Deleting other kinds never touches the seek records.
  t.put("seek again", kBase, "web1", "/var/log/app.log", "fileseek", "_thefileseeks");
  t.put("d1", kBase, "web3", "/var/log/app.log", "app");
  EXPECT_EQ(remove("host::web3"), "Deleted 1 ids from host::web3");
  EXPECT_EQ(left("_thefileseeks"), (std::vector<Str>{"seek again"}));
}

}  // namespace
