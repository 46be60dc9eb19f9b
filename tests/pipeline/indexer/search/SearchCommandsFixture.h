// SearchCommandsFixture: a scratch installation with a real IndexProcessor
// whose search commands are registered, for the tests of the commands that
// read the indexes. Events are written through IndexProcessor::execute and
// pipelines are parsed with SearchParser and run chunk by chunk until they
// report their results complete (a bounded number of rounds).
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "framework/PipelineData.h"
#include "framework/UserManager.h"
#include "libbundle/PropertyPages.h"
#include "loaderinfo/LoaderInfo.h"
#include "pipeline/indexer/IndexProcessor.h"
#include "pipeline/indexer/search/IndexSearchCommands.h"
#include "pipeline/indexer/search/UnifiedSearchDispatchThreadManager.h"
#include "search/SearchParser.h"
#include "util/MainThread.h"
#include "search/SearchProcessor.h"
#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "../ScratchHome.h"

namespace velmortest {

typedef std::map<std::string, std::string> Row;

// The public fields of each row, in order.
inline std::vector<Row> rowsOf(const SearchResults& results) {
  std::vector<Row> out;
  for (const SearchResult* r : results) {
    Row row;
    for (const auto& [key, index] : results.getKeyMap())
      if (const Str* v = r->getValuePtr(index)) row[key] = *v;
    out.push_back(row);
  }
  return out;
}

inline std::vector<std::string> column(const std::vector<Row>& rows, const std::string& key) {
  std::vector<std::string> out;
  for (const Row& r : rows) out.push_back(r.count(key) ? r.at(key) : "<none>");
  return out;
}

// Answers every capability as `allowed` and gives `filters` as every
// user's search filters.
class FakePermissions : public IUserPermissions {
 public:
  FakePermissions(bool allowed, std::vector<Str> filters) : _allowed(allowed), _filters(std::move(filters)) {}
  int checkUserPerms(const Str&, const Str&) override { return _allowed ? 1 : 0; }
  std::vector<Str> getSearchFilters(const Str&) override { return _filters; }

 private:
  bool _allowed;
  std::vector<Str> _filters;
};

class SearchCommandsFixture : public ::testing::Test {
 protected:
  static constexpr long kT0 = 1795132800;

  void SetUp() override {
    scratch = std::make_unique<ScratchHome>("searchcmds");
    ASSERT_TRUE(scratch->ok());
    dir = scratch->dir;
    home = scratch->home;
    if (MainThread::instance() == nullptr) new MainThread();  // the unified search starts threads
  }

  void TearDown() override {
    UnifiedSearchDispatchThreadManager::instance()->clear();  // background searches end first
    processor.reset();
    UserManager::setPermissions(nullptr);
    scratch.reset();
  }

  // Writes indexes.conf (index "main" with `mainExtra` lines) and starts
  // the processor with the search commands installed.
  void start(const std::string& mainExtra = "") {
    std::ofstream conf(home + "/etc/bundles/local/indexes.conf");
    conf << "[main]\nhomePath = $VELMOR_DB/defaultdb/db\ncoldPath = $VELMOR_DB/defaultdb/colddb\n"
         << "thawedPath = $VELMOR_DB/defaultdb/thaweddb\nfrozenTimePeriodInSecs = 2147483647\n"
         << mainExtra << "\n";
    conf.close();
    PropertyPages::instance("indexes").updateConfigs();
    IndexSearchCommands::install();
    processor = std::make_unique<IndexProcessor>();
    processor->init(false, false);
  }

  void write(const std::string& raw, const std::string& host, long t, const std::string& index = "") {
    PipelineData ev;
    ev.put(PipelineData::rawKey, raw);
    ev.put(PipelineData::hostKey, host);
    ev.put(PipelineData::sourceKey, "/var/log/app.log");
    ev.put(PipelineData::sourceTypeKey, "app");
    ev.put(PipelineData::timeKey, std::to_string(t));
    if (!index.empty()) ev.put(PipelineData::indexKey, index);
    ev.put("_sync", "1");
    ASSERT_EQ(processor->execute(ev), IndexProcessor::eOk);
  }

  // 60 events, one a second from kT0: "event <i> error|ok" alternating,
  // host web-01 for even i, web-02 for odd i, every third one "error".
  void writeStandardEvents() {
    for (int i = 0; i < 60; ++i)
      write("event " + std::to_string(i) + (i % 3 == 0 ? " error disk full" : " ok served"),
            i % 2 ? "web-02" : "web-01", kT0 + i);
  }

  // Runs `text` to the end: execute until the results are complete, at
  // most `maxRounds` times; all rows in order.
  std::vector<Row> run(const std::string& text, SearchResultsInfo& info, int maxRounds = 500) {
    std::unique_ptr<SearchProcessor> p(SearchParser::parse(text, true));
    std::vector<Row> all;
    for (int round = 0; round < maxRounds; ++round) {
      SearchResults chunk;
      info.resultsComplete = true;
      p->execute(chunk, info);
      std::vector<Row> rows = rowsOf(chunk);
      all.insert(all.end(), rows.begin(), rows.end());
      ++rounds;
      if (info.resultsComplete) return all;
    }
    ADD_FAILURE() << text << " did not complete in " << maxRounds << " rounds";
    return all;
  }
  std::vector<Row> run(const std::string& text) {
    SearchResultsInfo info;
    return run(text, info);
  }

  // The failure text of running `text`, or "" when it runs.
  std::string failure(const std::string& text) {
    try {
      SearchResultsInfo info;
      run(text, info);
    } catch (const std::exception& e) {
      return e.what();
    }
    return "";
  }

  std::unique_ptr<ScratchHome> scratch;
  std::string dir, home;
  std::unique_ptr<IndexProcessor> processor;
  int rounds = 0;
};

}  // namespace velmortest
