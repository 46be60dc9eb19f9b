// The persistent key-value stores behind PersistentStorage: both kinds keep
// the same promises across a reopen; the engine store also survives a crash
// before its index was written, a torn last record and a damaged one, and
// scales past its in-memory and listing batches.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <fstream>
#include <iterator>

#include "pipeline/indexer/PersistentStorage.h"
#include "pipeline/indexer/STPersistentRecord.h"
#include "pipeline/indexer/STPersistentStorageImpl.h"
#include "util/Exceptions.h"

namespace {

using Entries = std::vector<std::pair<Str, Str>>;

class TempDirTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("VELMOR_ST_NEVER_FORK", "1", 1);
    char tmpl[] = "/tmp/pstorage_test.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir = Pathname(tmpl);
  }
  void TearDown() override { dir.removeRecursive(); }

  static std::string readAll(const Pathname& p) {
    std::ifstream in(p.c_str(), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }
  static void writeAll(const Pathname& p, const std::string& s) {
    std::ofstream out(p.c_str(), std::ios::binary | std::ios::trunc);
    out << s;
  }
  static std::vector<std::string> keysOf(const Entries& e) {
    std::vector<std::string> out;
    for (const auto& kv : e) out.push_back(kv.first);
    return out;
  }
  Pathname dir;
};

class BothStoresTest : public TempDirTest, public ::testing::WithParamInterface<EPersistentStorageType> {};

TEST_P(BothStoresTest, WriteReplaceRemoveAndEnumerateSurviveReopen) {
  {
    PersistentStorage s(GetParam(), "saved", dir);
    EXPECT_TRUE(s.write({"k1", "alice", "search", ""}, "v1"));
    EXPECT_TRUE(s.write({"k2", "bob", "search", ""}, "v2"));
    EXPECT_TRUE(s.write({"k3", "alice", "alert", "x"}, "v3"));
    EXPECT_TRUE(s.write({"k1", "alice", "alert", ""}, "v1b"));  // replaces, secondaries too
    EXPECT_TRUE(s.write({"quote'd", "", "", ""}, "it's"));
    EXPECT_TRUE(s.write({"gone", "alice", "", ""}, "x"));
    EXPECT_TRUE(s.remove("gone"));
    EXPECT_TRUE(s.remove("never-there"));
  }
  PersistentStorage s(GetParam(), "saved", dir);
  Str v;
  ASSERT_TRUE(s.read("k1", v));
  EXPECT_EQ(v, "v1b");
  ASSERT_TRUE(s.read("quote'd", v));
  EXPECT_EQ(v, "it's");
  EXPECT_FALSE(s.read("gone", v));
  EXPECT_FALSE(s.read("k", v));

  Entries out;
  ASSERT_TRUE(s.enumerate("k1", "k3", out));
  EXPECT_EQ(out, (Entries{{"k1", "v1b"}, {"k2", "v2"}}));
  out.clear();
  ASSERT_TRUE(s.enumerate("k3", "k1", out));  // empty range
  EXPECT_TRUE(out.empty());

  struct {
    PSKey match;
    std::vector<std::string> keys;
  } bySecondary[] = {
      {{"", "alice", "", ""}, {"k1", "k3"}},  // the old "search" of k1 and "gone" no longer count
      {{"", "alice", "search", ""}, {}},
      {{"", "", "search", ""}, {"k2"}},
      {{"", "", "", "x"}, {"k3"}},
      {{"", "", "", ""}, {"k1", "k2", "k3", "quote'd"}},
  };
  for (const auto& c : bySecondary) {
    out.clear();
    ASSERT_TRUE(s.enumerate(c.match, out));
    EXPECT_EQ(keysOf(out), c.keys) << c.match.secondary1 << "/" << c.match.secondary2;
  }
}

INSTANTIATE_TEST_SUITE_P(Kinds, BothStoresTest, ::testing::Values(ePersistentStorageSQLite, ePersistentStorageST));

TEST_F(TempDirTest, EngineStoreTakesAnyBytesAndManyKeys) {
  // Keys with the bytes the engine's terms cannot hold as they are, and keys
  // longer than a term that differ only past the cut.
  const Str nul("a\0b", 3), ctl("a\x01" "b"), star("a*"), longA = Str(3000, 'x') + "A", longB = Str(3000, 'x') + "B";
  const int kMany = 600;  // past the in-memory batch and the listing batch
  {
    STPersistentStorageImpl s(dir, "odd");
    for (const Str& k : {nul, ctl, star, Str("a"), Str("ab"), longA, longB})
      ASSERT_TRUE(s.write({k, "odd", "", ""}, "v-" + k));
    for (int i = 0; i < kMany; ++i)
      ASSERT_TRUE(s.write({Str::fromFormat("n%05d", i), i % 2 ? "odd" : "even", "", ""}, ToString(i)));
    ASSERT_TRUE(s.remove(longA));
  }
  STPersistentStorageImpl s(dir, "odd");
  Str v;
  for (const Str& k : {nul, ctl, star, Str("a"), Str("ab"), longB}) {
    ASSERT_TRUE(s.read(k, v)) << k;
    EXPECT_EQ(v, "v-" + k);
  }
  EXPECT_FALSE(s.read(longA, v));
  EXPECT_FALSE(s.read(Str("a\0", 2), v));  // not the same key as "a"
  EXPECT_FALSE(s.read("a\\*", v));

  Entries out;
  ASSERT_TRUE(s.enumerate("a", "b", out));
  EXPECT_EQ(keysOf(out), (std::vector<std::string>{"a", nul, ctl, star, "ab"}));
  out.clear();
  ASSERT_TRUE(s.enumerate("n00100", "n00550", out));
  ASSERT_EQ(out.size(), 450u);
  EXPECT_EQ(out.front(), (std::pair<Str, Str>{"n00100", "100"}));
  EXPECT_EQ(out.back().first, "n00549");
  out.clear();
  ASSERT_TRUE(s.enumerate("x", "y", out));
  EXPECT_EQ(keysOf(out), (std::vector<std::string>{longB}));
  out.clear();
  ASSERT_TRUE(s.enumerate(PSKey{"", "odd", "", ""}, out));
  EXPECT_EQ(out.size(), size_t(kMany / 2 + 6));
  out.clear();
  ASSERT_TRUE(s.enumerate(PSKey{}, out));
  EXPECT_EQ(out.size(), size_t(kMany + 6));
}

TEST_F(TempDirTest, EngineStoreRecoversFromCrashTornAndDamagedRecords) {
  Pathname crashed = dir / "crashed";
  {
    STPersistentStorageImpl s(dir, "c");
    ASSERT_TRUE(s.write({"synced", "", "", ""}, "old"));
    ASSERT_TRUE(s.sync());
    ASSERT_TRUE(s.write({"synced", "", "", ""}, "new"));  // only in the log and in memory
    ASSERT_TRUE(s.write({"pending", "p", "", ""}, "p1"));
    // A crash now leaves what the disk holds: copy it while the store is open.
    ASSERT_TRUE(crashed.mkdir());
    ASSERT_TRUE((dir / "persistentstorage").copyToRecursive(crashed / "persistentstorage"));
  }
  Pathname log = crashed / "persistentstorage" / "c.st" / "values";
  const std::string whole = readAll(log);
  // The crash tore a third write, whose value holds a whole record of its
  // own where a record could start (the value begins 36 + 4 bytes in):
  // neither may be read.
  STPersistentRecord inner, torn;
  inner.key.primary = "inner";
  inner.seq = 4;
  torn.key.primary = "tore";
  torn.seq = 4;
  inner.encode(torn.value);
  torn.value += "and the rest of the value";
  Str bytes;
  torn.encode(bytes);
  writeAll(log, whole + bytes.substr(0, bytes.size() - 3));
  {
    STPersistentStorageImpl s(crashed, "c");
    Str v;
    ASSERT_TRUE(s.read("synced", v));
    EXPECT_EQ(v, "new");
    ASSERT_TRUE(s.read("pending", v));
    EXPECT_EQ(v, "p1");
    EXPECT_FALSE(s.read("inner", v));
    EXPECT_FALSE(s.read("tore", v));
    Entries out;
    ASSERT_TRUE(s.enumerate(PSKey{"", "p", "", ""}, out));
    EXPECT_EQ(keysOf(out), (std::vector<std::string>{"pending"}));
    EXPECT_EQ(readAll(log), whole);  // the torn end was cut
    ASSERT_TRUE(s.write({"after", "", "", ""}, "a"));
  }
  // Damage inside the record that holds "new" (already indexed now): the key
  // reads as it stood before, never as the damaged bytes.
  std::string bytesNow = readAll(log);
  size_t at = bytesNow.find("new");
  ASSERT_NE(at, std::string::npos);
  bytesNow[at] = 'N';
  writeAll(log, bytesNow);
  const Entries expected = {{"after", "a"}, {"pending", "p1"}, {"synced", "old"}};
  {
    STPersistentStorageImpl s(crashed, "c");
    Str v;
    ASSERT_TRUE(s.read("synced", v));
    EXPECT_EQ(v, "old");
    ASSERT_TRUE(s.read("after", v));  // records behind the damage still read
    EXPECT_EQ(v, "a");
    Entries out;
    ASSERT_TRUE(s.enumerate("a", "z", out));
    EXPECT_EQ(out, expected);
  }
  // With the index gone the whole log is read again, stepping over the
  // damaged record.
  Pathname index = crashed / "persistentstorage" / "c.st" / "index";
  ASSERT_TRUE(index.removeRecursive());
  STPersistentStorageImpl s(crashed, "c");
  Entries out;
  ASSERT_TRUE(s.enumerate(PSKey{}, out));
  EXPECT_EQ(out, expected);
}

TEST_F(TempDirTest, EngineStoreRefusesSecondOpenerAndForeignLog) {
  {
    STPersistentStorageImpl s(dir, "one");
    EXPECT_THROW(STPersistentStorageImpl(dir, "one"), DbException);
  }
  EXPECT_NO_THROW(STPersistentStorageImpl(dir, "one"));
  Pathname foreign = dir / "persistentstorage" / "foreign.st";
  ASSERT_TRUE(foreign.mkdir_p());
  writeAll(foreign / "values", std::string(64, 'j'));
  EXPECT_THROW(STPersistentStorageImpl(dir, "foreign"), DbException);
  EXPECT_EQ(readAll(foreign / "values"), std::string(64, 'j'));  // left as it was
  writeAll(dir / "plain", "a file where the store directory would go");
  EXPECT_THROW(PersistentStorage(ePersistentStorageST, "x", dir / "plain"), DbException);
}

TEST(STPersistentRecordTest, DecodeTellsShortFromDamaged) {
  STPersistentRecord r;
  r.seq = 7;
  r.key = {"key", "s1", "", "s3"};
  r.value = std::string("va\0lue", 6);
  Str good;
  r.encode(good);
  ASSERT_EQ(good.size() % 8, 0u);
  STPersistentRecord back;
  uint64_t used = 0;
  ASSERT_EQ(STPersistentRecord::decode(good.data(), good.size(), back, used), STPersistentRecord::kOk);
  EXPECT_EQ(used, good.size());
  EXPECT_EQ(back.seq, 7u);
  EXPECT_EQ(back.key.secondary3, "s3");
  EXPECT_EQ(back.value, r.value);

  auto with = [&](size_t at, char c) {
    Str s = good;
    s[at] = c;
    return s;
  };
  struct {
    const char* what;
    Str bytes;
    STPersistentRecord::Status status;
  } cases[] = {
      {"cut in the head", good.substr(0, 20), STPersistentRecord::kShort},
      {"cut in the body", good.substr(0, good.size() - 8), STPersistentRecord::kShort},
      {"marker", with(0, 'X'), STPersistentRecord::kBad},
      {"sequence changed", with(8, 8), STPersistentRecord::kBad},
      {"unknown kind", with(12, 3), STPersistentRecord::kBad},
      {"value byte", with(36 + 3 + 2 + 2 + 1, 'X'), STPersistentRecord::kBad},
      {"padding", with(good.size() - 1, 'p'), STPersistentRecord::kBad},
      {"removal with a value", with(12, STPersistentRecord::kRemove), STPersistentRecord::kBad},
      {"length past the limit", with(35, '\x7f'), STPersistentRecord::kBad},
  };
  for (const auto& c : cases)
    EXPECT_EQ(STPersistentRecord::decode(c.bytes.data(), c.bytes.size(), back, used), c.status) << c.what;
}

}  // namespace
