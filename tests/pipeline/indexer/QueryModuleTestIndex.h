// QueryModuleTestIndex: for the tests of the query modules: real indexes in
// a temporary directory, the container that names them, and queries built
// by hand against them (no compiler): the state machine knows the container
// and the domain, "SEARCH" holds one module, and results() holds the ids
// that the test gives.
#pragma once

#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include <map>
#include <memory>
#include <vector>

#include "libbundle/PropertiesMap.h"
#include "pipeline/indexer/DatabaseContainer.h"
#include "pipeline/indexer/DatabasePartitionPolicy.h"
#include "pipeline/indexer/Module.h"
#include "pipeline/indexer/Query.h"
#include "util/MainThread.h"
#include "util/Pathname.h"
#include "util/Str.h"

class QueryModuleTestIndex : public DatabaseContainer {
 public:
  QueryModuleTestIndex() {
    if (!MainThread::instance()) new MainThread();
    setenv("VELMOR_ST_NEVER_FORK", "1", 1);
    setenv("TZ", "UTC", 1);
    tzset();
    char tmpl[] = "/tmp/querymodule_test.XXXXXX";
    if (mkdtemp(tmpl)) _root = Pathname(tmpl);
    try {
      addIndex("main");
    } catch (...) {
      _root.removeRecursive();
      throw;
    }
  }
  ~QueryModuleTestIndex() override {
    _policies.clear();
    if (!_root.empty()) _root.removeRecursive();
  }

  const Pathname& root() const { return _root; }

  // Makes (and starts) another index.
  DatabasePartitionPolicy& addIndex(const Str& name) {
    PropertiesMap m;
    Pathname at = _root / name;
    m.put("homePath", at / "db");
    m.put("coldPath", at / "colddb");
    m.put("thawedPath", at / "thaweddb");
    m.put("maxResults", "500000");
    m.put("compressRawdata", "false");
    m.put("optimizeEvery", "0");
    m.put("maxDataSize", "0");
    m.put("maxTotalDataSizeMB", "0");
    m.put("rotatePeriodInSecs", "0");
    m.put("frozenTimePeriodInSecs", "0");
    PolicyParameters p = PolicyParameters::fromStanza(name, m);
    p.syncPeriod = 0;
    auto policy = std::make_unique<DatabasePartitionPolicy>(p);
    policy->start();
    DatabasePartitionPolicy& ref = *policy;
    _policies[name] = std::move(policy);
    return ref;
  }
  DatabasePartitionPolicy& index(const Str& name = "main") { return *_policies.at(name); }

  // Writes one event.
  void put(const char* raw, int64_t time, const char* host = "web1", const char* source = "/var/log/app.log",
           const char* sourceType = "app", const Str& indexName = "main") {
    Str t = Str::fromFormat("%lld", (long long)time);
    WritableEvent ev;
    ev.raw = StrSegment(raw);
    ev.time = StrSegment(t);
    ev.host = host;
    ev.source = source;
    ev.sourceType = sourceType;
    ASSERT_TRUE(index(indexName).write(ev));
  }

  // Ids of the events holding every term (all events for none), newest first.
  std::vector<ValueWrapper> ids(const std::vector<Str>& terms = {}, const Str& indexName = "main") {
    std::vector<ValueWrapper> out;
    EXPECT_TRUE(index(indexName).query(terms, {}, {}, INT32_MIN, INT32_MAX, 500000, out));
    return out;
  }

  // A query over an index with the given ids found, and one module under
  // "SEARCH" (as the compiler always adds one).
  std::unique_ptr<Query> query(const std::vector<ValueWrapper>& found, const Str& domain = "main",
                               const Str& user = "admin") {
    auto q = std::make_unique<Query>("test query", user, "qid", "qid");
    q->stateMachine().setContainer(this);
    q->stateMachine().setDomain(domain);
    q->stateMachine().setCancelChecker(nullptr);  // no search registry: never cancelled
    q->addModule("SEARCH", std::make_shared<Module>(q.get(), std::make_shared<ModuleArgs>(), "domainFinder"));
    q->results() = found;
    return q;
  }

  // Runs a module of class T with the arguments.
  template <typename T>
  static void run(Query& q, const ModuleArgs& args) {
    T m(&q, std::make_shared<ModuleArgs>(args), "module");
    m.runModule();
  }

  // Runs a module of class T with the query's output going to a buffer, and
  // returns what it wrote.
  template <typename T>
  static Str output(Query& q, const ModuleArgs& args) {
    char* buf = nullptr;
    size_t len = 0;
    FILE* f = open_memstream(&buf, &len);
    q.setOutput(f);
    try {
      run<T>(q, args);
    } catch (...) {
      q.setOutput(nullptr);
      fclose(f);
      free(buf);
      throw;
    }
    q.setOutput(nullptr);
    fclose(f);
    Str out(buf, len);
    free(buf);
    return out;
  }

  // The text of the exception a module of class T throws, or "" when none.
  template <typename T>
  static Str failure(Query& q, const ModuleArgs& args) {
    try {
      output<T>(q, args);
    } catch (const std::exception& e) {
      return e.what();
    }
    return "";
  }

  // --- DatabaseContainer ----------------------------------------------------------
  IPartitionPolicy* getPolicyByDomain(const Str& name) override {
    auto it = _policies.find(name);
    return it == _policies.end() ? nullptr : it->second.get();
  }
  Str getDefaultDomain() override { return "main"; }
  void enumerateDomains(std::vector<Str>& out) override {
    for (const auto& [name, p] : _policies) out.push_back(name);
  }

 private:
  Pathname _root;
  std::map<Str, std::unique_ptr<DatabasePartitionPolicy>> _policies;
};
