// The administrative commands of the inner query language: each command's
// text and what it did to the index, the failures, and unknown commands.
#include "pipeline/indexer/QueryDebugCommand.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "QueryModuleTestIndex.h"
#include "framework/UserManager.h"
#include "pipeline/indexer/CompiledQueryLanguage.h"
#include "pipeline/indexer/QueryCacheManager.h"
#include "util/Logger.h"

namespace {

class QueryDebugCommandTest : public ::testing::Test {
 protected:
  // Runs the command; returns its "INFO" text, or "ERROR: " and the failure.
  Str command(const Str& cmd, const Str& p1 = "", const Str& p2 = "", const Str& user = "admin") {
    auto q = t.query({}, "main", user);
    ModuleArgs args{{"!++cmd++", cmd}};
    if (!p1.empty()) args["!++param1++"] = p1;
    if (!p2.empty()) args["!++param2++"] = p2;
    try {
      QueryModuleTestIndex::run<QueryDebugCommand>(*q, args);
    } catch (const std::exception& e) {
      return Str("ERROR: ") + e.what();
    }
    const auto& info = q->getMessages();
    auto it = info.find("INFO");
    return it == info.end() || it->second.size() != 1 ? Str("(no single INFO message)") : it->second[0];
  }

  size_t rolledBuckets() {
    ScopedReader r(t.index().tableLock());
    return t.index().table().warm.size();
  }

  QueryModuleTestIndex t;
};

TEST_F(QueryDebugCommandTest, IndexCommands) {
  EXPECT_EQ(command("roll"), "Hot db was not rolled: it holds no events or its directories are locked.");
  t.put("disk error", 1700000000);
  t.put("disk ok", 1700000001, "web2");
  EXPECT_EQ(command("sync"), "Hot db sync performed.");
  EXPECT_EQ(command("optimize"), "Hot db optimized !");
  EXPECT_EQ(command("roll"), "Hot db rolled out to warm.");
  EXPECT_EQ(rolledBuckets(), 1u);
  EXPECT_EQ(command("rescan"), "Database directories rescanned.");
  EXPECT_EQ(command("validate"), "Database validated.");
  EXPECT_EQ(t.ids().size(), 2u);
}

TEST_F(QueryDebugCommandTest, ExportAndDelete) {
  t.put("disk error", 1700000000);
  t.put("disk ok", 1700000001);
  t.put("net error", 1700000002);
  Str file = t.root() / "export.txt";
  EXPECT_EQ(command("export", "Error", file), "exported 2 events with the keyword Error to file " + file);
  std::ifstream in(file.c_str());
  std::stringstream text;
  text << in.rdbuf();
  EXPECT_NE(text.str().find("net error"), std::string::npos);
  EXPECT_EQ(text.str().find("disk ok"), std::string::npos);
  EXPECT_EQ(command("export", "error", "/nonexistent/dir/x"), "ERROR: Cannot open for writing /nonexistent/dir/x");
  EXPECT_EQ(command("export", "error"), "ERROR: Export needs a keyword and a file.");

  EXPECT_EQ(command("delete", "disk"), "Deleted 2 ids from disk");
  EXPECT_EQ(t.ids().size(), 1u);
  EXPECT_EQ(command("delete"), "ERROR: Delete needs a keyword.");

  struct Nobody : IUserPermissions {
    int checkUserPerms(const Str&, const Str&) override { return 0; }
    std::vector<Str> getSearchFilters(const Str&) override { return {}; }
  };
  auto old = UserManager::setPermissions(std::make_shared<Nobody>());
  EXPECT_EQ(command("delete", "net"), "ERROR: insufficient privileges to perform this operation");
  UserManager::setPermissions(old);
  EXPECT_EQ(t.ids().size(), 1u);
}

TEST_F(QueryDebugCommandTest, ProcessCommands) {
  CompiledQueryLanguage& lang = CompiledQueryLanguage::getInstance();
  lang.setUseAdvancedQuery(true);
  EXPECT_EQ(command("toggleAdvQueries"), "Advanced queries disabled");
  EXPECT_FALSE(lang.getUseAdvancedQuery());
  EXPECT_EQ(command("toggleAdvQueries"), "Advanced queries enabled");
  EXPECT_EQ(command("toggleAdvQueries", "true"), "Advanced queries enabled");
  EXPECT_TRUE(lang.getUseAdvancedQuery());
  EXPECT_EQ(command("toggleAdvQueries", "no"), "Advanced queries disabled");
  lang.setUseAdvancedQuery(true);

  EXPECT_EQ(command("clearcache"), "Event cache cleared !");

  EXPECT_EQ(command("sleep", "0"), "Slept 0 seconds.");
  EXPECT_EQ(command("sleep"), "ERROR: Sleep time not supplied.");
  EXPECT_EQ(command("sleep", "soon"), "ERROR: Sleep time not supplied.");
  EXPECT_EQ(command("sleep", "-3"), "ERROR: Sleep time not supplied.");

  EXPECT_EQ(command("memhog", "1048576"), "Allocated 1048576 bytes.");
  EXPECT_EQ(command("memhog"), "ERROR: Memory size not supplied.");
  EXPECT_EQ(command("memhog", "lots"), "ERROR: Memory size not supplied.");
  EXPECT_EQ(command("memhog", "18446744073709551615"), "ERROR: Failed to allocate 18446744073709551615 bytes.");

  EXPECT_EQ(command("frobnicate"), "ERROR: Command frobnicate is unsupported");
  EXPECT_EQ(command(""), "ERROR: Command  is unsupported");
  EXPECT_EQ(command("Roll"), "ERROR: Command Roll is unsupported");
}

// Runs last in its process: it installs the log configuration.
TEST_F(QueryDebugCommandTest, LogChange) {
  static Logger category("DebugCommandTestCategory");
  static Logger other("DebugCommandTestOther");
  EXPECT_EQ(command("logchange", "DebugCommandTestCategory", "DEBUG"), "ERROR: Logging is not configured.");

  Str cfg = t.root() / "log.cfg";
  {
    std::ofstream out(cfg.c_str());
    out << "rootCategory=WARN\ncategory.DebugCommandTestOwn=ERROR\n";
  }
  ASSERT_TRUE(Logger::initialize(cfg, t.root(), false));
  static Logger own("DebugCommandTestOwn");
  EXPECT_FALSE(category.isDebugEnabled());

  EXPECT_EQ(command("logchange", "DebugCommandTestCategory", "debug"),
            "Setting priority of DebugCommandTestCategory to DEBUG");
  EXPECT_TRUE(category.isDebugEnabled());
  EXPECT_FALSE(other.isEnabled(Logger::INFO));

  EXPECT_EQ(command("logchange", "INFO"), "Setting root priority to INFO");
  EXPECT_TRUE(other.isEnabled(Logger::INFO));
  EXPECT_FALSE(own.isEnabled(Logger::INFO));  // has its own line in the configuration
  EXPECT_EQ(command("logchange", "root", "CRIT"), "Setting root priority to CRIT");
  EXPECT_FALSE(other.isEnabled(Logger::ERROR));

  EXPECT_EQ(command("logchange", "DebugCommandTestCategory", "LOUD"), "ERROR: Priority LOUD not recognized");
  EXPECT_EQ(command("logchange"), "ERROR: Priority  not recognized");
  EXPECT_TRUE(category.isDebugEnabled());
}

}  // namespace
