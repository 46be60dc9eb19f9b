#include "util/FileDescriptor.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>

#include "util/Pathname.h"
#include "util/ReadableFileMapping.h"
#include "util/ScopedFileDescriptor.h"

namespace {

class FileDescriptorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/filedescriptor_test.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir = Pathname(tmpl);
  }
  void TearDown() override { dir.removeRecursive(); }
  Pathname dir;
};

TEST_F(FileDescriptorTest, GatherWritesPositionalIoAndShortReads) {
  ScopedFileDescriptor fd((dir / "f").openReadWriteOrCreate());
  ASSERT_TRUE(fd.isValid());
  char a[] = "abc", b[] = "defg";
  struct iovec iov[2] = {{a, 3}, {b, 4}};
  EXPECT_EQ(fd.writev(iov, 2), 7);
  EXPECT_TRUE(fd.format("<%d>", 42));
  EXPECT_EQ(fd.pwrite("XY", 2, 1), 2);
  char buf[16] = {};
  EXPECT_EQ(fd.pread(buf, sizeof buf, 0), 11);
  EXPECT_STREQ(buf, "aXYdefg<42>");
  EXPECT_TRUE(fd.seek_set(9));
  EXPECT_FALSE(fd.readFully(buf, 5));  // only 2 bytes left
  EXPECT_TRUE(fd.seek_set(0));
  EXPECT_TRUE(fd.readFully(buf, 11));
  EXPECT_TRUE(fd.sync());
  struct stat st;
  ASSERT_TRUE(fd.stat(st));
  EXPECT_EQ(st.st_size, 11);
}

TEST_F(FileDescriptorTest, FlagsAndInvalidDescriptors) {
  ScopedFileDescriptor fd((dir / "f").openCreateOrReplace());
  ASSERT_TRUE(fd.isValid());
  EXPECT_NE(fcntl(fd.get(), F_GETFD) & FD_CLOEXEC, 0);  // opened close-on-exec
  EXPECT_TRUE(fd.setCloseOnExec(false));
  EXPECT_EQ(fcntl(fd.get(), F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_TRUE(fd.setNonBlocking());
  EXPECT_NE(fcntl(fd.get(), F_GETFL) & O_NONBLOCK, 0);

  // Moving ownership closes exactly once.
  const int raw = fd.get();
  ScopedFileDescriptor other(std::move(fd));
  EXPECT_FALSE(fd.isValid());
  EXPECT_EQ(other.get(), raw);
  other.reset();
  EXPECT_EQ(fcntl(raw, F_GETFD), -1);
}

TEST_F(FileDescriptorTest, MappingWholeFilesRangesAndEmptyFiles) {
  const Pathname f = dir / "m";
  Str content;
  for (int i = 0; i < 3000; ++i) content.appendFormat("%04d", i);  // 12000 bytes, > 2 pages
  {
    ScopedFileDescriptor w(f.openCreateOrReplace());
    ASSERT_TRUE(w.writeFully(content));
  }
  ReadableFileMapping map;
  {
    ScopedFileDescriptor r(f.openReadOnly());
    ASSERT_TRUE(map.map(r));
  }  // the mapping outlives the descriptor
  EXPECT_EQ(map.segment(), StrSegment(content));

  ScopedFileDescriptor r(f.openReadOnly());
  ReadableFileMapping range;
  ASSERT_TRUE(range.map(r, 4097, 10));  // not page aligned
  EXPECT_EQ(range.segment(), StrSegment(content).substr(4097, 10));
  ReadableFileMapping moved(std::move(range));
  EXPECT_FALSE(range.isMapped());
  EXPECT_EQ(moved.segment(), StrSegment(content).substr(4097, 10));

  const Pathname empty = dir / "empty";
  { ScopedFileDescriptor w(empty.openCreateOrReplace()); }
  ScopedFileDescriptor e(empty.openReadOnly());
  ReadableFileMapping emap;
  EXPECT_TRUE(emap.map(e));
  EXPECT_TRUE(emap.isMapped());
  EXPECT_EQ(emap.size(), 0u);
  EXPECT_FALSE(emap.map(FileDescriptor()));
  EXPECT_FALSE(emap.isMapped());
}

}  // namespace
