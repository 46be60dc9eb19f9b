// The settings of a tail stanza: what parses, what is refused, and which
// paths a stanza accepts.
#include "pipeline/input/TailStanza.h"

#include <gtest/gtest.h>

#include "libbundle/PropertiesMap.h"

namespace {

TEST(TailStanza, DurationsParseOrAreRefused) {
  struct Row {
    const char* text;
    bool ok;
    long seconds;
  } rows[] = {
      {"600", true, 600}, {"90s", true, 90}, {"30m", true, 1800}, {"12h", true, 43200}, {"7d", true, 604800},
      {"0", true, 0},     {"", false, 0},    {"d", false, 0},     {"-1d", false, 0},   {"1w", false, 0},
      {"1.5h", false, 0}, {"soon", false, 0}, {"99999999999999d", false, 0},
  };
  for (const Row& r : rows) {
    long got = -7;
    EXPECT_EQ(TailStanza::parseDuration(r.text, got), r.ok) << r.text;
    if (r.ok) {
      EXPECT_EQ(got, r.seconds) << r.text;
    }
  }
}

TEST(TailStanza, StanzasParseOrNameTheirFault) {
  struct Row {
    const char* name;
    const char* key;
    const char* value;
    const char* fault;  // a word the error must hold; null: parses
  } rows[] = {
      {"tail:/var/log", nullptr, nullptr, nullptr},
      {"tail:/var/log/.../*.log", "whitelist", "\\.log$", nullptr},
      {"tail:var/log", nullptr, nullptr, "absolute"},
      {"tail:", nullptr, nullptr, "absolute"},
      {"tail:/x", "blacklist", "(", "blacklist"},
      {"tail:/x", "whitelist", "[z-a]", "whitelist"},
      {"tail:/x", "ignoreOlderThan", "a week", "ignoreOlderThan"},
      {"tail:/x", "scanInterval", "0", "scanInterval"},
      {"tail:/x", "scanInterval", "fast", "scanInterval"},
      {"tail:/x", "recursive", "perhaps", "recursive"},
      {"tail:/x", "disabled", "2", "disabled"},
  };
  for (const Row& r : rows) {
    PropertiesMap keys;
    if (r.key) keys.put(r.key, r.value);
    TailStanza s;
    Str error;
    bool ok = TailStanza::parse(r.name, keys, s, error);
    EXPECT_EQ(ok, r.fault == nullptr) << r.name << " " << (r.key ? r.key : "") << ": " << error;
    if (r.fault) {
      EXPECT_NE(error.find(r.fault), Str::npos) << error;
    }
  }
}

TEST(TailStanza, PathsAcceptedByPatternAndFilters) {
  struct Row {
    const char* stanza;
    const char* white;
    const char* black;
    const char* path;
    bool accepted;
  } rows[] = {
      {"tail:/l/*.log", nullptr, nullptr, "/l/a.log", true},
      {"tail:/l/*.log", nullptr, nullptr, "/l/sub/a.log", false},
      {"tail:/l/*.log", nullptr, nullptr, "/l/axlog", false},
      {"tail:/l/.../a.log", nullptr, nullptr, "/l/x/y/a.log", true},
      {"tail:/l/.../a.log", nullptr, nullptr, "/m/x/a.log", false},
      {"tail:/l", "\\.log$", nullptr, "/l/a.log", true},
      {"tail:/l", "\\.log$", nullptr, "/l/a.log.1", false},
      {"tail:/l", nullptr, "secret", "/l/secret/a.log", false},
      {"tail:/l", "log", "\\.gz$", "/l/a.log.gz", false},
      {"tail:/l", "log", "\\.gz$", "/l/a.log", true},
  };
  for (const Row& r : rows) {
    PropertiesMap keys;
    if (r.white) keys.put("whitelist", r.white);
    if (r.black) keys.put("blacklist", r.black);
    TailStanza s;
    Str error;
    ASSERT_TRUE(TailStanza::parse(r.stanza, keys, s, error)) << error;
    EXPECT_EQ(s.accepts(r.path), r.accepted) << r.stanza << " " << r.path;
  }
}

// Of two stanzas that both name a file, the closer one ranks higher; one
// that does not name the file ranks 0.
TEST(TailStanza, TheClosestStanzaRanksHighest) {
  auto rank = [](const char* stanza, const char* path, bool recursive = true) {
    PropertiesMap keys;
    if (!recursive) keys.put("recursive", "false");
    TailStanza s;
    Str error;
    EXPECT_TRUE(TailStanza::parse(stanza, keys, s, error)) << error;
    return s.specificity(path);
  };
  EXPECT_EQ(rank("tail:/l", "/m/a.log"), 0u);
  EXPECT_EQ(rank("tail:/l", "/lx/a.log"), 0u);
  EXPECT_EQ(rank("tail:/l", "/l/sub/a.log", false), 0u);
  EXPECT_GT(rank("tail:/l", "/l/sub/a.log"), 0u);
  EXPECT_GT(rank("tail:/l/sub", "/l/sub/a.log"), rank("tail:/l", "/l/sub/a.log"));
  EXPECT_GT(rank("tail:/l/sub/a.log", "/l/sub/a.log"), rank("tail:/l/sub", "/l/sub/a.log"));
  EXPECT_GT(rank("tail:/l/sub/*.log", "/l/sub/a.log"), rank("tail:/l", "/l/sub/a.log"));
  EXPECT_EQ(rank("tail:/l/sub/*.log", "/l/sub/a.txt"), 0u);
}

}  // namespace
