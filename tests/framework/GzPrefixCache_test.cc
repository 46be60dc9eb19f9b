// GzPrefixCache: inflated prefixes of gzip files shared by readers: bytes
// right in any read order, one entry per file identity (a file replaced
// under its name is read afresh), the budget kept with least recently used
// entries leaving first, a broken stream failing reads past its break, and
// readers on several threads.
#include "framework/GzPrefixCache.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <zlib.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace {

class GzPrefixCacheTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/velmor-gzcache-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir = tmpl;
    GzPrefixCache::instance()->clear();
    budget = GzPrefixCache::instance()->budget();
  }
  void TearDown() override {
    GzPrefixCache::instance()->clear();
    GzPrefixCache::instance()->setBudget(budget);
    if (system(("rm -rf " + dir).c_str()) != 0) ADD_FAILURE() << "cleanup";
  }

  // Deterministic text of n bytes, different per seed.
  static std::string text(size_t n, unsigned seed) {
    std::string s(n, ' ');
    uint32_t x = seed * 2654435761u + 1;
    for (size_t i = 0; i < n; ++i) {
      x = x * 1103515245u + 12345u;
      s[i] = char('a' + (x >> 16) % 26);
      if (i % 80 == 79) s[i] = '\n';
    }
    return s;
  }
  std::string writeGz(const std::string& name, const std::string& content) {
    std::string path = dir + "/" + name;
    gzFile f = gzopen(path.c_str(), "wb");
    EXPECT_NE(f, nullptr);
    EXPECT_EQ(gzwrite(f, content.data(), unsigned(content.size())), int(content.size()));
    gzclose(f);
    return path;
  }
  std::shared_ptr<GzPrefixCache::Entry> open(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_GE(fd, 0);
    return GzPrefixCache::instance()->get(Str(path), fd);
  }
  static std::string at(GzPrefixCache::Entry& e, int64_t pos, size_t len) {
    std::string out(len, '\0');
    return e.read(pos, out.data(), len) ? out : std::string("<fail>");
  }

  std::string dir;
  size_t budget = 0;
};

TEST_F(GzPrefixCacheTest, ReadsInAnyOrderAndSharesOneEntryPerFile) {
  const std::string content = text(3 << 20, 1);
  const std::string path = writeGz("0.gz", content);
  auto e = open(path);
  ASSERT_NE(e, nullptr);
  // Newest first, then forward, then a read straddling inflate steps.
  for (int64_t pos : {int64_t(3 << 20) - 100, int64_t(2 << 20), int64_t(7), int64_t(1 << 20) - 50}) {
    EXPECT_EQ(at(*e, pos, 100), content.substr(size_t(pos), 100)) << pos;
  }
  EXPECT_EQ(at(*e, int64_t(content.size()) - 10, 11), "<fail>");  // one byte past the end
  EXPECT_EQ(e->size(), int64_t(content.size()));
  // A second reader of the same file gets the same entry: nothing inflated twice.
  EXPECT_EQ(open(path).get(), e.get());
  EXPECT_EQ(GzPrefixCache::instance()->heldBytes(), content.size());

  // The name now holds another file: a fresh entry with the new bytes, while
  // the old entry still serves its reader.
  const std::string other = text(5000, 2);
  ASSERT_EQ(::unlink(path.c_str()), 0);
  writeGz("0.gz", other);
  auto fresh = open(path);
  ASSERT_NE(fresh.get(), e.get());
  EXPECT_EQ(at(*fresh, 0, 5000), other);
  EXPECT_EQ(at(*e, 0, 100), content.substr(0, 100));
  EXPECT_EQ(GzPrefixCache::instance()->heldBytes(), 5000u);
}

// Concatenated members (as `cat a.gz b.gz` makes) are one file whose
// trailer tells only the last member's length: the buffer grows past it.
TEST_F(GzPrefixCacheTest, SeveralMembersReadAsOneFile) {
  const std::string first = text(700000, 5), second = text(3000, 6);
  const std::string a = writeGz("a.gz", first), b = writeGz("b.gz", second);
  const std::string both = dir + "/both.gz";
  ASSERT_EQ(system(("cat " + a + " " + b + " > " + both).c_str()), 0);
  auto e = open(both);
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(at(*e, 699990, 20), (first + second).substr(699990, 20));
  Str all;
  ASSERT_TRUE(e->readAll(all));
  EXPECT_EQ(std::string(all), first + second);
}

TEST_F(GzPrefixCacheTest, BudgetEvictsLeastRecentlyUsedFirst) {
  std::vector<std::string> contents, paths;
  for (unsigned i = 0; i < 3; ++i) {
    contents.push_back(text(1 << 20, 10 + i));
    paths.push_back(writeGz(std::to_string(i) + ".gz", contents.back()));
  }
  GzPrefixCache::instance()->setBudget(size_t(5) << 19);  // two and a half files
  auto a = open(paths[0]);
  auto b = open(paths[1]);
  EXPECT_EQ(a->size(), 1 << 20);
  EXPECT_EQ(b->size(), 1 << 20);
  EXPECT_EQ(open(paths[0]).get(), a.get());  // a is now the most recent
  auto c = open(paths[2]);
  EXPECT_EQ(c->size(), 1 << 20);
  EXPECT_LE(GzPrefixCache::instance()->heldBytes(), size_t(5) << 19);
  EXPECT_EQ(open(paths[0]).get(), a.get());  // kept
  EXPECT_NE(open(paths[1]).get(), b.get());  // b left first
  // An entry that left the cache still reads for the reader holding it.
  EXPECT_EQ(at(*b, 12345, 64), contents[1].substr(12345, 64));

  GzPrefixCache::instance()->setBudget(0);
  EXPECT_EQ(GzPrefixCache::instance()->heldBytes(), 0u);
  EXPECT_EQ(at(*c, (1 << 20) - 64, 64), contents[2].substr((1 << 20) - 64));
}

TEST_F(GzPrefixCacheTest, TruncatedStreamFailsPastItsBreak) {
  const std::string content = text(2 << 20, 3);
  const std::string path = writeGz("7.gz", content);
  off_t size = 0;
  {
    int fd = ::open(path.c_str(), O_RDONLY);
    size = lseek(fd, 0, SEEK_END);
    ::close(fd);
  }
  ASSERT_EQ(truncate(path.c_str(), size / 2), 0);
  auto e = open(path);
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(at(*e, 100, 50), content.substr(100, 50));  // before the break
  EXPECT_EQ(at(*e, int64_t(content.size()) - 50, 50), "<fail>");
  Str all;
  EXPECT_FALSE(e->readAll(all));
}

TEST_F(GzPrefixCacheTest, ReadersOnSeveralThreads) {
  const std::string content = text(4 << 20, 4);
  const std::string path = writeGz("9.gz", content);
  std::vector<std::thread> threads;
  std::vector<int> bad(4, 0);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      auto e = open(path);
      uint32_t x = uint32_t(t) + 7;
      for (int i = 0; i < 200; ++i) {
        x = x * 1103515245u + 12345u;
        int64_t pos = int64_t(x % (content.size() - 256));
        if (at(*e, pos, 256) != content.substr(size_t(pos), 256)) ++bad[size_t(t)];
      }
    });
  }
  for (auto& t : threads) t.join();
  for (int t = 0; t < 4; ++t) EXPECT_EQ(bad[size_t(t)], 0) << t;
}

}  // namespace
