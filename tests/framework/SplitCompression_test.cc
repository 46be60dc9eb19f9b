#include "framework/SplitCompression.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "framework/ReadContext.h"
#include "framework/WriteContext.h"

namespace {

class ScratchDir {
 public:
  ScratchDir() {
    char tmpl[] = "/tmp/rawdata_test.XXXXXX";
    path = ::mkdtemp(tmpl);
  }
  ~ScratchDir() { Pathname(Str(path)).removeRecursive(); }
  std::string path;
};

std::string fileBytes(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::vector<std::string> loghubLines(const char* system) {
  std::vector<std::string> lines;
  std::ifstream in(std::string(VELMOR_SOURCE_DIR) + "/../shared/data/loghub/" + system + "/" + system + "_2k.log");
  for (std::string line; std::getline(in, line);)
    if (!line.empty()) lines.push_back(line);
  return lines;
}

std::string le32(uint32_t v) { return std::string(reinterpret_cast<const char*>(&v), 4); }

struct Event {
  int64_t address;
  int32_t time;
  std::string raw, meta;
};

void expectEvent(SplitCompression& sc, const Event& e, std::unique_ptr<ReadContext>* ctx) {
  Str raw, meta;
  int32_t time = 0;
  ASSERT_TRUE(sc.read(e.address, raw, meta, time, ctx)) << "address " << e.address;
  EXPECT_EQ(raw, e.raw);
  EXPECT_EQ(meta, e.meta);
  EXPECT_EQ(time, e.time);
}

}  // namespace

// The bytes of records: header, text, trailing rawLen, zero padding to the
// 32-byte unit, and the addresses that follow from them.
TEST(SplitCompression, RecordBytesAndAddresses) {
  ScratchDir dir;
  SplitCompression sc(Pathname(Str(dir.path + "/rawdata")));
  EXPECT_EQ(sc.addressShift(), 5);
  EXPECT_TRUE(Pathname(Str(dir.path + "/rawdata/.compressedAddresses")).isDir());

  // 17 + 5 + 9 = 31 bytes: one byte of padding; first record is address 0.
  EXPECT_EQ(sc.write(1700000000, "hello", "host::sig"), 0);
  // 17 + 15 = 32 bytes exactly: no padding, empty metadata.
  EXPECT_EQ(sc.write(-5, "fifteen-bytes!!", ""), 1);
  // 17 + 40 = 57 bytes: 7 bytes of padding, two units.
  EXPECT_EQ(sc.write(7, std::string(40, 'x'), ""), 2);
  EXPECT_EQ(sc.write(8, "next", ""), 4);

  std::string expected = "|" + le32(5 + 9 + 8) + le32(0) + le32(1700000000) + "hellohost::sig" + le32(5) +
                         std::string(1, '\0');
  expected += "|" + le32(15 + 8) + le32(0) + le32(uint32_t(-5)) + "fifteen-bytes!!" + le32(15);
  expected += "|" + le32(40 + 8) + le32(0) + le32(7) + std::string(40, 'x') + le32(40) + std::string(7, '\0');
  expected += "|" + le32(4 + 8) + le32(0) + le32(8) + "next" + le32(4) + std::string(11, '\0');
  EXPECT_EQ(fileBytes(dir.path + "/rawdata/0"), expected);

  expectEvent(sc, {0, 1700000000, "hello", "host::sig"}, nullptr);
  expectEvent(sc, {1, -5, "fifteen-bytes!!", ""}, nullptr);
  expectEvent(sc, {2, 7, std::string(40, 'x'), ""}, nullptr);
  Str raw, meta;
  int32_t t;
  EXPECT_FALSE(sc.read(3, raw, meta, t)) << "address inside a record's padding";
  EXPECT_FALSE(sc.read(5, raw, meta, t)) << "address past the end";
  EXPECT_FALSE(sc.read(-1, raw, meta, t));
}

// Real log lines across several rolled files: names are base offsets, rolled
// files end up gzipped, and every event reads back forwards, backwards,
// with and without a kept context.
TEST(SplitCompression, RoundTripAcrossRollsAndGzip) {
  std::vector<std::string> lines = loghubLines("Linux");
  if (lines.empty()) GTEST_SKIP() << "loghub Linux_2k.log not present";
  ScratchDir dir;
  const Pathname path(Str(dir.path + "/rawdata"));
  std::vector<Event> events;
  {
    SplitCompression sc(path, 16 * 1024);
    for (size_t i = 0; i < lines.size(); ++i) {
      const int32_t time = int32_t(1600000000 + i);
      std::string meta = i % 3 == 0 ? "" : "source::/var/log/messages::" + std::to_string(i);
      int64_t addr = sc.write(time, lines[i], meta);
      ASSERT_GE(addr, 0);
      if (!events.empty()) {
        ASSERT_GT(addr, events.back().address);
      }
      events.push_back({addr, time, lines[i], meta});
    }
    sc.waitForCompression();

    std::map<int64_t, Str> files = sc.files();
    ASSERT_GT(files.size(), 5u);
    int64_t prevBase = -1;
    for (auto it = files.begin(); it != files.end(); ++it) {
      const bool last = std::next(it) == files.end();
      EXPECT_EQ(it->first % 32, 0);
      EXPECT_EQ(it->second, std::to_string(it->first) + (last ? "" : ".gz"));
      EXPECT_TRUE(Pathname(path + "/" + it->second).exists());
      if (prevBase >= 0) {
        // A file rolls once a record starts past the roll size.
        EXPECT_GT(it->first - prevBase, 16 * 1024);
        EXPECT_LT(it->first - prevBase, 16 * 1024 + 1024);
      }
      prevBase = it->first;
    }
    // endAddr names the start of the next file, -1 in the last.
    auto second = std::next(files.begin());
    EXPECT_EQ(sc.endAddr(0), second->first >> 5);
    EXPECT_EQ(sc.endAddr(events.back().address), -1);

    std::unique_ptr<ReadContext> ctx;
    for (const Event& e : events) expectEvent(sc, e, &ctx);
    for (auto it = events.rbegin(); it != events.rend(); ++it) expectEvent(sc, *it, &ctx);
    for (size_t i = 0; i < events.size(); i += 97) expectEvent(sc, events[i], nullptr);
  }
  // Reopened: the same addresses, and writing resumes in the plain last file.
  SplitCompression again(path, 16 * 1024);
  EXPECT_EQ(again.addressShift(), 5);
  std::unique_ptr<ReadContext> ctx;
  for (size_t i = 0; i < events.size(); i += 13) expectEvent(again, events[i], &ctx);
  int64_t addr = again.write(5, "after reopen", "");
  EXPECT_GT(addr, events.back().address);
  expectEvent(again, {addr, 5, "after reopen", ""}, &ctx);
}

// A journal whose last file was gzipped continues in a new file that starts
// at the (aligned) end of the compressed one.
TEST(SplitCompression, ReopenAfterCloseStartsNewFile) {
  ScratchDir dir;
  const Pathname path(Str(dir.path + "/rawdata"));
  int64_t first;
  {
    SplitCompression sc(path);
    first = sc.write(1, "one event", "m");
    sc.close();
    EXPECT_EQ(sc.files().begin()->second, "0.gz");
  }
  SplitCompression sc(path);
  int64_t second = sc.write(2, "two", "");
  EXPECT_EQ(second, 1);
  EXPECT_EQ(sc.files().size(), 2u);
  EXPECT_TRUE(Pathname(path + "/32").exists());
  expectEvent(sc, {first, 1, "one event", "m"}, nullptr);
  expectEvent(sc, {second, 2, "two", ""}, nullptr);
}

// A file compressed after the journal listed it is found under ".gz"; an
// open context on the plain file keeps reading it after the rename.
TEST(SplitCompression, FileGzippedUnderReaderIsFoundByEitherName) {
  ScratchDir dir;
  const Pathname path(Str(dir.path + "/rawdata"));
  SplitCompression sc(path, SplitCompression::kDefaultRollSize, 5, false);
  std::vector<Event> events;
  for (int i = 0; i < 50; ++i) {
    std::string raw = "event number " + std::to_string(i);
    events.push_back({sc.write(i, raw, "k"), i, raw, "k"});
  }
  std::unique_ptr<ReadContext> before;
  expectEvent(sc, events[0], &before);
  ASSERT_FALSE(before->compressed());
  sc.close();
  ASSERT_EQ(std::system(("gzip -f " + path + "/0").c_str()), 0);
  ASSERT_FALSE(Pathname(path + "/0").exists());
  EXPECT_EQ(sc.files().begin()->second, "0") << "the journal was not told";

  for (const Event& e : events) expectEvent(sc, e, &before);
  std::unique_ptr<ReadContext> after;
  for (const Event& e : events) expectEvent(sc, e, &after);
  EXPECT_TRUE(after->compressed());
  EXPECT_EQ(after->fileName(), path + "/0.gz");
}

// A write cut short leaves a torn record at the end of the last file: it
// reads as a failure, the records before it still read, and the next write
// pads past it to a boundary.
TEST(SplitCompression, TornLastRecordIsRecovered) {
  ScratchDir dir;
  const Pathname path(Str(dir.path + "/rawdata"));
  std::vector<Event> events;
  {
    SplitCompression sc(path);
    for (int i = 0; i < 3; ++i) {
      std::string raw = "line " + std::to_string(i) + std::string(30, 'a' + i);
      events.push_back({sc.write(i, raw, "m"), i, raw, "m"});
    }
  }
  const Pathname file(path + "/0");
  uint64_t size;
  ASSERT_TRUE(file.getSize(size));
  const int64_t tornAt = events[2].address * 32 + 20;
  ASSERT_LT(uint64_t(tornAt), size);

  for (int64_t cut : {tornAt, events[2].address * 32 + 3, events[2].address * 32 + 1}) {
    SCOPED_TRACE(cut);
    ASSERT_TRUE(file.truncate(cut));
    SplitCompression sc(path);
    Str raw, meta;
    int32_t t;
    EXPECT_FALSE(sc.read(events[2].address, raw, meta, t));
    expectEvent(sc, events[0], nullptr);
    expectEvent(sc, events[1], nullptr);
    const int64_t addr = sc.write(9, "fresh", "");
    EXPECT_EQ(addr, events[2].address + 1);
    expectEvent(sc, {addr, 9, "fresh", ""}, nullptr);
    ASSERT_TRUE(file.truncate(tornAt));
  }
}

// Corrupt or missing data reads as false, never as a crash or a throw.
TEST(SplitCompression, BadDataReadsAsFailure) {
  ScratchDir dir;
  const Pathname path(Str(dir.path + "/rawdata"));
  SplitCompression sc(path, SplitCompression::kDefaultRollSize, 5, false);
  Str raw, meta;
  int32_t t;
  EXPECT_FALSE(sc.read(0, raw, meta, t)) << "empty journal";
  ASSERT_EQ(sc.write(1, "good record", ""), 0);
  ASSERT_EQ(sc.write(2, "second record", ""), 1);
  sc.close();
  const std::string file = path + "/0";
  std::string bytes = fileBytes(file);

  struct Case {
    const char* what;
    size_t at;
    std::string with;
  };
  const Case cases[] = {
      {"bad separator", 32, "#"},
      {"len past the end", 33, le32(1000)},
      {"len too short for a body", 33, le32(3)},
      {"zero rawLen", 32 + 13 + 13, le32(0)},
      {"rawLen above the text", 32 + 13 + 13, le32(14)},
      {"segment count past the body", 37, le32(0x7fffffff)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::string broken = bytes;
    broken.replace(c.at, c.with.size(), c.with);
    std::ofstream(file, std::ios::binary | std::ios::trunc) << broken;
    SplitCompression reader(path);
    EXPECT_FALSE(reader.read(1, raw, meta, t));
    expectEvent(reader, {0, 1, "good record", ""}, nullptr);
  }

  // An address before the first file.
  Pathname(Str(file)).renameTo(Pathname(path + "/64"));
  SplitCompression shifted(path);
  EXPECT_FALSE(shifted.read(0, raw, meta, t));
}

// A journal with files but no ".compressedAddresses" uses byte offsets as
// addresses; the marker maps shifted addresses back to the same events.
TEST(SplitCompression, AddressMarkerDecidesTheShift) {
  ScratchDir dir;
  const Pathname path(Str(dir.path + "/rawdata"));
  std::vector<Event> events;
  {
    SplitCompression sc(path, SplitCompression::kDefaultRollSize, 5, false);
    for (int i = 0; i < 20; ++i) {
      std::string raw(size_t(1 + i * 7), char('A' + i));
      events.push_back({sc.write(i, raw, ""), i, raw, ""});
    }
  }
  {
    SplitCompression marked(path);
    ASSERT_EQ(marked.addressShift(), 5);
    for (const Event& e : events) expectEvent(marked, e, nullptr);
  }
  ASSERT_TRUE(Pathname(path + "/.compressedAddresses").rmdir());
  std::ofstream(path + "/notes.txt") << "x";  // logged and ignored by the scan
  SplitCompression old(path);
  EXPECT_EQ(old.addressShift(), 0);
  std::unique_ptr<ReadContext> ctx;
  for (Event e : events) {
    e.address *= 32;
    expectEvent(old, e, &ctx);
  }
  // New records in an old journal are packed with no padding.
  const int64_t a = old.write(50, "abc", "");
  const int64_t b = old.write(51, "de", "");
  EXPECT_EQ(b - a, 17 + 3);
  expectEvent(old, {b, 51, "de", ""}, &ctx);
}

// A file rolls after the first record that starts more than the roll size
// past its base, not at it; addresses run on across the roll.
TEST(SplitCompression, RollsOnlyPastTheRollSize) {
  ScratchDir dir;
  SplitCompression sc(Pathname(Str(dir.path + "/rawdata")), 64, 5, false);
  std::vector<Event> events;
  for (int i = 0; i < 6; ++i) {
    std::string raw = "exactly-15-byte";  // 32-byte records
    raw[0] = char('a' + i);
    events.push_back({sc.write(i, raw, ""), i, raw, ""});
    EXPECT_EQ(events.back().address, i);
  }
  std::map<int64_t, Str> files = sc.files();
  ASSERT_EQ(files.size(), 2u);
  EXPECT_EQ(files.begin()->second, "0");
  EXPECT_EQ(files.rbegin()->first, 128);
  EXPECT_EQ(sc.endAddr(3), 4);
  EXPECT_EQ(sc.endAddr(4), -1);
  std::unique_ptr<ReadContext> ctx;
  for (const Event& e : events) expectEvent(sc, e, &ctx);
}

// Readers beside the writer: every address already handed out reads back,
// whether its file is open, rolled, being gzipped or gzipped.
TEST(SplitCompression, ReadsBesideRollsAndCompression) {
  ScratchDir dir;
  SplitCompression sc(Pathname(Str(dir.path + "/rawdata")), 2048);
  constexpr int kEvents = 3000;
  std::vector<int64_t> addrs(kEvents);
  std::atomic<int> published{0};
  std::atomic<int> failures{0};
  std::thread reader([&] {
    std::unique_ptr<ReadContext> ctx;
    Str raw, meta;
    int32_t t;
    for (int n; (n = published.load()) < kEvents;) {
      if (n == 0) continue;
      for (int i : {n - 1, n / 2, 0}) {
        if (!sc.read(addrs[i], raw, meta, t, &ctx) || t != i || raw != "concurrent " + std::to_string(i))
          failures++;
      }
    }
  });
  for (int i = 0; i < kEvents; ++i) {
    addrs[i] = sc.write(i, "concurrent " + std::to_string(i), "");
    published.store(i + 1);
  }
  reader.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_GT(sc.files().size(), 10u);
}

// With a write buffer the file holds the same bytes at the same addresses,
// but only after a flush; a read of a buffered record flushes first, and a
// record larger than the buffer goes straight out after what is buffered.
TEST(SplitCompression, BufferedRecordsReachTheFileAtFlush) {
  ScratchDir dir;
  ScratchDir plainDir;
  SplitCompression sc(Pathname(Str(dir.path + "/rawdata")));
  SplitCompression plain(Pathname(Str(plainDir.path + "/rawdata")));
  sc.setWriteBuffer(256);
  const std::string file = dir.path + "/rawdata/0";
  std::vector<Event> events;
  for (int i = 0; i < 5; ++i) {
    std::string raw = "event number " + std::to_string(i);
    int64_t a = sc.write(100 + i, raw, "m");
    EXPECT_EQ(a, plain.write(100 + i, raw, "m"));
    events.push_back({a, 100 + i, raw, "m"});
  }
  EXPECT_EQ(fileBytes(file), "") << "all five fit in the buffer";
  EXPECT_TRUE(sc.flush());
  EXPECT_EQ(fileBytes(file), fileBytes(plainDir.path + "/rawdata/0"));

  // Buffered again; reading one writes the buffer out first.
  events.push_back({sc.write(200, "late", ""), 200, "late", ""});
  plain.write(200, "late", "");
  EXPECT_NE(fileBytes(file), fileBytes(plainDir.path + "/rawdata/0"));
  expectEvent(sc, events.back(), nullptr);
  EXPECT_EQ(fileBytes(file), fileBytes(plainDir.path + "/rawdata/0"));

  // Larger than the buffer: the buffered record, then the big one, in order.
  sc.write(300, "small", "");
  plain.write(300, "small", "");
  std::string big(1000, 'b');
  events.push_back({sc.write(301, big, ""), 301, big, ""});
  EXPECT_EQ(events.back().address, plain.write(301, big, ""));
  EXPECT_EQ(fileBytes(file), fileBytes(plainDir.path + "/rawdata/0"));
  for (const Event& e : events) expectEvent(sc, e, nullptr);

  // Close writes out the rest (before the file is gzipped).
  events.push_back({sc.write(400, "last", ""), 400, "last", ""});
  sc.close();
  EXPECT_TRUE(Pathname(Str(file + ".gz")).exists());
  for (const Event& e : events) expectEvent(sc, e, nullptr);
}

// A buffer that cannot be written keeps its records (and their addresses)
// for the next flush; records that no longer fit are refused, not reordered.
TEST(SplitCompression, FailedFlushKeepsTheBuffer) {
  if (access("/dev/full", W_OK) != 0) GTEST_SKIP() << "no /dev/full";
  WriteContext wc(Pathname(Str("/dev/full")), 0, 5);
  ASSERT_TRUE(wc.setBuffer(64));
  EXPECT_EQ(wc.write(1, "0123456789", ""), 0);
  EXPECT_EQ(wc.write(2, "abcdefghij", ""), 32);
  EXPECT_EQ(wc.buffered(), 64u);
  EXPECT_FALSE(wc.flush());
  EXPECT_EQ(wc.buffered(), 64u);
  EXPECT_EQ(wc.write(3, "x", ""), -1) << "the buffer is full and will not flush";
  EXPECT_EQ(wc.endOffset(), 64);
  EXPECT_FALSE(wc.close());
}

// A writer keeping the image of its file hands over exactly the file's
// bytes, however they went out (gathered, unbuffered, larger than the
// buffer); an image that would grow past its limit is given up, and the
// file is the same as without one. Only an empty file starts an image.
TEST(SplitCompression, KeptImageIsTheFileByteForByte) {
  struct Case {
    const char* name;
    size_t buffer, maxImage;
    std::vector<size_t> rawSizes;
    bool whole;
  } cases[] = {
      {"gathered", 256, 1 << 20, {10, 40, 7, 100, 3}, true},
      {"unbuffered", 0, 1 << 20, {10, 40, 7}, true},
      {"record larger than the buffer", 64, 1 << 20, {5, 1000, 5}, true},
      {"past the limit", 256, 512, {100, 100, 100, 100, 100}, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ScratchDir dir;
    const std::string kept = dir.path + "/kept", plain = dir.path + "/plain";
    WriteContext wc(Pathname(Str(kept)), 0, 5), ref(Pathname(Str(plain)), 0, 5);
    ASSERT_TRUE(wc.setBuffer(c.buffer));
    ByteBuffer storage;
    storage.reserve(100);
    ASSERT_TRUE(wc.keepImage(std::move(storage), c.maxImage));
    for (size_t i = 0; i < c.rawSizes.size(); ++i) {
      std::string raw(c.rawSizes[i], char('a' + i));
      EXPECT_EQ(wc.write(int32_t(i), raw, "host::h"), ref.write(int32_t(i), raw, "host::h"));
      if (i == 1) {
        EXPECT_TRUE(wc.flush());
      }
    }
    EXPECT_TRUE(wc.close());
    EXPECT_TRUE(ref.close());
    ByteBuffer image;
    EXPECT_EQ(wc.takeImage(image), c.whole);
    EXPECT_EQ(fileBytes(kept), fileBytes(plain));
    if (c.whole) {
      EXPECT_EQ(std::string(image.data(), image.size), fileBytes(kept));
    }
  }

  ScratchDir dir;
  const std::string file = dir.path + "/f";
  { WriteContext first(Pathname(Str(file)), 0, 5); first.write(1, "x", ""); }
  WriteContext again(Pathname(Str(file)), 0, 5);
  EXPECT_FALSE(again.keepImage({}, 1 << 20)) << "the file already holds a record";
  ByteBuffer image;
  EXPECT_FALSE(again.takeImage(image));
}

// A file that could not be written whole hands over no image.
TEST(SplitCompression, FailedWritesKeepNoImage) {
  if (access("/dev/full", W_OK) != 0) GTEST_SKIP() << "no /dev/full";
  for (size_t buffer : {size_t(0), size_t(64)}) {
    SCOPED_TRACE(buffer);
    WriteContext wc(Pathname(Str("/dev/full")), 0, 5);
    ASSERT_TRUE(wc.setBuffer(buffer));
    ASSERT_TRUE(wc.keepImage({}, 1 << 20));
    int64_t a = wc.write(1, "0123456789", "");
    EXPECT_EQ(a, buffer ? 0 : -1) << "unbuffered, a record that cannot be written is refused";
    EXPECT_EQ(wc.close(), buffer == 0) << "a refused record leaves nothing to write";
    ByteBuffer image;
    EXPECT_FALSE(wc.takeImage(image));
  }
}

namespace {

// While the writing process gzips a rolled file, "N" and a growing "N.gz"
// stand side by side. A reader opening the journal then reads the plain
// file and touches neither (removing the ".gz" would lose the file once the
// gzip replaces "N"); a writer opening it after a crash removes the partial
// output and reads the plain file.
TEST(SplitCompression, ReadersLeaveAGzipInProgressAlone) {
  ScratchDir dir;
  std::string raw = dir.path + "/rawdata";
  std::vector<Event> events;
  {
    SplitCompression writer(Pathname(Str(raw)), 4096, 5, false);
    for (int i = 0; i < 200; ++i) {
      std::string text = "event " + std::to_string(i) + std::string(40, 'x');
      events.push_back({writer.write(100 + i, text, "host::h"), 100 + i, text, "host::h"});
    }
    writer.close();
  }
  // "0" is a rolled, plain file; a gzip of it is under way.
  std::string partial = raw + "/0.gz";
  { std::ofstream(partial, std::ios::binary) << std::string("\x1f\x8b\x08", 3); }
  {
    SplitCompression reader(Pathname(Str(raw)), 4096, 5, true);
    EXPECT_EQ(reader.files().begin()->second, "0");
    expectEvent(reader, events.front(), nullptr);
  }
  EXPECT_TRUE(Pathname(Str(partial)).exists()) << "a reader removed the gzip in progress";
  {
    SplitCompression writer(Pathname(Str(raw)), 4096, 5, false);
    writer.open();
    EXPECT_FALSE(Pathname(Str(partial)).exists()) << "the writer leaves a partial output behind";
    for (const Event& e : events) expectEvent(writer, e, nullptr);
  }
}

}  // namespace

// gzipFile replaces a file by its gzip, as "gzip -f" does, and on any
// failure leaves the plain file and no ".gz".
TEST(SplitCompression, GzipFileReplacesTheFileOrLeavesItAlone) {
  struct Case {
    const char* name;
    std::string content;  // the file's bytes; "-" for no file at all
    bool gzBlocked;       // "<file>.gz" is a directory, so it cannot be written
    int level;
    bool ok;
  };
  std::string mixed;
  for (int i = 0; i < 20000; ++i) mixed += "line " + std::to_string(i * 7919 % 1000) + " host::h\n";
  const Case cases[] = {
      {"text", mixed, false, SplitCompression::kGzipLevel, true},
      {"fastest level", mixed, false, 1, true},
      {"empty file", "", false, SplitCompression::kGzipLevel, true},
      {"binary with NULs", std::string("\0\x01\xff\0", 4) + std::string(70000, '\0'), false, 6, true},
      {"no such file", "-", false, 6, false},
      {"output blocked", mixed, true, 6, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ScratchDir dir;
    const std::string file = dir.path + "/0";
    if (c.content != "-") std::ofstream(file, std::ios::binary) << c.content;
    if (c.gzBlocked) {
      ASSERT_EQ(::mkdir((file + ".gz").c_str(), 0700), 0);
    }
    EXPECT_EQ(SplitCompression::gzipFile(Pathname(Str(file)), c.level), c.ok);
    if (!c.ok) {
      EXPECT_NE(errno, 0);
      EXPECT_EQ(Pathname(Str(file)).exists(), c.content != "-");
      if (c.content != "-") {
        EXPECT_EQ(fileBytes(file), c.content);
      }
      EXPECT_EQ(Pathname(Str(file + ".gz")).isDir(), c.gzBlocked);
      continue;
    }
    EXPECT_FALSE(Pathname(Str(file)).exists());
    const std::string gz = fileBytes(file + ".gz");
    ASSERT_GE(gz.size(), 18u);
    EXPECT_EQ(gz.substr(0, 3), std::string("\x1f\x8b\x08", 3));
    if (c.content.size() > 1000) {
      EXPECT_LT(gz.size(), c.content.size() / 2);
    }
    // What zlib reads back, as every reader of the journal does.
    ReadContext rc(Pathname(Str(file + ".gz")), 0, -1, nullptr, 5);
    EXPECT_EQ(rc.rawSize(), int64_t(c.content.size()));
    ASSERT_EQ(std::system(("gzip -t " + file + ".gz").c_str()), 0);
    ASSERT_EQ(std::system(("gzip -dc " + file + ".gz > " + file + ".check").c_str()), 0);
    EXPECT_EQ(fileBytes(file + ".check"), c.content);
  }
}
