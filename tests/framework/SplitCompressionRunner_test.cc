// The background gzip of rolled files when the process has a process runner
// (as the service does): the compression runs in this process all the same,
// and reads follow the file to its ".gz".
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "framework/SplitCompression.h"
#include "util/ProcessRunner.h"

namespace {

class SplitCompressionRunnerTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    char tmpl[] = "/tmp/rawdata_runner.XXXXXX";
    dir = ::mkdtemp(tmpl);
    ProcessRunnerInit(nullptr, Pathname(Str(dir + "/children.pid")));
  }
  static void TearDownTestSuite() {
    ProcessRunnerFini(nullptr);
    Pathname(Str(dir)).removeRecursive();
  }
  static std::string dir;
};
std::string SplitCompressionRunnerTest::dir;

}  // namespace

TEST_F(SplitCompressionRunnerTest, RolledFilesAreGzippedBesideTheRunner) {
  ASSERT_NE(ProcessRunnerPid(), -1);
  const Pathname path(Str(dir + "/rawdata"));
  SplitCompression sc(path, 1024);
  std::vector<int64_t> addrs;
  for (int i = 0; i < 200; ++i) addrs.push_back(sc.write(i, "runner event " + std::to_string(i), "m"));
  sc.waitForCompression();
  std::map<int64_t, Str> files = sc.files();
  ASSERT_GT(files.size(), 3u);
  size_t gz = 0;
  for (const auto& f : files) gz += f.second.ends_with(".gz");
  EXPECT_EQ(gz, files.size() - 1);
  std::unique_ptr<ReadContext> ctx;
  for (int i = 0; i < 200; ++i) {
    Str raw, meta;
    int32_t t;
    ASSERT_TRUE(sc.read(addrs[i], raw, meta, t, &ctx));
    EXPECT_EQ(raw, "runner event " + std::to_string(i));
    EXPECT_EQ(t, i);
  }
}
