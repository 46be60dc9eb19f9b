// The source type a followed or added file gets from its path: file name in,
// source type out.
#include "pipeline/input/SourceTypeName.h"

#include <gtest/gtest.h>

namespace {

TEST(SourceTypeName, PathInSourceTypeOut) {
  struct Row {
    const char* path;
    const char* sourceType;
  } rows[] = {
      {"/var/log/auth.log.1", "auth"},
      {"web_access.log", "web_access"},
      {"/var/log/syslog", "syslog"},
      {"/var/log/syslog.2.gz", "syslog"},
      {"/var/log/messages.1", "messages"},
      {"app.log.2.gz", "app"},
      {"notes.txt", "notes"},
      {"dump.gz", "dump"},
      {"trace.json.xz", "trace"},
      {"kern.log.10.bz2", "kern"},
      {"relative/dir/HDFS_2k.log", "HDFS_2k"},
      {"my.app.log", "my.app"},
      {"access_log.3", "access_log"},
      {"a.1.2.3", "a"},
      {"dotted.", "dotted"},
      {"/var/log/.log", "unknown"},
      {"/var/log/", "unknown"},
      {"", "unknown"},
      {"7.gz", "7"},
      {"logs.d/file", "file"},
  };
  for (const Row& r : rows) EXPECT_EQ(sourceTypeFromPath(r.path), r.sourceType) << r.path;
}

}  // namespace
