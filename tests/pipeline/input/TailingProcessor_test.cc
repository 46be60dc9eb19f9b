// The file input driven directly: lines out with their keys, held last
// lines, rotation by rename and by truncation, compressed copies, directory
// and wildcard inputs, the filters, followTail, the files it passes over,
// broken stanzas, the place of position records, and many files at once.
#include "pipeline/input/TailingProcessor.h"

#include <gtest/gtest.h>

#include <map>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <set>

#include "TailScratch.h"

namespace {

using Records = std::vector<TailScratch::Record>;
using T = TailScratch;

// Waits until `n` lines of `path` (any path when empty) came out.
auto linesReach(size_t n, const std::string& path = "") {
  return [n, path](const Records& rs) { return T::countLines(rs, path) >= n; };
}

TEST(TailingProcessor, LinesComeOutInOrderWithTheirKeys) {
  T s;
  ASSERT_TRUE(s.ok());
  std::string log = s.logs + "/web_access.log";
  T::write(log, "first\nsecond line\n\nfourth\n");
  s.inputs("[tail:" + log + "]\nindex = webidx\n");
  TailingProcessor p;
  ASSERT_EQ(p.loadStanzas(), 1u);
  Records rs;
  T::run(p, rs, linesReach(4));
  std::vector<std::string> raw = T::rawOf(rs);
  ASSERT_EQ(raw, (std::vector<std::string>{"first", "second line", "", "fourth"}));

  struct Row {
    size_t line;
    const Str& key;
    std::string want;
  } rows[] = {
      {0, PipelineData::sourceKey, "source::" + log},
      {0, PipelineData::hostKey, "host::testhost"},
      {0, PipelineData::sourceTypeKey, "sourcetype::web_access"},
      {0, PipelineData::indexKey, "webidx"},
      {0, PipelineData::pathKey, log},
      {0, PipelineData::channelKey, log},
      {0, PipelineData::seekAddrKey, "6"},
      {1, PipelineData::seekAddrKey, "18"},
      {2, PipelineData::seekAddrKey, "19"},
      {3, PipelineData::seekAddrKey, "26"},
      {3, PipelineData::confKey, "source::" + log + "|host::testhost|sourcetype::web_access|" + log},
  };
  Records lines;
  for (auto& r : rs)
    if (T::isLine(r)) lines.push_back(r);
  for (const Row& row : rows) EXPECT_EQ(T::str(lines[row.line], row.key), row.want) << row.key << " of line " << row.line;
}

TEST(TailingProcessor, StanzaKeysOverrideHostAndSourceType) {
  T s;
  ASSERT_TRUE(s.ok());
  std::string log = s.logs + "/x.log";
  T::write(log, "a\n");
  s.inputs("[tail:" + log + "]\nhost = otherhost\nsourcetype = mytype\n");
  TailingProcessor p;
  p.loadStanzas();
  Records rs;
  T::run(p, rs, linesReach(1));
  ASSERT_EQ(T::countLines(rs), 1u);
  EXPECT_EQ(T::str(rs[0], PipelineData::hostKey), "host::otherhost");
  EXPECT_EQ(T::str(rs[0], PipelineData::sourceTypeKey), "sourcetype::mytype");
  EXPECT_FALSE(rs[0]->contains(PipelineData::indexKey));
}

// Stanzas that overlap: each file goes to the stanza that names it most
// closely, whatever order the stanzas are read in ("/a" sorts before
// "/a/b.log" and would otherwise take every file of the directory).
TEST(TailingProcessor, OverlappingStanzasGiveEachFileTheClosestOne) {
  T s;
  ASSERT_TRUE(s.ok());
  T::write(s.logs + "/a.log", "a\n");
  T::write(s.logs + "/b.log", "b\n");
  ASSERT_EQ(system(("mkdir -p " + s.logs + "/web").c_str()), 0);
  T::write(s.logs + "/web/c.log", "c\n");
  s.inputs("[tail:@LOGS@]\nhost = dirhost\nsourcetype = dirtype\n"
           "[tail:@LOGS@/b.log]\nhost = bhost\n"
           "[tail:@LOGS@/web]\nhost = webhost\n");
  TailingProcessor p;
  p.loadStanzas();
  Records rs;
  T::run(p, rs, linesReach(3));
  std::map<std::string, std::string> hostOf;
  for (const auto& r : rs)
    if (T::isLine(r)) hostOf[T::str(r, PipelineData::rawKey)] = T::str(r, PipelineData::hostKey);
  EXPECT_EQ(hostOf, (std::map<std::string, std::string>{
                        {"a", "host::dirhost"}, {"b", "host::bhost"}, {"c", "host::webhost"}}));
}

TEST(TailingProcessor, UnfinishedLastLineIsHeldUntilFinishedOrQuiet) {
  // The line "b" without its newline: completed by a later write, or sent
  // alone once the file has stayed unchanged long enough.
  struct Row {
    const char* name;
    const char* later;  // appended after the first read; null: nothing
    std::vector<std::string> want;
  } rows[] = {
      {"completed", "c\nd\n", {"a", "bc", "d"}},
      {"quiet", nullptr, {"a", "b"}},
  };
  for (const Row& row : rows) {
    T s;
    ASSERT_TRUE(s.ok());
    std::string log = s.logs + "/p.log";
    T::write(log, "a\nb");
    s.inputs("[tail:" + log + "]\n");
    TailingProcessor p;
    p.loadStanzas();
    Records rs;
    T::run(p, rs, linesReach(1));
    T::settle(p, rs, 5);
    EXPECT_EQ(T::rawOf(rs), (std::vector<std::string>{"a"})) << row.name << ": held line sent early";
    if (row.later) T::append(log, row.later);
    T::run(p, rs, linesReach(row.want.size()), 80);
    T::settle(p, rs, 5);
    EXPECT_EQ(T::rawOf(rs), row.want) << row.name;
  }
}

TEST(TailingProcessor, RenameAndCreateLosesAndDoublesNothing) {
  T s;
  ASSERT_TRUE(s.ok());
  // The directory input also sees the renamed file under its new name.
  std::string log = s.logs + "/app.log";
  s.inputs("[tail:" + s.logs + "]\n");
  T::write(log, T::lines("old ", 100));
  TailingProcessor p;
  p.loadStanzas();
  Records rs;
  T::run(p, rs, linesReach(100));
  // The old file ends in an unfinished line, which goes out when it is done.
  T::append(log, T::lines("old ", 50, 100) + "old tail");
  ASSERT_EQ(rename(log.c_str(), (log + ".1").c_str()), 0);
  T::write(log, T::lines("new ", 30));
  T::run(p, rs, [&](const Records& r) { return T::countLines(r) >= 181 && T::countDone(r, log) >= 1; });
  T::settle(p, rs);

  std::vector<std::string> all = T::rawOf(rs);
  std::multiset<std::string> seen(all.begin(), all.end());
  std::set<std::string> distinct(all.begin(), all.end());
  EXPECT_EQ(all.size(), 181u);
  EXPECT_EQ(seen.count("old tail"), 1u);
  EXPECT_EQ(distinct.size(), all.size()) << "a line came out twice";
  EXPECT_EQ(seen.count("old 149"), 1u);
  EXPECT_EQ(seen.count("new 29"), 1u);
  // The renamed file ends with _done after all its lines; the new file under
  // the same name gets one of its own only once it has been quiet.
  size_t firstDone = SIZE_MAX, lastOld = 0;
  for (size_t i = 0; i < rs.size(); ++i) {
    if (T::isDone(rs[i]) && T::str(rs[i], PipelineData::sourceKey) == "source::" + log && firstDone == SIZE_MAX)
      firstDone = i;
    if (T::isLine(rs[i]) && T::str(rs[i], PipelineData::rawKey).rfind("old ", 0) == 0) lastOld = i;
  }
  EXPECT_LT(lastOld, firstDone);
  EXPECT_LE(T::countDone(rs, log), 2u);
}

TEST(TailingProcessor, AFileReachedTwiceIsReadOnce) {
  struct Row {
    const char* name;
    bool link;            // a second name (hard link) in the directory
    const char* stanzas;  // besides [tail:@LOGS@]
  } rows[] = {
      {"hard link", true, ""},
      {"two stanzas", false, "[tail:@LOGS@/one.log]\n"},
  };
  for (const Row& row : rows) {
    T s;
    ASSERT_TRUE(s.ok());
    std::string log = s.logs + "/one.log";
    T::write(log, T::lines("x", 5));
    if (row.link) {
      ASSERT_EQ(link(log.c_str(), (s.logs + "/two.log").c_str()), 0);
    }
    s.inputs("[tail:@LOGS@]\n" + std::string(row.stanzas));
    TailingProcessor p;
    p.loadStanzas();
    Records rs;
    T::run(p, rs, linesReach(5));
    T::settle(p, rs, 10);
    EXPECT_EQ(T::countLines(rs), 5u) << row.name;
    EXPECT_EQ(p.followedCount(), 1u) << row.name;
  }
}

TEST(TailingProcessor, ANewProcessorResumesWhereTheLastLeftOff) {
  // The file tracker outlives the processor, as it outlives an input that
  // is stopped and started again.
  struct Row {
    const char* name;
    std::string atStart;  // what the file holds when first seen
    std::string grown;    // what is added while the first processor runs
  } rows[] = {
      {"long file", T::lines("a rather long first batch line ", 300), ""},
      {"grew from empty", "", T::lines("a rather long first batch line ", 300)},
      {"grew from short", "short\n", T::lines("a rather long first batch line ", 300)},
  };
  for (const Row& row : rows) {
    T s;
    ASSERT_TRUE(s.ok());
    std::string log = s.logs + "/resume.log";
    T::write(log, row.atStart);
    s.inputs("[tail:" + log + "]\n");
    size_t total = std::count(row.atStart.begin(), row.atStart.end(), '\n') +
                   std::count(row.grown.begin(), row.grown.end(), '\n');
    Records first, second;
    {
      TailingProcessor p;
      p.loadStanzas();
      T::settle(p, first, 3);
      T::append(log, row.grown);
      T::run(p, first, linesReach(total));
      T::settle(p, first, 3);
    }
    T::append(log, T::lines("second ", 5));
    TailingProcessor p;
    p.loadStanzas();
    T::run(p, second, linesReach(5));
    T::settle(p, second, 5);
    EXPECT_EQ(T::countLines(first), total) << row.name;
    EXPECT_EQ(T::rawOf(second), (std::vector<std::string>{"second 0", "second 1", "second 2", "second 3", "second 4"}))
        << row.name;
  }
}

TEST(TailingProcessor, CopyTruncateStartsOverAtZero) {
  T s;
  ASSERT_TRUE(s.ok());
  std::string log = s.logs + "/t.log";
  T::write(log, T::lines("before truncation number ", 20));
  s.inputs("[tail:" + log + "]\n");
  TailingProcessor p;
  p.loadStanzas();
  Records rs;
  T::run(p, rs, linesReach(20));
  ASSERT_EQ(truncate(log.c_str(), 0), 0);
  T::settle(p, rs, 5);
  T::append(log, T::lines("after ", 5));
  T::run(p, rs, linesReach(25));
  T::settle(p, rs, 5);
  std::vector<std::string> raw = T::rawOf(rs);
  ASSERT_EQ(raw.size(), 25u);
  EXPECT_EQ(raw[20], "after 0");
  EXPECT_EQ(raw[24], "after 4");
}

TEST(TailingProcessor, CompressedFilesAddOnlyWhatWasNotRead) {
  T s;
  ASSERT_TRUE(s.ok());
  std::string log = s.logs + "/svc.log";
  s.inputs("[tail:" + s.logs + "]\n");
  std::string head = T::lines("line of the service log ", 40);
  T::write(log, head);
  T::gzip(s.logs + "/other.log.gz", T::lines("unseen ", 7));
  TailingProcessor p;
  p.loadStanzas();
  Records rs;
  T::run(p, rs, linesReach(47));
  // Rotation: the original, with 3 more lines written before it was
  // compressed, becomes svc.log.1.gz; the original goes away.
  T::gzip(log + ".1.gz", head + T::lines("late ", 3));
  unlink(log.c_str());
  std::string gz = log + ".1.gz";
  T::run(p, rs, [&](const Records& r) { return T::countDone(r, gz) >= 1 && T::countDone(r, log) >= 1; });
  T::settle(p, rs);

  EXPECT_EQ(T::countLines(rs, s.logs + "/other.log.gz"), 7u) << "an unseen compressed file is read whole";
  EXPECT_EQ(T::countDone(rs, s.logs + "/other.log.gz"), 1u);
  EXPECT_EQ(T::rawOf(rs, gz), (std::vector<std::string>{"late 0", "late 1", "late 2"}));
  EXPECT_EQ(T::countLines(rs, log), 40u);
  EXPECT_EQ(T::countDone(rs, gz), 1u);
  auto lastLine = std::find_if(rs.rbegin(), rs.rend(), [](const TailScratch::Record& r) { return T::isLine(r); });
  ASSERT_NE(lastLine, rs.rend());
  EXPECT_EQ(T::str(*lastLine, PipelineData::sourceTypeKey), "sourcetype::svc") << T::str(*lastLine, PipelineData::pathKey);
}

TEST(TailingProcessor, DirectoryInputsFindFilesBelowAndLater) {
  struct Row {
    const char* name;
    const char* keys;
    size_t want;  // of the three files: top, sub/deeper, later
  } rows[] = {
      {"recursive", "", 3},
      {"flat", "recursive = false\n", 2},
  };
  for (const Row& row : rows) {
    T s;
    ASSERT_TRUE(s.ok());
    ASSERT_EQ(mkdir((s.logs + "/sub").c_str(), 0755), 0);
    T::write(s.logs + "/top.log", "top\n");
    T::write(s.logs + "/sub/deeper.log", "deeper\n");
    s.inputs("[tail:" + s.logs + "/]\n" + row.keys);
    TailingProcessor p;
    p.loadStanzas();
    Records rs;
    T::run(p, rs, linesReach(row.want - 1), 30);
    T::write(s.logs + "/later.log", "later\n");
    T::run(p, rs, linesReach(row.want), 60);
    T::settle(p, rs, 5);
    std::vector<std::string> raw = T::rawOf(rs);
    std::set<std::string> got(raw.begin(), raw.end());
    EXPECT_EQ(raw.size(), row.want) << row.name;
    EXPECT_EQ(got.count("later"), 1u) << row.name;
    EXPECT_EQ(got.count("deeper"), row.want == 3 ? 1u : 0u) << row.name;
  }
}

// Which of a fixed set of files a stanza follows.
std::set<std::string> followedBy(const std::string& stanzaPath, const std::string& keys) {
  T s;
  if (!s.ok()) return {};
  const char* files[] = {"a/app1.log", "a/app2.txt", "b/app3.log", "b/c/app4.log", "top.log", "a/debug.log"};
  for (const char* f : files) {
    std::string path = s.logs + "/" + f;
    if (system(("mkdir -p $(dirname " + path + ")").c_str()) != 0) return {};
    T::write(path, std::string(f) + "\n");
  }
  std::string sp = stanzaPath;
  for (size_t p; (p = sp.find("@LOGS@")) != std::string::npos;) sp.replace(p, 6, s.logs);
  s.inputs("[tail:" + sp + "]\n" + keys);
  TailingProcessor p;
  p.loadStanzas();
  Records rs;
  T::settle(p, rs, 15);
  std::vector<std::string> raw = T::rawOf(rs);
  return std::set<std::string>(raw.begin(), raw.end());
}

TEST(TailingProcessor, WildcardsAndFiltersChooseFiles) {
  using S = std::set<std::string>;
  struct Row {
    const char* path;
    const char* keys;
    S want;
  } rows[] = {
      {"@LOGS@/*/app*.log", "", S{"a/app1.log", "b/app3.log"}},
      {"@LOGS@/.../app*.log", "", S{"a/app1.log", "b/app3.log", "b/c/app4.log"}},
      {"@LOGS@/*.log", "", S{"top.log"}},
      {"@LOGS@/a/*", "", S{"a/app1.log", "a/app2.txt", "a/debug.log"}},
      {"@LOGS@", "blacklist = debug|/c/\n", S{"a/app1.log", "a/app2.txt", "b/app3.log", "top.log"}},
      {"@LOGS@/nothing/*.log", "", S{}},
  };
  for (const Row& row : rows) EXPECT_EQ(followedBy(row.path, row.keys), row.want) << row.path << " " << row.keys;
}

TEST(TailingProcessor, FollowTailSkipsWhatWasThereBeforeTheStart) {
  T s;
  ASSERT_TRUE(s.ok());
  std::string log = s.logs + "/f.log";
  T::write(log, T::lines("old ", 10));
  s.inputs("[tail:" + s.logs + "]\nfollowTail = true\n");
  TailingProcessor p;
  p.loadStanzas();
  Records rs;
  T::settle(p, rs, 5);
  EXPECT_EQ(T::countLines(rs), 0u);
  T::append(log, "new 0\n");
  T::write(s.logs + "/created.log", "fresh\n");
  T::run(p, rs, linesReach(2), 60);
  T::settle(p, rs, 5);
  std::vector<std::string> raw = T::rawOf(rs);
  EXPECT_EQ(std::set<std::string>(raw.begin(), raw.end()), (std::set<std::string>{"new 0", "fresh"}));
}

TEST(TailingProcessor, PassesOverBinaryOldAndEmptyFilesAndGoesOn) {
  T s;
  ASSERT_TRUE(s.ok());
  T::write(s.logs + "/bin.dat", std::string("text\n\0more\n", 11));
  T::write(s.logs + "/old.log", "ancient\n");
  T::write(s.logs + "/empty.log", "");
  T::write(s.logs + "/good.log", "good\n");
  struct timespec old[2] = {{time(nullptr) - 10 * 86400, 0}, {time(nullptr) - 10 * 86400, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, (s.logs + "/old.log").c_str(), old, 0), 0);
  s.inputs("[tail:" + s.logs + "]\nignoreOlderThan = 7d\n");
  TailingProcessor p;
  p.loadStanzas();
  Records rs;
  T::run(p, rs, linesReach(1));
  T::settle(p, rs, 5);
  EXPECT_EQ(T::rawOf(rs), (std::vector<std::string>{"good"}));
  // The empty file is followed, and the old one again once it changes.
  T::append(s.logs + "/empty.log", "no longer empty\n");
  T::append(s.logs + "/old.log", "revived\n");
  T::run(p, rs, linesReach(4), 60);
  T::settle(p, rs, 5);
  std::vector<std::string> raw = T::rawOf(rs);
  EXPECT_EQ(std::set<std::string>(raw.begin(), raw.end()),
            (std::set<std::string>{"good", "no longer empty", "ancient", "revived"}));
}

TEST(TailingProcessor, VanishedFilesAreFinishedAndTheRestGoesOn) {
  struct Row {
    const char* name;
    size_t maxOpen;  // 1: the removed file's descriptor was closed for want of room
  } rows[] = {{"open", 256}, {"closed", 1}};
  for (const Row& row : rows) {
    T s;
    ASSERT_TRUE(s.ok());
    std::string gone = s.logs + "/gone.log", stays = s.logs + "/stays.log";
    T::write(gone, "g1\n");
    T::write(stays, "s1\n");
    s.inputs("[tail:" + s.logs + "]\n");
    TailingProcessor p;
    p.setMaxOpenFiles(row.maxOpen);
    p.loadStanzas();
    Records rs;
    T::run(p, rs, linesReach(2));
    unlink(gone.c_str());
    T::append(stays, "s2\n");
    T::run(p, rs, [&](const Records& r) { return T::countDone(r, gone) >= 1 && T::countLines(r) >= 3; });
    T::settle(p, rs, 5);
    EXPECT_EQ(T::countDone(rs, gone), 1u) << row.name;
    EXPECT_EQ(T::rawOf(rs, stays), (std::vector<std::string>{"s1", "s2"})) << row.name;
    EXPECT_LE(p.openDescriptorCount(), row.maxOpen) << row.name;
  }
}

TEST(TailingProcessor, BrokenStanzasAreSkippedAndTheRestRuns) {
  T s;
  ASSERT_TRUE(s.ok());
  s.inputs("[tail:relative/path]\n\n"
           "[tail:@LOGS@/badregex]\nwhitelist = ([a-\n\n"
           "[tail:@LOGS@/badage]\nignoreOlderThan = soon\n\n"
           "[tail:@LOGS@/badscan]\nscanInterval = -1\n\n"
           "[tail:@LOGS@/badbool]\nfollowTail = maybe\n\n"
           "[tail:@LOGS@/off.log]\ndisabled = true\n\n"
           "[tail:@LOGS@/ok.log]\n");
  T::write(s.logs + "/ok.log", "fine\n");
  T::write(s.logs + "/off.log", "disabled\n");
  TailingProcessor p;
  EXPECT_EQ(p.loadStanzas(), 1u);
  Records rs;
  T::run(p, rs, linesReach(1));
  T::settle(p, rs, 5);
  EXPECT_EQ(T::rawOf(rs), (std::vector<std::string>{"fine"}));
}

TEST(TailingProcessor, PositionRecordsWaitForTheDoneRecordOfAQuietFile) {
  // A line merger downstream holds the last event of a file open until the
  // file's done record; a position record ahead of it would claim lines that
  // are not yet written. So a file gets its position record only when it
  // has been quiet, right after its done record, and none between reads.
  T s;
  ASSERT_TRUE(s.ok());
  std::string log = s.logs + "/seek.log";
  // Over 1 MiB, so that more than one read is needed.
  std::string line(999, 'x');
  std::string text;
  for (int i = 0; i < 1500; ++i) text += line + "\n";
  T::write(log, text);
  s.inputs("[tail:" + log + "]\n");
  TailingProcessor p;
  p.loadStanzas();
  Records rs;
  auto seeksReach = [](size_t lines, int seeks) {
    return [lines, seeks](const Records& r) {
      return T::countLines(r) >= lines && std::count_if(r.begin(), r.end(), T::isSeek) >= seeks;
    };
  };
  T::run(p, rs, seeksReach(1500, 1), 80);
  T::append(log, "tail end\n");
  T::run(p, rs, seeksReach(1501, 2), 80);
  T::settle(p, rs, 5);
  ASSERT_EQ(T::countLines(rs), 1501u);
  unsigned long long lastLineEnd = 0, covered = 0;
  int seeks = 0;
  bool doneSinceLine = false;
  for (const auto& r : rs) {
    if (T::isLine(r)) {
      lastLineEnd = std::stoull(T::str(r, PipelineData::seekAddrKey));
      EXPECT_GT(lastLineEnd, covered) << "a line came after a position that covers it";
      doneSinceLine = false;
    } else if (T::isDone(r)) {
      doneSinceLine = true;
    } else if (T::isSeek(r)) {
      EXPECT_TRUE(doneSinceLine) << "a position record before the done record";
      std::string raw = T::str(r, PipelineData::rawKey);
      size_t at = raw.find("seekptr::");
      ASSERT_NE(at, std::string::npos) << raw;
      covered = std::stoull(raw.substr(at + 9), nullptr, 16);
      EXPECT_EQ(covered, lastLineEnd) << "a position ahead of or behind the lines sent";
      ++seeks;
    }
  }
  EXPECT_EQ(seeks, 2) << "one position record per quiet spell";
  EXPECT_EQ(covered, text.size() + 9) << "the last position covers the last line";
}

TEST(TailingProcessor, LongLinesAreCutIntoPieces) {
  T s;
  ASSERT_TRUE(s.ok());
  std::string log = s.logs + "/long.log";
  const size_t MiB = 1024 * 1024;
  T::write(log, std::string(2 * MiB + 10, 'y') + "\nshort\n");
  s.inputs("[tail:" + log + "]\n");
  TailingProcessor p;
  p.loadStanzas();
  Records rs;
  T::run(p, rs, linesReach(4), 60);
  std::vector<std::string> raw = T::rawOf(rs);
  ASSERT_EQ(raw.size(), 4u);
  std::vector<size_t> sizes;
  for (auto& r : raw) sizes.push_back(r.size());
  EXPECT_EQ(sizes, (std::vector<size_t>{MiB, MiB, 10, 5}));
}

TEST(TailingProcessor, AThousandFilesAreAllReadWithFewDescriptors) {
  T s;
  ASSERT_TRUE(s.ok());
  const int n = 1000;
  for (int i = 0; i < n; ++i) T::write(s.logs + "/f" + std::to_string(i) + ".log", T::lines("l", 3));
  s.inputs("[tail:" + s.logs + "]\n");
  TailingProcessor p;
  p.loadStanzas();
  Records rs;
  T::run(p, rs, linesReach(3 * n), 200);
  EXPECT_EQ(T::countLines(rs), size_t(3 * n));
  EXPECT_EQ(p.followedCount(), size_t(n));
  EXPECT_LE(p.openDescriptorCount(), 256u);
  // One more line each: most descriptors were closed and are opened again.
  for (int i = 0; i < n; ++i) T::append(s.logs + "/f" + std::to_string(i) + ".log", "more\n");
  T::run(p, rs, linesReach(4 * n), 200);
  EXPECT_EQ(T::countLines(rs), size_t(4 * n));
  EXPECT_LE(p.openDescriptorCount(), 256u);
}

TEST(TailingProcessor, StopMakesItReturnAtOnce) {
  T s;
  ASSERT_TRUE(s.ok());
  T::write(s.logs + "/a.log", "a\n");
  s.inputs("[tail:" + s.logs + "]\n");
  TailingProcessor p;
  p.loadStanzas();
  p.requestStop();
  for (int i = 0; i < 3; ++i) EXPECT_EQ(p.createPipelineData(), nullptr);
}

TEST(TailingProcessor, FactoryMakesTheProcessor) {
  const PluginFactory& f = TailingProcessor::factory();
  EXPECT_TRUE(f.matchName("TailingProcessor"));
  EXPECT_NE(dynamic_cast<TailingProcessor*>(f.produce().get()), nullptr);
}

}  // namespace
