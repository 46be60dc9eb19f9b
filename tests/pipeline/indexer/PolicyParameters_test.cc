#include "pipeline/indexer/PolicyParameters.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include "libbundle/PropertiesMap.h"
#include "util/Exceptions.h"

namespace {

// The required keys of every index, with values that parse.
PropertiesMap base() {
  PropertiesMap m;
  m.put("homePath", "/d/db");
  m.put("coldPath", "/d/colddb");
  m.put("thawedPath", "/d/thaweddb");
  m.put("maxResults", "50000");
  m.put("compressRawdata", "true");
  m.put("maxDataSize", "750");
  m.put("maxTotalDataSizeMB", "500000");
  return m;
}

struct Row {
  const char* key;    // key to set (or erase when value is null)
  const char* value;
  const char* error;  // expected exception text, or null
};

TEST(PolicyParameters, StanzaInValuesOrMessageOut) {
  const Row rows[] = {
      {"homePath", nullptr, "'homePath' tag required in config for index idx"},
      {"coldPath", nullptr, "'coldPath' tag required in config for index idx"},
      {"thawedPath", "", "'thawedPath' tag required in config for index idx"},
      {"maxResults", nullptr, "'maxResults' tag required in config for index idx"},
      {"compressRawdata", nullptr, "'compressRawdata' tag required in config for index idx"},
      {"maxDataSize", nullptr, "'maxDataSize' tag required in config for index idx"},
      {"maxTotalDataSizeMB", nullptr, "'maxTotalDataSizeMB' tag required in config for index idx"},
      {"maxDataSize", "lots", "Invalid value 'lots' for 'maxDataSize' in config for index idx"},
      {"compressRawdata", "maybe", "Invalid value 'maybe' for 'compressRawdata' in config for index idx"},
      {"maxWarmDBCount", "5x", "Invalid value '5x' for 'maxWarmDBCount' in config for index idx"},
      {"addressCompressBits", "40", "Invalid value '40' for 'addressCompressBits' in config for index idx"},
      {"homePath", "db/here", "'homePath' of index idx is not an absolute path: db/here (is every variable it names set?)"},
      {"coldPath", "$VELMOR_TEST_UNSET_VAR/colddb",
       "'coldPath' of index idx is not an absolute path: $VELMOR_TEST_UNSET_VAR/colddb (is every variable it names set?)"},
      {"maxDataSize", " 2 ", nullptr},
  };
  unsetenv("VELMOR_TEST_UNSET_VAR");
  for (const Row& r : rows) {
    PropertiesMap m = base();
    if (r.value)
      m.put(r.key, r.value);
    else
      m.erase(r.key);
    if (r.error) {
      try {
        PolicyParameters::fromStanza("idx", m);
        ADD_FAILURE() << r.key << " should fail";
      } catch (const DatabasePartitionPolicyException& e) {
        EXPECT_STREQ(e.what(), r.error);
      }
    } else {
      EXPECT_EQ(PolicyParameters::fromStanza("idx", m).maxDataSizeBytes, 2u << 20) << r.key;
    }
  }
}

TEST(PolicyParameters, DefaultsAreLoggedAndBlockSignSizeIsCapped) {
  std::vector<Str> notes;
  PolicyParameters p = PolicyParameters::fromStanza("idx", base(), &notes);
  EXPECT_EQ(p.maxWarmDBCount, 5);
  EXPECT_EQ(p.maxColdDBCount, 3);
  EXPECT_EQ(p.frozenTimePeriodInSecs, 432000);
  EXPECT_EQ(p.rotatePeriodInSecs, 300);
  EXPECT_EQ(p.maxValues, 65536);
  EXPECT_EQ(p.addressCompressBits, 5);
  EXPECT_FALSE(p.isReadOnly);
  EXPECT_TRUE(p.coldToFrozenScript.empty());
  EXPECT_EQ(p.maxDataSizeBytes, uint64_t(750) << 20);
  ASSERT_FALSE(notes.empty());
  EXPECT_EQ(notes.front(), "maxWarmDBCount not specified in config.  Defaulting to: 5");

  PropertiesMap m = base();
  m.put("blockSignSize", "5000");
  m.put("isReadOnly", "true");
  m.put("coldToFrozenScript", "/bin/archive $DIR");
  notes.clear();
  p = PolicyParameters::fromStanza("idx", m, &notes);
  EXPECT_EQ(p.blockSignSize, 2000);
  EXPECT_TRUE(p.isReadOnly);
  EXPECT_EQ(p.coldToFrozenScript, "/bin/archive $DIR");
  EXPECT_NE(std::find(notes.begin(), notes.end(), Str("blockSignSize set to greater than 2000. Restricting to 2000.")),
            notes.end());
}

TEST(PolicyParameters, PathsNameEnvironmentVariables) {
  setenv("VELMOR_DB", "/var/velmordb", 1);
  PropertiesMap m = base();
  m.put("homePath", "$VELMOR_DB/defaultdb/db");
  EXPECT_EQ(PolicyParameters::fromStanza("idx", m).homePath, "/var/velmordb/defaultdb/db");
}

}  // namespace
