#include "framework/PipelineData.h"

#include <gtest/gtest.h>

#include "libbundle/PropertiesMap.h"

namespace {

class Collect : public PipelineDataKeyValueAcceptor {
 public:
  void accept(const Str& key, const Str& value) override { seen[key] = value; }
  std::map<Str, Str> seen;
};

TEST(PipelineData, MissingKeysThrowOnGetAndAreNullOtherwise) {
  PipelineData d;
  d.put(PipelineData::rawKey, "hello");
  EXPECT_EQ(*d.get(PipelineData::rawKey), "hello");
  try {
    d.get("nothing");
    FAIL() << "get of a missing key must throw";
  } catch (const KeyNotFoundException& e) {
    EXPECT_STREQ(e.what(), "This key could not be found : nothing");
  }
  EXPECT_EQ(d.getIfAvail("nothing"), nullptr);
  EXPECT_EQ(d.getIfAvailCStr("nothing"), nullptr);
  EXPECT_EQ(d.getStr("nothing"), "");
}

TEST(PipelineData, TokenizedFlagLivesBesideTheMap) {
  PipelineData d;
  d.put("_isTokenized", "1");
  d.put("a", "b");
  EXPECT_TRUE(d.isTokenized());
  EXPECT_EQ(d.size(), 1u);
  for (const auto& [k, v] : d) EXPECT_NE(*k, "_isTokenized");
  Collect all, visible;
  d.iterate(all);
  d.iterateWithoutInternal(visible);
  EXPECT_EQ(all.seen["_isTokenized"], "1");
  EXPECT_EQ(visible.seen.count("_isTokenized"), 0u);
  EXPECT_EQ(d.toString(), "[a] = b\n(is tokenized)\n");
  d.remove("_isTokenized");
  EXPECT_FALSE(d.isTokenized());
}

TEST(PipelineData, AppendJoinsWithOneBlank) {
  PipelineData d;
  d.append(PipelineData::metaKey, "x::1");
  d.append(PipelineData::metaKey, "y::2");
  d.addMetaNoTimestamp();
  EXPECT_EQ(d.getStr(PipelineData::metaKey), "x::1 y::2 timestamp::none");
}

TEST(PipelineData, SerializedRecordComesBackWhole) {
  PipelineData d;
  d.put(PipelineData::rawKey, Str("line with\nnewline and \0 nul", 27));
  d.put(PipelineData::sourceKey, "source::/var/log/a.log");
  d.put("empty", "");
  d.setTokenized(true);
  Str bytes;
  d.serialize(bytes);
  PipelineData back;
  ASSERT_TRUE(back.ressurrect(bytes.data(), bytes.size()));
  EXPECT_EQ(back.toString(), d.toString());
  EXPECT_EQ(back.getStr(PipelineData::rawKey).size(), 27u);
  EXPECT_TRUE(back.isTokenized());
}

TEST(PipelineData, DamagedSerializedRecordsAreRefused) {
  PipelineData d;
  d.put("key", "value");
  Str bytes;
  d.serialize(bytes);
  PipelineData back;
  for (size_t cut = 0; cut < bytes.size(); ++cut)
    EXPECT_FALSE(back.ressurrect(bytes.data(), cut)) << "cut at " << cut;
  Str longer = bytes + "x";
  EXPECT_FALSE(back.ressurrect(longer.data(), longer.size()));
  Str huge = bytes;
  huge[0] = '\xff', huge[1] = '\xff', huge[2] = '\xff', huge[3] = '\x7f';
  EXPECT_FALSE(back.ressurrect(huge.data(), huge.size()));
}

TEST(PipelineData, DefaultConfOrdersSourceHostTypeChannel) {
  PipelineData d;
  EXPECT_EQ(d.defaultConf(false), "|||");  // no source: starts with "|"
  d.put(PipelineData::hostKey, "host::web1");
  d.put(PipelineData::sourceTypeKey, "sourcetype::access");
  EXPECT_EQ(d.defaultConf(false), "|||") << "kept until rebuilt";
  EXPECT_EQ(d.defaultConf(true), "|host::web1|sourcetype::access|");
  EXPECT_EQ(d.getStr(PipelineData::confKey), "|host::web1|sourcetype::access|");
}

TEST(PipelineData, LoadPrefixesTheWellKnownKeysOfAnInputStanza) {
  PropertiesMap stanza;
  stanza.put("SourceType", "syslog");
  stanza.put("host", "db1");
  stanza.put("index", "main");
  stanza.put("_raw", "never copied");
  stanza.put("blank", "");
  stanza.put("custom", "x");
  PipelineData d;
  d.load(stanza, "tail:/var/log");
  EXPECT_EQ(d.getStr(PipelineData::sourceTypeKey), "sourcetype::syslog");
  EXPECT_EQ(d.getStr(PipelineData::hostKey), "host::db1");
  EXPECT_EQ(d.getStr(PipelineData::indexKey), "main");
  EXPECT_EQ(d.getStr(PipelineData::inputKey), "tail:/var/log");
  EXPECT_FALSE(d.contains(PipelineData::rawKey));
  EXPECT_FALSE(d.contains("blank"));
  EXPECT_EQ(d.getStr("custom"), "x");
  EXPECT_EQ(d.getStr(PipelineData::confKey), "|host::db1|sourcetype::syslog|");
}

TEST(PipelineData, CloneSharesOrCopiesAndMergeReplaces) {
  PipelineData d;
  d.put("a", "1");
  auto shallow = d.clone(false);
  auto deep = d.clone(true);
  EXPECT_EQ(shallow->getIfAvail("a").get(), d.getIfAvail("a").get());
  EXPECT_NE(deep->getIfAvail("a").get(), d.getIfAvail("a").get());
  PipelineData other;
  other.put("a", "2");
  other.put("b", "3");
  other.setTokenized(true);
  d.mergeFrom(other);
  EXPECT_EQ(d.getStr("a"), "2");
  EXPECT_EQ(d.getStr("b"), "3");
  EXPECT_TRUE(d.isTokenized());
  EXPECT_EQ(shallow->getStr("a"), "1");
}

}  // namespace
