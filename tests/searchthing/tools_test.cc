// The two command-line tools over the engine, run as programs: command lines
// in, standard output and exit status out.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "st_test_util.h"

namespace {

std::string bin(const char* tool) { return std::string(VELMOR_BINARY_DIR) + "/bin/" + tool; }

struct ToolRun {
  int status;
  std::string out;
};

ToolRun run(const std::string& cmd) {
  ToolRun r{-1, ""};
  FILE* p = popen((cmd + " 2>/dev/null").c_str(), "r");
  if (!p) return r;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
  int st = pclose(p);
  r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  return r;
}

class Tools : public ::testing::Test {
 protected:
  void SetUp() override {
    if (access(bin("velmor-tsidx").c_str(), X_OK) != 0 || access(bin("velmor-optimize").c_str(), X_OK) != 0)
      GTEST_SKIP() << "velmor-tsidx / velmor-optimize not built in " VELMOR_BINARY_DIR "/bin";
    if (!tmpAllowsLocks()) GTEST_SKIP() << "/tmp is on a file system on which engine locks are refused";
  }
  EnvGuard always_{"VELMOR_ST_ALWAYS_FORK", nullptr};
  ScratchDir scratch_;
  std::string dir_ = scratch_.sub("idx");
};

TEST_F(Tools, ShellSession) {
  std::string t = bin("velmor-tsidx") + " ";
  std::string data = scratch_.path() + "/postings.txt";
  FILE* f = fopen(data.c_str(), "w");
  fputs("# time addr terms\n300 3 error net\n400 4 mirror\n\n", f);
  fclose(f);
  struct Row {
    std::string args;
    int status;
    std::string out;
  } rows[] = {
      {"put " + dir_ + " 100 1 error disk full", 0, ""},
      {"put " + dir_ + " 200 2 warn disk", 0, ""},
      {"put-file " + dir_ + " " + data, 0, ""},
      {"query " + dir_ + " disk", 0, "200 2 0 0 0 0\n100 1 0 0 0 0\n"},
      {"query " + dir_ + " 'err*' NOT:net", 0, "100 1 0 0 0 0\n"},
      {"query " + dir_ + " '*ror' --limit 2", 0, "400 4 0 0 0 0\n300 3 0 0 0 0\n"},
      {"query " + dir_ + " 'm*r*r'", 0, "400 4 0 0 0 0\n"},
      {"query " + dir_ + " OR:warn OR:net --count", 0, "2\n"},
      {"query " + dir_ + " --from 150 --to 350 error", 0, "300 3 0 0 0 0\n"},
      {"get " + dir_ + " disk --limit 1", 0, "200 2 0 0 0 0\n"},
      {"meta " + dir_ + " error", 0, "count=2 earliest=100 latest=300\n"},
      {"meta " + dir_ + " nothing", 0, "count=0\n"},
      {"enum " + dir_ + " --reversed ror", 0, "rorre 2\nrorrim 1\n"},
      {"optimize " + dir_ + " -f", 0, ""},
      {"meta " + dir_, 0, "count=4 earliest=100 latest=400\n"},
      {"query " + dir_ + " disk", 0, "200 2 0 0 0 0\n100 1 0 0 0 0\n"},
      {"frob " + dir_, 2, ""},
      {"put " + dir_ + " soon 1 x", 2, ""},
      {"query " + dir_ + " --limit 0 x", 2, ""},
      {"query " + dir_, 2, ""},
      {"get " + dir_ + "/missing x", 1, ""},
  };
  for (const Row& r : rows) {
    ToolRun got = run(t + r.args);
    EXPECT_EQ(got.status, r.status) << r.args;
    EXPECT_EQ(got.out, r.out) << r.args;
  }
}

TEST_F(Tools, OptimizerMergesUntilTheRuleStops) {
  std::string t = bin("velmor-tsidx") + " ";
  for (int i = 1; i <= 5; ++i) ASSERT_EQ(run(t + "put " + dir_ + " " + std::to_string(i * 10) + " " +
                                             std::to_string(i) + " x").status, 0);
  EXPECT_EQ(ScratchDir::countSuffix(dir_, ".tsidx"), 5u);
  ToolRun r = run(bin("velmor-optimize") + " -v " + dir_);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, dir_ + ": 4 merges\n") << "small slices always merge";
  EXPECT_EQ(ScratchDir::countSuffix(dir_, ".tsidx"), 1u);
  EXPECT_EQ(run(bin("velmor-optimize")).status, 2);
  EXPECT_EQ(run(bin("velmor-optimize") + " -q " + dir_).status, 2);
  EXPECT_EQ(run(bin("velmor-optimize") + " " + dir_ + "/missing").status, 1);
}

// The sections of every slice add up to its file, the counts are the
// headers', and a file that is not a slice is reported, not summed.
TEST_F(Tools, SectionsAccountForEveryByte) {
  std::string t = bin("velmor-tsidx") + " ";
  ASSERT_EQ(run(t + "put " + dir_ + " 100 1 error disk full").status, 0);
  ASSERT_EQ(run(t + "put " + dir_ + " 200 2 warn disk").status, 0);
  ToolRun r = run(t + "sections " + dir_);
  ASSERT_EQ(r.status, 0) << r.out;
  // "all slices <values> <terms> <postings> <bytes>", then one row per section.
  unsigned long long values = 0, terms = 0, postings = 0, bytes = 0;
  size_t at = r.out.find("all slices");
  ASSERT_NE(at, std::string::npos) << r.out;
  ASSERT_EQ(sscanf(r.out.c_str() + at, "all slices %llu %llu %llu %llu", &values, &terms, &postings, &bytes), 4);
  EXPECT_EQ(values, 2u);
  EXPECT_EQ(terms, 3u + 2u) << "each slice counts its own terms";
  EXPECT_EQ(postings, 3u + 2u);
  unsigned long long onDisk = 0;
  for (const std::string& n : ScratchDir::list(dir_)) {
    struct stat st;
    if (n.size() > 6 && n.compare(n.size() - 6, 6, ".tsidx") == 0 && stat((dir_ + "/" + n).c_str(), &st) == 0)
      onDisk += uint64_t(st.st_size);
  }
  EXPECT_EQ(bytes, onDisk);
  unsigned long long sum = 0;
  for (const char* name : {"values (time, address)", "attribute arrays", "posting list offsets", "term metadata",
                           "rf_map", "forward lexicon", "reversed lexicon", "postings"}) {
    size_t p = r.out.find(std::string("\n") + name + " ");
    ASSERT_NE(p, std::string::npos) << name;
    unsigned long long b = 0;
    ASSERT_EQ(sscanf(r.out.c_str() + p + 1 + strlen(name), "%llu", &b), 1) << name;
    sum += b;
  }
  EXPECT_EQ(sum, bytes);

  FILE* f = fopen((dir_ + "/0-0-1.tsidx").c_str(), "w");
  fputs("not a slice", f);
  fclose(f);
  r = run(t + "sections " + dir_);
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("(1 slice could not be read)"), std::string::npos) << r.out;
  EXPECT_EQ(run(t + "sections " + dir_ + "/missing").status, 1);
  EXPECT_EQ(run(t + "sections " + dir_ + " extra").status, 2);
}

}  // namespace
