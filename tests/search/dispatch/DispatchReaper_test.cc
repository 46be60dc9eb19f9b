// The reaper: which job directories one pass removes (saved kept, cancelled
// removed even while running, running kept, idle past the ttl removed, the
// ttl clock set back by any rewrite of the status), and a reaper thread that
// reaps on its own and stops when told.
#include <gtest/gtest.h>
#include <sys/time.h>
#include <unistd.h>

#include "../processors/CatalogueHome.h"
#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "search/dispatch/DispatchDirs.h"
#include "search/dispatch/DispatchReaper.h"

namespace {

struct Root {
  Pathname path;
  Root() {
    rowtest::CatalogueHome::ensure();
    char tmpl[] = "/tmp/velmor-reaper-XXXXXX";
    path = Pathname(mkdtemp(tmpl));
  }
  ~Root() { path.removeRecursive(); }
};

// A job directory whose status says `done` and `ttl`, last active `age`
// seconds before `now`, with the given marker files.
void makeJob(const Pathname& dir, bool withStatus, const char* done, long ttl, long age, time_t now,
             std::vector<const char*> markers) {
  ASSERT_TRUE(dir.mkdir_p());
  for (const char* m : markers) (dir / m).openCreateOrReplace();
  if (!withStatus) return;
  SearchResults st;
  SearchResult* r = st.addNewResult();
  r->setValue(st.keyIndex("done", true), Str(done));
  r->setValue(st.keyIndex("ttl", true), ToString(ttl));
  ASSERT_TRUE(DispatchDirs::writeCsv(st, dir / "status.csv"));
  struct timeval times[2] = {{now - age, 0}, {now - age, 0}};
  ASSERT_EQ(utimes((dir / "status.csv").c_str(), times), 0);
}

TEST(DispatchReaperTest, OnePassRemovesWhatNobodyNeeds) {
  Root root;
  const time_t now = time(nullptr);
  struct Case {
    const char* name;
    bool withStatus;
    const char* done;
    long ttl, age;
    std::vector<const char*> markers;
    bool removed;
  } cases[] = {
      {"expired", true, "1", 600, 601, {}, true},
      {"fresh", true, "1", 600, 599, {}, false},
      {"saved-and-expired", true, "1", 600, 100000, {"save"}, false},
      {"cancelled-running", true, "0", 600, 0, {"cancel"}, true},
      {"saved-and-cancelled", true, "0", 600, 0, {"save", "cancel"}, false},
      {"running-and-expired", true, "0", 600, 100000, {}, false},
      {"paused-and-expired", true, "1", 10, 11, {"pause"}, true},
      {"being-made", false, "", 0, 0, {"cancel"}, false},
      {".hidden", true, "1", 1, 100000, {}, false},
  };
  for (const Case& c : cases) makeJob(root.path / c.name, c.withStatus, c.done, c.ttl, c.age, now, c.markers);
  size_t expected = 0;
  for (const Case& c : cases) expected += c.removed;
  EXPECT_EQ(DispatchReaper::reapDispatchDirectories(root.path, now), expected);
  for (const Case& c : cases) EXPECT_EQ((root.path / c.name).exists(), !c.removed) << c.name;

  // Unsaving makes a saved job reapable; a rewrite of its status restarts the
  // clock.
  (root.path / "saved-and-expired/save").unlink();
  makeJob(root.path / "fresh", true, "1", 600, 0, now + 1000, {});
  EXPECT_EQ(DispatchReaper::reapDispatchDirectories(root.path, now + 1000), 1u);
  EXPECT_FALSE((root.path / "saved-and-expired").exists());
  EXPECT_TRUE((root.path / "fresh").exists());
}

TEST(DispatchReaperTest, TheThreadReapsUntilItIsStopped) {
  Root root;
  const time_t now = time(nullptr);
  makeJob(root.path / "old", true, "1", 5, 1000, now, {});
  {
    DispatchReaper reaper(3600, root.path);
    reaper.start();
    // The first pass runs at once; wait for it (bounded).
    for (int i = 0; i < 2000 && (root.path / "old").exists(); ++i) usleep(5000);
    EXPECT_FALSE((root.path / "old").exists());
    EXPECT_TRUE(reaper.signalShutdown());  // stops and joins, however long the period
    reaper.stop();                         // harmless twice
  }
  // A reaper never started is dropped cleanly.
  DispatchReaper unused(1, root.path);
}

}  // namespace
