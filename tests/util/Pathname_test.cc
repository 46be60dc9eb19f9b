#include "util/Pathname.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "util/ScopedFileDescriptor.h"
#include "util/ScopedSaferFileDescriptor.h"
#include "util/ScopedFileStar.h"
#include "util/Timeval.h"

namespace {

TEST(PathnameText, JoinAddsExactlyOneSeparator) {
  const struct {
    const char* left;
    const char* right;
    const char* expected;
  } cases[] = {
      {"a", "b", "a/b"},      {"a/", "b", "a/b"},     {"a", "/b", "a/b"},
      {"a/", "//b", "a/b"},   {"", "a", "/a"},        {"a", "", "a"},
      {"", "", ""},           {"/", "etc", "/etc"},   {"a//", "b", "a//b"},
      {"a", "b/", "a/b/"},    {"a", "/", "a/"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Pathname(c.left) / c.right, c.expected) << c.left << " / " << c.right;
    Pathname p(c.left);
    p /= c.right;
    EXPECT_EQ(p, c.expected);
  }
  EXPECT_EQ(Pathname("a") / "b" / "c.conf", "a/b/c.conf");
  EXPECT_EQ(Pathname("a") + ".tmp", "a.tmp");  // + is plain concatenation
}

TEST(PathnameText, ElementsAndExtensions) {
  const struct {
    const char* path;
    const char* leaf;
    const char* parent;
    const char* ext;
    const char* base;
  } cases[] = {
      {"/", "/", "/", "", ""},
      {"", "/", "", "", ""},
      {"///", "/", "/", "", ""},
      {"a/b/", "b", "a", "", "b"},
      {"a/b.c/d", "d", "a/b.c", "", "d"},
      {"/x/y.tar.gz", "y.tar.gz", "/x", "gz", "y.tar"},
      {"/etc/.conf", ".conf", "/etc", "conf", ".conf"},
      {"/a", "a", "/", "", "a"},
      {"a", "a", "", "", "a"},
      {"a//b", "b", "a", "", "b"},
      {"dir/file.", "file.", "dir", "", "file"},
  };
  for (const auto& c : cases) {
    const Pathname p(c.path);
    EXPECT_EQ(p.toLeaf(), c.leaf) << c.path;
    EXPECT_EQ(p.toParent(), c.parent) << c.path;
    EXPECT_EQ(p.ext(), c.ext) << c.path;
    EXPECT_EQ(p.basenameWithoutExt(), c.base) << c.path;
  }
}

TEST(PathnameText, SeparatorAndDotDotCleanup) {
  const struct {
    const char* path;
    const char* noTrailing;
    const char* withTrailing;
    const char* noDouble;
  } seps[] = {
      {"/", "/", "/", "/"},      {"//", "/", "//", "/"},         {"", "", "/", ""},
      {"a//b///", "a//b", "a//b///", "a/b/"}, {"a", "a", "a/", "a"},
  };
  for (const auto& c : seps) {
    EXPECT_EQ(Pathname(c.path).removeTrailingSeps(), c.noTrailing) << c.path;
    EXPECT_EQ(Pathname(c.path).addTrailingSep(), c.withTrailing) << c.path;
    EXPECT_EQ(Pathname(c.path).removeDoubleSeps(), c.noDouble) << c.path;
  }
  const struct {
    const char* path;
    const char* expected;
  } dots[] = {
      {"a/b/../c", "a/c"},
      {"a/b/../../c", "c"},
      {"/x/y/..", "/x/"},
      {"/a/../../b", "/../b"},  // nothing above the root to remove
      {"../../x", "../../x"},
      {"a/..b/c", "a/..b/c"},   // "..b" is an ordinary element
      {"a/./../b", "a/./../b"},
      {"/etc/foo/../bar/../baz", "/etc/baz"},
  };
  for (const auto& c : dots) EXPECT_EQ(Pathname(c.path).removeDotDotSlash(), c.expected) << c.path;
}

TEST(PathnameShell, QuotingPicksTheLightestForm) {
  const struct {
    const char* path;
    const char* quoted;
  } cases[] = {
      {"", "\"\""},
      {"/usr/bin/ls", "/usr/bin/ls"},
      {"a b", "\"a b\""},
      {"a b$c", "\"a b\\$c\""},
      {"it's here", "\"it's here\""},
      {"a*b", "'a*b'"},
      {"$HOME", "'$HOME'"},
      {"a\\b", "'a\\b'"},
      {"a*$b", "a\\*\\$b"},       // special and dquote kind together
      {"it's", "it\\'s"},         // a single quote without blanks
      {"x=1;y", "'x=1;y'"},
      {"tab\there", "\"tab\there\""},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Pathname(c.path).shellQuoted(), c.quoted) << c.path;
    // Every quoted form reads back as the same single word.
    Str first, rest;
    ASSERT_TRUE(Pathname::splitArgShellQuoted(Pathname(c.path).shellQuoted(), first, rest)) << c.path;
    EXPECT_EQ(first, c.path);
    EXPECT_EQ(rest, "");
  }
}

TEST(PathnameShell, SplitReadsOneWord) {
  const struct {
    const char* text;
    bool ok;
    const char* first;
    const char* rest;
  } cases[] = {
      {"  ls -l", true, "ls", " -l"},
      {"\t\nword", true, "word", ""},
      {"'a b'c d", true, "a bc", " d"},
      {"\"a\\\"b\" x", true, "a\"b", " x"},
      {"\"a\\nb\"", true, "a\\nb", ""},  // backslash before an ordinary byte stays
      {"'a\\'", true, "a\\", ""},        // no escapes inside single quotes
      {"a\\ b c", true, "a b", " c"},
      {"\"\" x", true, "", " x"},
      {"'open", false, "", ""},
      {"\"open", false, "", ""},
      {"end\\", false, "", ""},
      {"   ", false, "", ""},
      {"", false, "", ""},
  };
  for (const auto& c : cases) {
    Str first("keep"), rest("keep");
    EXPECT_EQ(Pathname::splitArgShellQuoted(c.text, first, rest), c.ok) << c.text;
    if (c.ok) {
      EXPECT_EQ(first, c.first) << c.text;
      EXPECT_EQ(rest, c.rest) << c.text;
    }
  }
  // Splitting a text into its own `rest` is allowed.
  Str first, rest("one two three");
  ASSERT_TRUE(Pathname::splitArgShellQuoted(rest, first, rest));
  EXPECT_EQ(first, "one");
  EXPECT_EQ(rest, " two three");
}

class PathnameFs : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/pathname_test.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir = Pathname(tmpl);
  }
  void TearDown() override { dir.removeRecursive(); }

  static bool writeFile(const Pathname& p, const Str& text) {
    ScopedFileDescriptor fd(p.openCreateOrReplace());
    return fd.isValid() && fd.writeFully(text);
  }
  static Str readFile(const Pathname& p) {
    ScopedFileDescriptor fd(p.openReadOnly());
    Str s;
    if (!fd.isValid() || !fd.readAll(s)) return Str("<unreadable>");
    return s;
  }

  Pathname dir;
};

TEST_F(PathnameFs, MkdirPCreatesParentsAndAcceptsExisting) {
  const Pathname deep = dir / "a/b/c";
  EXPECT_FALSE(deep.mkdir());  // parent missing
  EXPECT_TRUE(deep.mkdir_p(Pathname::MKDIR_PRIVATE));
  EXPECT_TRUE(deep.isDir());
  EXPECT_TRUE(deep.mkdir_p());  // already there
  struct stat st;
  ASSERT_TRUE(deep.stat(st));
  EXPECT_EQ(st.st_mode & 0777, 0700u);
  // A file in the way is not a directory to descend into.
  ASSERT_TRUE(writeFile(dir / "file", "x"));
  EXPECT_FALSE((dir / "file/sub").mkdir_p());
}

TEST_F(PathnameFs, OpenFamilyModes) {
  const Pathname f = dir / "f";
  EXPECT_FALSE(f.openReadOnly().isValid());
  EXPECT_FALSE(f.openWriteOnlyExisting().isValid());
  {
    ScopedFileDescriptor fd(f.openCreateOnly(Pathname::CREATE_PRIVATE));
    ASSERT_TRUE(fd.isValid());
    EXPECT_TRUE(fd.writeFully(StrSegment("hello")));
  }
  EXPECT_FALSE(f.openCreateOnly().isValid());  // exists
  struct stat st;
  ASSERT_TRUE(f.stat(st));
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  {
    ScopedFileDescriptor fd(f.openCreateOrAppend());
    ASSERT_TRUE(fd.isValid());
    EXPECT_TRUE(fd.writeFully(StrSegment(" world")));
  }
  EXPECT_EQ(readFile(f), "hello world");
  { ScopedFileDescriptor fd(f.openCreateOrReplace()); }
  uint64_t size = 99;
  EXPECT_TRUE(f.getSize(size));
  EXPECT_EQ(size, 0u);
  EXPECT_FALSE((dir / "missing").getSize(size));
}

TEST_F(PathnameFs, SaferOpenNeverGivesStdio) {
  const Pathname f = dir / "f";
  ASSERT_TRUE(writeFile(f, "x"));
  const int savedStdin = dup(0);
  ASSERT_GE(savedStdin, 0);
  close(0);
  FileDescriptor plain = f.openReadOnly();
  EXPECT_EQ(plain.get(), 0);  // the lowest free number
  FileDescriptor safer = f.openReadOnlySafer();
  EXPECT_GE(safer.get(), 3);
  plain.close();
  {
    ScopedSaferFileDescriptor moved(f.openReadOnly());  // gets 0, moved above
    EXPECT_GE(moved.get(), 3);
    char c = 0;
    EXPECT_EQ(moved.read(&c, 1), 1);
    EXPECT_EQ(c, 'x');
  }
  EXPECT_EQ(fcntl(0, F_GETFD), -1);  // 0 was released again
  safer.close();
  dup2(savedStdin, 0);
  close(savedStdin);
}

TEST_F(PathnameFs, CopyRemoveAndLinksOverATree) {
  const Pathname src = dir / "src";
  ASSERT_TRUE((src / "sub/deeper").mkdir_p());
  ASSERT_TRUE(writeFile(src / "top.txt", "top"));
  ASSERT_TRUE(writeFile(src / "sub/deeper/leaf", Str(100000, 'q')));
  ASSERT_EQ(chmod((src / "top.txt").c_str(), 0640), 0);
  ASSERT_TRUE((src / "link").symlinkTo("top.txt"));

  const Pathname dst = dir / "dst";
  ASSERT_TRUE(src.copyToRecursive(dst));
  EXPECT_EQ(readFile(dst / "top.txt"), "top");
  EXPECT_EQ(readFile(dst / "sub/deeper/leaf"), Str(100000, 'q'));
  struct stat st;
  ASSERT_TRUE((dst / "top.txt").stat(st));
  EXPECT_EQ(st.st_mode & 0777, 0640u);
  EXPECT_TRUE((dst / "link").isSymlink());
  Str target;
  ASSERT_TRUE((dst / "link").readlink(target));
  EXPECT_EQ(target, "top.txt");
  EXPECT_FALSE((dst / "top.txt").readlink(target));

  // Removing a link removes the link, not what it points to.
  ASSERT_TRUE((dir / "outside").symlinkTo(src.c_str()));
  EXPECT_TRUE((dir / "outside").removeRecursive());
  EXPECT_TRUE(src.isDir());

  // Sizes add up the regular files only; the link to a file counts nothing.
  EXPECT_EQ(dst.treeSize(), 100003u);
  EXPECT_EQ((dst / "top.txt").treeSize(), 3u);
  EXPECT_EQ((dir / "missing").treeSize(), 0u);

  EXPECT_TRUE(dst.removeRecursive());
  EXPECT_FALSE(dst.exists());
  EXPECT_FALSE(dst.removeRecursive());  // nothing there
  EXPECT_FALSE(src.copyTo(dir / "x"));  // a directory is no file to copy
}

TEST_F(PathnameFs, TouchTruncateAndListing) {
  const Pathname f = dir / "f";
  EXPECT_FALSE(f.touchExisting());  // never creates
  EXPECT_FALSE(f.exists());
  ASSERT_TRUE(writeFile(f, "0123456789"));
  EXPECT_TRUE(f.truncate(4));
  EXPECT_EQ(readFile(f), "0123");
  struct timeval old[2] = {{1000, 0}, {1000, 0}};
  ASSERT_EQ(utimes(f.c_str(), old), 0);
  Timeval m;
  ASSERT_TRUE(f.getMtime(m));
  EXPECT_EQ(m.sec(), 1000);
  EXPECT_TRUE(f.touchExisting());
  ASSERT_TRUE(f.getMtime(m));
  EXPECT_GT(m.sec(), 1000);
  ASSERT_TRUE((dir / ".hidden").mkdir());
  std::vector<Str> names;
  ASSERT_TRUE(dir.readDirectory(names));  // sorted, without "." and ".."
  EXPECT_EQ(names, (std::vector<Str>{".hidden", "f"}));
  EXPECT_FALSE((dir / "none").readDirectory(names));
}

TEST_F(PathnameFs, FileStarReadsLines) {
  const Pathname f = dir / "lines";
  ASSERT_TRUE(writeFile(f, Str("one\n\nthree\0x\n", 13) + Str(5000, 'L')));  // no final newline
  ScopedFileStar fs(f.fopen("r"));
  ASSERT_TRUE(fs.isValid());
  Str line;
  ASSERT_TRUE(fs.readline(line));
  EXPECT_EQ(line, "one");
  ASSERT_TRUE(fs.readline(line));
  EXPECT_EQ(line, "");
  ASSERT_TRUE(fs.readline(line));
  EXPECT_EQ(line, Str("three\0x", 7));
  ASSERT_TRUE(fs.readline(line));
  EXPECT_EQ(line, Str(5000, 'L'));
  EXPECT_FALSE(fs.readline(line));
  EXPECT_EQ(line, "");
  EXPECT_FALSE((dir / "missing").fopen("r").isValid());
}

}  // namespace
