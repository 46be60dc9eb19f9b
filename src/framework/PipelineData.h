// PipelineData: one record of the ingestion pipeline, and one event as the
// query engine hands it back: a map of keys to shared string values.
//
// On the ingestion side the well-known keys below carry the raw text, the
// time, the prefixed host, source and source type ("host::web1"), the target
// index, the stanza path for layered settings and the markers of a stream
// (`_done`, `_shutdown`). On the read side an event carries its host, source
// and source type under the plain field names ("host", "source",
// "sourcetype") and its address under "_cd"; any other key is a field.
//
// Keys and values are shared strings: copying a record copies pointers, not
// text, and a put of a well-known key reuses one process-wide key string, so
// a record of the usual keys costs no key allocation. The pairs stand in a
// small vector searched by the key's text. The flag `_isTokenized` is held
// beside the pairs, never among them.
//
// Serialised form (serialize / ressurrect), native byte order:
//
//   OFFSET  SIZE  MEANING
//   0       4     pair count N (uint32), `_isTokenized` counted as a pair
//   4       ...   N times: key length (uint32), key bytes,
//                          value length (uint32), value bytes
//
// Ownership: held by shared pointer. Threads: one thread at a time per
// record; distinct records may be used by any threads.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

#include "util/Exceptions.h"
#include "util/Str.h"

class PropertiesMap;
class Timeval;
struct ExtraTimevalParseInfo;

// The callback of PipelineData::iterate.
class PipelineDataKeyValueAcceptor {
 public:
  virtual ~PipelineDataKeyValueAcceptor() = default;
  virtual void accept(const Str& key, const Str& value) = 0;
};

class PipelineData {
 public:
  using SharedStr = std::shared_ptr<const Str>;

  // --- keys of an ingestion record ---------------------------------------------------
  static const Str rawKey;             // "_raw": the text of the event or chunk
  static const Str confKey;            // "_conf": stanza path for fillLayers (defaultConf)
  static const Str doneKey;            // "_done": end of this source's data
  static const Str hostKey;            // "MetaData:Host": "host::" and the host
  static const Str metaKey;            // "_meta": blank-separated index terms
  static const Str pathKey;            // "_path": file path of the source
  static const Str timeKey;            // "_time": Unix time as decimal text
  static const Str typeKey;            // "MetaData:FinalType": resolved source type
  static const Str indexKey;           // "_MetaData:Index": target index
  static const Str inputKey;           // "_MetaData:Input": input name
  static const Str queueKey;           // "queue": queue to route to
  static const Str sourceKey;          // "MetaData:Source": "source::" and the source
  static const Str channelKey;         // "_channel": stream identity
  static const Str sourceTypeKey;      // "MetaData:Sourcetype": "sourcetype::" and the type
  static const Str indexTermsKey;      // "_MetaData:IndexTerms": extra index terms
  static const Str reportingHostKey;   // "ReportingHost": "reportinghost::" and the host
  static const Str hostRegexKey;       // "host_regex"
  static const Str hostSegmentKey;     // "host_segment"
  static const Str processedKey;       // "_processed"
  static const Str followTailKey;      // "followTail"
  static const Str shutdownKey;        // "_shutdown": a shutdown marker in the stream
  static const Str signatureKey;       // "_sig"
  static const Str seekAddrKey;        // "seekaddr": file offset of the record
  static const Str blockSignatureKey;  // "blockSignature"
  static const Str signedSourceKey;    // "signedSource"
  static const Str isTokenizedKey;     // "_isTokenized": routed to the flag

  // --- fields of an event read back ----------------------------------------------------
  static const Str hostField;          // "host"
  static const Str sourceField;        // "source"
  static const Str sourceTypeField;    // "sourcetype"
  static const Str cdKey;              // "_cd": "<bucket id>:<address>"

  // The pairs, in the order they were first put. A record holds a dozen keys
  // or so: a linear search by length and bytes beats hashing them, and the
  // whole record is one allocation for the pairs (reserved up front).
  using Entry = std::pair<SharedStr, SharedStr>;
  using Map = std::vector<Entry>;
  using const_iterator = Map::const_iterator;

  PipelineData() = default;

  // The value of key; throws KeyNotFoundException ("This key could not be
  // found : <key>") when absent.
  SharedStr get(std::string_view key) const;
  // The value of key, or null.
  SharedStr getIfAvail(std::string_view key) const;
  const char* getIfAvailCStr(std::string_view key) const;
  // The value of key, or an empty text.
  const Str& getStr(std::string_view key) const;

  bool contains(std::string_view key) const;
  bool has(std::string_view key) const { return contains(key); }
  void put(std::string_view key, const Str& value) { put(key, std::make_shared<const Str>(value)); }
  void put(std::string_view key, Str&& value) { put(key, std::make_shared<const Str>(std::move(value))); }
  void put(std::string_view key, const char* value) { put(key, std::make_shared<const Str>(value)); }
  void put(std::string_view key, SharedStr value);
  // Adds a blank and `text` to an existing value, or puts `text`.
  void append(std::string_view key, const Str& text);
  void remove(std::string_view key);
  void clear();

  size_t size() const { return _map.size(); }
  const_iterator begin() const { return _map.begin(); }
  const_iterator end() const { return _map.end(); }
  const Map& map() const { return _map; }
  // Keys in no particular order.
  std::vector<Str> keys() const;

  bool isTokenized() const { return _isTokenized; }
  void setTokenized(bool v) { _isTokenized = v; }

  // Every pair, `_isTokenized` as "1" when set.
  void iterate(PipelineDataKeyValueAcceptor& acceptor) const;
  // Leaves out keys that begin with "_" (and so the flag).
  void iterateWithoutInternal(PipelineDataKeyValueAcceptor& acceptor) const;

  // Bytes of the values, and of the keys too when includeKeys.
  size_t sizeInBytes(bool includeKeys) const;
  // "[%s] = %s\n" per pair in key order, then "(is tokenized)\n" when set.
  Str toString() const;
  void fwrite(FILE* f) const;

  // deep: the values are copied; otherwise shared.
  std::shared_ptr<PipelineData> clone(bool deep) const;
  // Puts every pair of other (replacing); the flag is or-ed in.
  void mergeFrom(const PipelineData& other);

  // Appends the serialised form (see the table above) to out.
  void serialize(Str& out) const;
  // Replaces the contents from a serialised form of exactly n bytes; false
  // (contents unspecified) when it is short, long or malformed.
  bool ressurrect(const char* data, size_t n);

  // `_time` as "%lu".
  void setTimeKey(unsigned long seconds);
  // Appends seconds as "%lu" does, to out; the text of setTimeKey.
  static void appendTimeText(unsigned long seconds, Str& out);

  // source "|" host "|" source type "|" channel, each the prefixed value.
  void defaultConf(Str& out) const;
  // `_conf`, built and stored when absent or when rebuild is true.
  const Str& defaultConf(bool rebuild);

  // The keys of an input's stanza with non-empty values: source, sourcetype,
  // host and reportinghost (any case) with their prefixes, index to
  // indexKey, `_isTokenized` to the flag, `_raw` not copied, others under
  // their own names; then defaultConf(true).
  void load(const PropertiesMap& stanza);
  // The same, with the stanza's name recorded under inputKey.
  void load(const PropertiesMap& stanza, const Str& stanzaName);

  // Appends " timestamp::none" to `_meta`.
  void addMetaNoTimestamp();
  // Appends the date terms of a parsed time to `_meta`, as precise as the
  // parse was: " _subsecond:.<digits>" with subseconds, " date_second::%d"
  // from seconds, " date_hour::%d date_minute::%d" from minutes, then always
  // " date_year::%d date_month::%s date_mday::%d date_wday::%s" (lower-case
  // English names) and " date_zone::<minutes east>" or " date_zone::local".
  // With less than a day known, addMetaNoTimestamp() instead. `time` may be
  // null; the fields come from `info`.
  void addMetaTimeInfo(const Timeval* time, const ExtraTimevalParseInfo* info);
  // Appends to out the text addMetaTimeInfo adds to `_meta` (no blank in
  // front of it): the date terms, or "timestamp::none". No formatting
  // through printf, and no allocation once out has grown.
  static void appendMetaTimeInfo(const ExtraTimevalParseInfo* info, Str& out);

 private:
  static SharedStr internKey(std::string_view key);
  bool checkPutSpecial(std::string_view key, const SharedStr& value);
  Map::iterator find(std::string_view key);
  Map::const_iterator find(std::string_view key) const;
  static constexpr size_t kReserved = 16;

  Map _map;
  bool _isTokenized = false;
};
