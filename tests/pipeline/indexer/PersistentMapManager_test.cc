// The tag maps and the hash manager under them: changes persist in the
// record file, a failed save changes nothing, a refused file is never
// overwritten, and the maps keep to their own prefixes.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <fstream>
#include <iterator>

#include "pipeline/indexer/PersistentHashManager.h"
#include "pipeline/indexer/PersistentMapManager.h"

namespace {

using Tags = std::vector<Str>;

class MapTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/pmap_test.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir = Pathname(tmpl);
    hash()->setDirectory(dir);
  }
  void TearDown() override {
    hash()->setDirectory(Pathname());
    dir.removeRecursive();
  }
  static PersistentHashManager* hash() { return PersistentHashManager::instance(); }
  static std::string readAll(const Pathname& p) {
    std::ifstream in(p.c_str(), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }
  Pathname dir;
};

TEST_F(MapTest, TagsPersistPerMapAndKey) {
  PersistentMapManager* global = PersistentMapManager::globalTagMapInstance();
  PersistentMapManager* hosts = PersistentMapManager::hosttagMapInstance();
  EXPECT_TRUE(global->addTag("tag::host::web1", "prod"));
  EXPECT_TRUE(global->addTag("tag::host::web1", "frontend"));
  EXPECT_TRUE(global->addTag("tag::host::web1", "prod"));  // already there
  EXPECT_TRUE(global->addTag("tag::host::db1", "prod"));
  EXPECT_TRUE(global->setTags("tag::sourcetype::app", {"z", "a", "z"}));
  EXPECT_TRUE(hosts->addTag("tag::host::web1", "other-map"));
  EXPECT_FALSE(global->addTag("k", ""));
  EXPECT_FALSE(global->addTag("k", "two\nlines"));
  EXPECT_FALSE(global->setTags("k", {"ok", ""}));

  hash()->setDirectory(dir);  // read everything back from the file
  Tags t;
  ASSERT_TRUE(global->getTags("tag::host::web1", t));
  EXPECT_EQ(t, (Tags{"frontend", "prod"}));
  ASSERT_TRUE(global->getTags("tag::sourcetype::app", t));
  EXPECT_EQ(t, (Tags{"a", "z"}));
  ASSERT_TRUE(hosts->getTags("tag::host::web1", t));
  EXPECT_EQ(t, (Tags{"other-map"}));
  EXPECT_FALSE(global->getTags("k", t));
  EXPECT_TRUE(t.empty());

  EXPECT_EQ(global->getKeysWithTag("prod"), (Tags{"tag::host::db1", "tag::host::web1"}));
  EXPECT_EQ(global->getKeysWithTag("prod", "tag::host::w"), (Tags{"tag::host::web1"}));
  EXPECT_EQ(hosts->getKeysWithTag("prod"), Tags{});
  EXPECT_EQ(global->enumerate("tag::s").size(), 1u);

  // The last tag of a key takes the key with it.
  EXPECT_TRUE(global->removeTag("tag::host::db1", "prod"));
  EXPECT_TRUE(global->removeTag("tag::host::db1", "prod"));
  EXPECT_TRUE(global->removeKey("tag::sourcetype::app"));
  Str raw;
  EXPECT_FALSE(hash()->get("globaltag-tag::host::db1", raw));
  EXPECT_EQ(global->enumerate().size(), 1u);
  ASSERT_TRUE(hash()->get("globaltag-tag::host::web1", raw));
  EXPECT_EQ(raw, "frontend\nprod\n");
}

TEST_F(MapTest, SlotsKeepTheirPrefixes) {
  PersistentMapManager* typetag = PersistentMapManager::typetagMapInstance();
  EXPECT_EQ(PersistentMapManager::get_instance(PersistentMapManager::kTypeTagSlot, "typetag-", false), typetag);
  EXPECT_EQ(PersistentMapManager::get_instance(PersistentMapManager::kTypeTagSlot, "other-", true), nullptr);
  EXPECT_EQ(PersistentMapManager::get_instance(PersistentMapManager::kSlotCount, "x-", true), nullptr);
  EXPECT_EQ(PersistentMapManager::get_instance(12, "mine-", false), nullptr);
  PersistentMapManager* mine = PersistentMapManager::get_instance(12, "mine-", true);
  ASSERT_NE(mine, nullptr);
  EXPECT_EQ(PersistentMapManager::get_instance(12, "mine-", false), mine);
  EXPECT_EQ(PersistentMapManager::globaltypeMapInstance()->getPrefix(), "globaltypeid-");
  EXPECT_EQ(PersistentMapManager::sourcenameMapInstance()->getPrefix(), "sourcetypename-");
}

TEST_F(MapTest, FailedSaveAndRefusedFileChangeNothing) {
  PersistentMapManager* global = PersistentMapManager::globalTagMapInstance();
  ASSERT_TRUE(global->addTag("tag::a", "kept"));
  Pathname file = hash()->getPath();
  EXPECT_EQ(file, dir / "persistenthash.rec");
  const std::string saved = readAll(file);

  // The temporary the save writes through cannot be made.
  ASSERT_TRUE(Pathname(file + ".temp").mkdir());
  EXPECT_FALSE(global->addTag("tag::a", "lost"));
  EXPECT_FALSE(global->removeKey("tag::a"));
  Tags t;
  ASSERT_TRUE(global->getTags("tag::a", t));
  EXPECT_EQ(t, (Tags{"kept"}));
  EXPECT_EQ(readAll(file), saved);
  ASSERT_TRUE(Pathname(file + ".temp").rmdir());

  // A file without its version record is left alone; nothing reads or
  // changes until it is dealt with.
  std::ofstream(file.c_str(), std::ios::binary | std::ios::trunc) << "not a record file";
  hash()->setDirectory(dir);
  EXPECT_FALSE(global->getTags("tag::a", t));
  EXPECT_FALSE(global->addTag("tag::a", "x"));
  EXPECT_EQ(readAll(file), "not a record file");
  ASSERT_TRUE(file.unlink());
  hash()->setDirectory(dir);
  EXPECT_TRUE(global->addTag("tag::a", "x"));

  // Without a directory the pairs live in memory only.
  hash()->setDirectory(Pathname());
  EXPECT_TRUE(global->addTag("tag::m", "mem"));
  EXPECT_TRUE(global->hasTag("tag::m", "mem"));
  EXPECT_TRUE(hash()->getPath().empty());
}

}  // namespace
