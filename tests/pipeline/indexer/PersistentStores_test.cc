// The two persistent key-value stores: record files and SQLite, each written,
// reopened and read back, with their failure paths.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdint>
#include <fstream>

#include "pipeline/indexer/RecordFileManager.h"
#include "pipeline/indexer/SQLitePersistentStorageImpl.h"
#include "util/Exceptions.h"

namespace {

class StoresTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/stores_test.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir = Pathname(tmpl);
  }
  void TearDown() override { dir.removeRecursive(); }
  std::string readAll(const Pathname& p) {
    std::ifstream in(p.c_str(), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }
  void writeAll(const Pathname& p, const std::string& s) {
    std::ofstream out(p.c_str(), std::ios::binary);
    out << s;
  }
  static std::string record(const std::string& k, const std::string& v) {
    std::string out;
    uint32_t n = uint32_t(k.size());
    out.append(reinterpret_cast<const char*>(&n), 4);
    out += k;
    n = uint32_t(v.size());
    out.append(reinterpret_cast<const char*>(&n), 4);
    out += v;
    return out;
  }
  Pathname dir;
};

TEST_F(StoresTest, RecordFileRoundTripAndBytes) {
  Pathname path = dir / "tags.rec";
  {
    RecordFileManager m(path);
    EXPECT_TRUE(m.load());  // missing file: empty
    EXPECT_TRUE(m.put("hosttag-web", "prod"));
    EXPECT_TRUE(m.put("globaltag-x", std::string("bin\0ary", 7)));
    EXPECT_TRUE(m.put("hosttag-db", std::string(2500, 'v')));  // longer than one read piece
    EXPECT_FALSE(m.put(RecordFileManager::kVersionKey, "2"));
    EXPECT_TRUE(m.remove("globaltag-x"));
    EXPECT_FALSE(m.remove("globaltag-x"));
    ASSERT_TRUE(m.saveToFile());
  }
  EXPECT_EQ(readAll(path), record("_record-file-version", "1") + record("hosttag-db", std::string(2500, 'v')) +
                               record("hosttag-web", "prod"));
  RecordFileManager back(path);
  ASSERT_TRUE(back.load());
  Str v;
  ASSERT_TRUE(back.get("hosttag-web", v));
  EXPECT_EQ(v, "prod");
  auto e = back.enumerate("hosttag-");
  ASSERT_EQ(e.size(), 2u);
  EXPECT_EQ(e[0].first, "hosttag-db");
  EXPECT_EQ(back.enumerate("nothing").size(), 0u);
}

TEST_F(StoresTest, RecordFileDamage) {
  Pathname path = dir / "bad.rec";
  const std::string version = record("_record-file-version", "1");
  const std::string good = record("a", "1");
  struct {
    std::string bytes;
    bool throws;
    size_t entries;
  } cases[] = {
      {record("a", "1") + version, true, 0},                   // version not first
      {"", true, 0},                                           // empty file
      {version.substr(0, 10), true, 0},                        // cut in the version
      {version + good + "\x05\x00", false, 1},                 // short key length
      {version + good + record("b", "2").substr(0, 6), false, 1},  // short value length
      {version + good + std::string("\xff\xff\xff\x7f", 4) + "k", false, 1},  // key past the end
      {version + good + record("b", "22").substr(0, 10), false, 1},  // value cut
      {version + good + record("b", ""), false, 2},
  };
  for (const auto& c : cases) {
    writeAll(path, c.bytes);
    RecordFileManager m(path);
    if (c.throws) {
      EXPECT_THROW(m.load(), DbException);
    } else {
      EXPECT_TRUE(m.load());
    }
    EXPECT_EQ(m.size(), c.entries);
  }
}

TEST_F(StoresTest, SQLiteWriteReopenEnumerate) {
  {
    SQLitePersistentStorageImpl s(dir, "saved");
    EXPECT_TRUE(s.write({"k1", "alice", "search", ""}, "v1"));
    EXPECT_TRUE(s.write({"k2", "bob", "search", ""}, "v2"));
    EXPECT_TRUE(s.write({"k3", "alice", "alert", "x"}, "v3"));
    EXPECT_TRUE(s.write({"k1", "alice", "search", ""}, "v1b"));  // replaces
    EXPECT_TRUE(s.write({"quote'd", "", "", ""}, "it's"));
  }
  EXPECT_TRUE((dir / "persistentstorage" / "saved.db").exists());
  SQLitePersistentStorageImpl s(dir, "saved");
  Str v;
  ASSERT_TRUE(s.read("k1", v));
  EXPECT_EQ(v, "v1b");
  ASSERT_TRUE(s.read("quote'd", v));
  EXPECT_EQ(v, "it's");
  EXPECT_FALSE(s.read("nope", v));

  std::vector<std::pair<Str, Str>> out;
  ASSERT_TRUE(s.enumerate("k1", "k3", out));
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(out[1].first, "k2");

  out.clear();
  ASSERT_TRUE(s.enumerate(PSKey{"", "alice", "", ""}, out));
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(out[0].first, "k1");
  EXPECT_EQ(out[1].first, "k3");
  out.clear();
  ASSERT_TRUE(s.enumerate(PSKey{"", "alice", "search", ""}, out));
  ASSERT_EQ(out.size(), 1u);
  out.clear();
  ASSERT_TRUE(s.enumerate(PSKey{"", "", "", "x"}, out));
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(out[0].second, "v3");
  out.clear();
  ASSERT_TRUE(s.enumerate(PSKey{}, out));
  EXPECT_EQ(out.size(), 4u);

  EXPECT_TRUE(s.remove("k2"));
  EXPECT_FALSE(s.read("k2", v));
}

TEST_F(StoresTest, SQLiteRefusesANonDatabase) {
  (dir / "persistentstorage").mkdir();
  writeAll(dir / "persistentstorage" / "junk.db", std::string(4096, 'j'));
  EXPECT_THROW(SQLitePersistentStorageImpl(dir, "junk"), DbException);
  writeAll(dir / "plain", "not a directory");  // the store directory cannot be made under it
  EXPECT_THROW(SQLitePersistentStorageImpl(dir / "plain", "x"), DbException);
}

}  // namespace
