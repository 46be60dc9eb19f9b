// A read-only open of an index (what search, info and query use) and the
// queries through it leave the disk exactly as they found it: no file or
// directory made, removed or rewritten, no time changed, with queries in
// process and in forked engines, with and without a manifest to trust.
#include <ftw.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <map>
#include <string>
#include <vector>

#include "pipeline/indexer/DatabasePartitionPolicy.h"
#include "libbundle/PropertiesMap.h"
#include "util/MainThread.h"

namespace {

const int64_t kBase = 1700000000;

// Path under the root -> type, size, modification time in nanoseconds.
using Listing = std::map<std::string, std::string>;

Listing* gListing = nullptr;
size_t gRootLen = 0;

int note(const char* path, const struct stat* sb, int type, struct FTW*) {
  char row[128];
  snprintf(row, sizeof row, "%c %lld %lld.%09ld", type == FTW_D ? 'd' : 'f', (long long)sb->st_size,
           (long long)sb->st_mtim.tv_sec, sb->st_mtim.tv_nsec);
  (*gListing)[std::string(path + gRootLen)] = row;
  return 0;
}

Listing listTree(const Pathname& root) {
  Listing out;
  gListing = &out;
  gRootLen = root.size();
  nftw(root.c_str(), note, 16, FTW_PHYS);
  gListing = nullptr;
  return out;
}

class ReadOnlyOpen : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!MainThread::instance()) new MainThread();
    setenv("VELMOR_ST_NEVER_FORK", "1", 1);
    char tmpl[] = "/tmp/readonly_open_test.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    root = Pathname(tmpl);
  }
  void TearDown() override {
    setenv("VELMOR_ST_NEVER_FORK", "1", 1);
    root.removeRecursive();
  }

  PolicyParameters params(const Pathname& at) {
    PropertiesMap m;
    m.put("homePath", at / "db");
    m.put("coldPath", at / "colddb");
    m.put("thawedPath", at / "thaweddb");
    m.put("maxResults", "100000");
    m.put("compressRawdata", "false");
    m.put("maxDataSize", "0");
    m.put("maxTotalDataSizeMB", "0");
    m.put("rotatePeriodInSecs", "0");
    m.put("optimizeEvery", "0");
    m.put("frozenTimePeriodInSecs", "0");
    PolicyParameters p = PolicyParameters::fromStanza("test", m);
    p.syncPeriod = 0;
    return p;
  }

  static Str rawOf(int i) { return Str::fromFormat("event %d user=u%d", i, i % 10); }

  static bool put(DatabasePartitionPolicy& p, int i) {
    Str raw = rawOf(i);
    Str t = Str::fromFormat("%lld", (long long)(kBase + i));
    WritableEvent ev;
    ev.raw = StrSegment(raw);
    ev.time = StrSegment(t);
    ev.host = "web1";
    ev.source = "/var/log/app.log";
    ev.sourceType = "app";
    return p.write(ev);
  }

  // Raw texts of the answers, newest first.
  static std::vector<std::string> found(DatabasePartitionPolicy& p, std::vector<Str> andTerms) {
    std::vector<ValueWrapper> vals;
    EXPECT_TRUE(p.query(andTerms, {}, {}, INT32_MIN, INT32_MAX, 100000, vals, 0));
    std::vector<DataWrapper> data;
    std::vector<bool> ok;
    p.read(vals, data, ok, 3);
    std::vector<std::string> out;
    for (size_t i = 0; i < vals.size(); ++i) out.push_back(ok[i] ? std::string(data[i].raw) : "<unreadable>");
    return out;
  }

  Pathname root;
};

TEST_F(ReadOnlyOpen, NeverWrittenIndexIsEmptyAndStaysAbsent) {
  Pathname at = root / "never";
  {
    DatabasePartitionPolicy p(params(at));
    p.start(true);
    EXPECT_TRUE(p.isReadOnly());
    EXPECT_TRUE(found(p, {}).empty());
    EXPECT_TRUE(found(p, {"u3"}).empty());
    EXPECT_EQ(p.getTotalEventCount(), 0u);
    EXPECT_FALSE(put(p, 1)) << "a read-only index takes no events";
    p.service(kBase);
    p.sync(true);
  }
  EXPECT_FALSE(at.exists());
  EXPECT_EQ(listTree(root).size(), 1u) << "only the scratch root itself";
}

TEST_F(ReadOnlyOpen, OpenQueryAndCloseWriteNothing) {
  Pathname at = root / "idx";
  {
    DatabasePartitionPolicy w(params(at));
    w.start();
    for (int i = 0; i < 200; ++i) ASSERT_TRUE(put(w, i));
    ASSERT_TRUE(w.rollHotDb());
    for (int i = 200; i < 260; ++i) ASSERT_TRUE(put(w, i));
    w.sync(true);
  }
  std::vector<std::string> all;
  for (int i = 259; i >= 0; --i) all.push_back(rawOf(i));
  // Each round takes away something a writing open would put back.
  struct Round {
    const char* what;
    const char* removed;  // under db/, or null
    bool forked;
  } rounds[] = {
      {"as written, in process", nullptr, false},
      {"as written, forked engines", nullptr, true},
      {"no manifest: word tables counted again", ".metaManifest", false},
      {"no creation time", "CreationTime", false},
      {"no hot bucket", "db-hot", true},
  };
  for (const Round& r : rounds) {
    SCOPED_TRACE(r.what);
    if (r.removed) {
      ASSERT_TRUE((at / "db" / r.removed).removeRecursive());
    }
    if (r.forked) {
      unsetenv("VELMOR_ST_NEVER_FORK");
    } else {
      setenv("VELMOR_ST_NEVER_FORK", "1", 1);
    }
    bool hot = (at / "db" / "db-hot").isDir();
    Listing before = listTree(root);
    {
      DatabasePartitionPolicy p(params(at));
      p.start(true);
      std::vector<std::string> got = found(p, {});
      if (hot) {
        EXPECT_EQ(got, all);
        EXPECT_EQ(found(p, {"u3"}).size(), 26u);
      } else {
        EXPECT_EQ(got, std::vector<std::string>(all.begin() + 60, all.end()));
      }
      EXPECT_EQ(p.getTotalEventCount(), hot ? 260u : 200u);
      p.service(kBase + 1000);
      p.sync(true);
    }
    EXPECT_EQ(listTree(root), before);
  }
}

}  // namespace
