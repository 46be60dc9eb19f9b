#include "pipeline/indexer/PolicyParameters.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <fstream>
#include <string>

#include "libbundle/PropertiesMap.h"
#include "libbundle/PropertyPages.h"
#include "loaderinfo/LoaderInfo.h"
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

TEST(PolicyParameters, EveryMissingKeyIsNamedInOneMessage) {
  struct Missing {
    std::vector<const char*> erase;
    const char* error;
  };
  const Missing rows[] = {
      {{"maxResults", "compressRawdata"}, "'maxResults', 'compressRawdata' tags required in config for index idx"},
      {{"maxTotalDataSizeMB", "homePath", "thawedPath"},
       "'homePath', 'thawedPath', 'maxTotalDataSizeMB' tags required in config for index idx"},
      {{"homePath", "coldPath", "thawedPath", "maxResults", "compressRawdata", "maxDataSize", "maxTotalDataSizeMB"},
       "'homePath', 'coldPath', 'thawedPath', 'maxResults', 'compressRawdata', 'maxDataSize', "
       "'maxTotalDataSizeMB' tags required in config for index idx"},
  };
  for (const Missing& r : rows) {
    PropertiesMap m = base();
    for (const char* k : r.erase) m.erase(k);
    // A bad value elsewhere does not hide the missing keys.
    m.put("maxWarmDBCount", "lots");
    try {
      PolicyParameters::fromStanza("idx", m);
      ADD_FAILURE() << r.error;
    } catch (const DatabasePartitionPolicyException& e) {
      EXPECT_STREQ(e.what(), r.error);
    }
  }
}

// A scratch installation with the shipped configuration and one new index
// that names only its three paths.
class ShippedDefaults : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/velmor-policyparams-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir = tmpl;
    ASSERT_EQ(system(("bash " VELMOR_SOURCE_DIR "/scripts/mkhome.sh " + dir + " >/dev/null").c_str()), 0);
    setenv("VELMOR_HOME", dir.c_str(), 1);
    setenv("VELMOR_DB", (dir + "/var/lib/velmor/db").c_str(), 1);
    LoaderInfo::getInstance().populateFromEnvironment();
    std::ofstream conf(dir + "/etc/bundles/local/indexes.conf");
    conf << "[fresh]\nhomePath = $VELMOR_DB/fresh/db\ncoldPath = $VELMOR_DB/fresh/colddb\n"
            "thawedPath = $VELMOR_DB/fresh/thaweddb\n\n"
            "[tuned]\nhomePath = /t/db\ncoldPath = /t/colddb\nthawedPath = /t/thaweddb\n"
            "maxDataSize = 10\ncompressRawdata = false\n";
  }
  void TearDown() override {
    if (!dir.empty() && system(("rm -rf " + dir).c_str()) != 0) ADD_FAILURE() << "cleanup";
  }
  std::string dir;
};

TEST_F(ShippedDefaults, NewIndexNeedsOnlyItsPathsAndDefaultSetsEveryKey) {
  PropertyPages pages("indexes");
  pages.updateConfigs();
  PropertiesMap fresh;
  pages.fillLayers(fresh, "fresh", false);
  std::vector<Str> notes;
  PolicyParameters p = PolicyParameters::fromStanza("fresh", fresh, &notes);
  EXPECT_EQ(p.homePath, dir + "/var/lib/velmor/db/fresh/db");
  EXPECT_EQ(p.maxResults, 50000);
  EXPECT_TRUE(p.compressRawdata);
  EXPECT_EQ(p.maxDataSizeBytes, uint64_t(750) << 20);
  EXPECT_EQ(p.maxTotalDataSizeMB, 500000);
  EXPECT_TRUE(p.coldToFrozenScript.empty());
  // Nothing fell back to a built-in value: [default] names every setting.
  for (const Str& n : notes) ADD_FAILURE() << n;

  PropertiesMap tuned;
  pages.fillLayers(tuned, "tuned", false);
  p = PolicyParameters::fromStanza("tuned", tuned);
  EXPECT_EQ(p.maxDataSize, 10);
  EXPECT_FALSE(p.compressRawdata);
  EXPECT_EQ(p.maxResults, 50000);
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
