#include "pipeline/indexer/PolicyParameters.h"

#include "libbundle/PropertiesMap.h"
#include "libbundle/SubstituteEnvs.h"
#include "util/Exceptions.h"
#include "util/Logger.h"

static Logger gLogger("DatabasePartitionPolicy");

namespace {

struct Reader {
  const Str& name;
  const PropertiesMap& stanza;
  std::vector<Str>* notes;

  void note(const Str& text) {
    gLogger.info(text);
    if (notes) notes->push_back(text);
  }
  // Keys with no value in the stanza nor in [default], gathered so that one
  // message names them all.
  std::vector<const char*> absent;

  [[noreturn]] void invalid(const char* key, const Str& text) {
    throw DatabasePartitionPolicyException("Invalid value '" + text + "' for '" + key + "' in config for index " +
                                           name);
  }
  bool text(const char* key, Str& out) {
    if (!stanza.get(key, out)) return false;
    out.trimInPlace();
    return true;
  }
  // The trimmed value of a key every index must have; empty (and recorded
  // in `absent`) when it has none.
  Str required(const char* key) {
    Str v;
    if (!text(key, v) || v.empty()) {
      absent.push_back(key);
      v.clear();
    }
    return v;
  }
  // Throws "'<key>' tag required in config for index <name>", or for several
  // "'<a>', '<b>' tags required in config for index <name>".
  void throwIfAbsent() {
    if (absent.empty()) return;
    Str keys;
    for (const char* k : absent) keys += Str(keys.empty() ? "'" : ", '") + k + "'";
    throw DatabasePartitionPolicyException(keys + (absent.size() == 1 ? " tag" : " tags") +
                                           " required in config for index " + name);
  }
  void path(const char* key, const Str& v, Pathname& out) {
    out = Pathname(substituteEnvs(v));
    // An unset variable stays as "$NAME"; the bucket tree would then grow
    // under whatever directory the process happens to run in.
    if (!out.isAbsolute() || out.find('$') != Str::npos)
      throw DatabasePartitionPolicyException("'" + Str(key) + "' of index " + name + " is not an absolute path: " +
                                             out + " (is every variable it names set?)");
  }
  void toLong(const char* key, const Str& v, long& out) {
    if (!v.tryToLong(out)) invalid(key, v);
  }
  void toBool(const char* key, const Str& v, bool& out) {
    if (!v.tryToBool(out)) invalid(key, v);
  }
  void optionalLong(const char* key, long& out) {
    Str v;
    if (!text(key, v) || v.empty()) {
      note(Str::fromFormat("%s not specified in config.  Defaulting to: %ld", key, out));
      return;
    }
    if (!v.tryToLong(out)) invalid(key, v);
  }
  void optionalBool(const char* key, bool& out) {
    Str v;
    if (!text(key, v) || v.empty()) {
      note(Str::fromFormat("%s not specified in config.  Defaulting to: %s", key, out ? "true" : "false"));
      return;
    }
    if (!v.tryToBool(out)) invalid(key, v);
  }
  // An empty value is an explicit "none"; only an absent key is noted.
  void optionalText(const char* key, Str& out) {
    if (!text(key, out)) {
      out.clear();
      note(Str::fromFormat("%s not specified in config.  Defaulting to: none", key));
    }
  }
};

}  // namespace

PolicyParameters PolicyParameters::fromStanza(const Str& name, const PropertiesMap& stanza, std::vector<Str>* notes) {
  PolicyParameters p;
  Reader r{name, stanza, notes, {}};
  p.name = name;
  const Str home = r.required("homePath");
  const Str cold = r.required("coldPath");
  const Str thawed = r.required("thawedPath");
  const Str maxResults = r.required("maxResults");
  const Str compress = r.required("compressRawdata");
  const Str maxDataSize = r.required("maxDataSize");
  const Str maxTotal = r.required("maxTotalDataSizeMB");
  r.throwIfAbsent();
  r.path("homePath", home, p.homePath);
  r.path("coldPath", cold, p.coldPath);
  r.path("thawedPath", thawed, p.thawedPath);
  r.toLong("maxResults", maxResults, p.maxResults);
  r.toBool("compressRawdata", compress, p.compressRawdata);
  r.toLong("maxDataSize", maxDataSize, p.maxDataSize);
  r.toLong("maxTotalDataSizeMB", maxTotal, p.maxTotalDataSizeMB);
  if (p.maxDataSize < 0) r.invalid("maxDataSize", Str::fromFormat("%ld", p.maxDataSize));
  p.maxDataSizeBytes = uint64_t(p.maxDataSize) << 20;

  r.optionalLong("maxWarmDBCount", p.maxWarmDBCount);
  r.optionalLong("maxColdDBCount", p.maxColdDBCount);
  r.optionalLong("frozenTimePeriodInSecs", p.frozenTimePeriodInSecs);
  r.optionalLong("rotatePeriodInSecs", p.rotatePeriodInSecs);
  r.optionalLong("optimizeEvery", p.optimizeEvery);
  r.optionalLong("syncPeriod", p.syncPeriod);
  if (p.syncPeriod < 0) p.syncPeriod = 0;
  r.optionalLong("maxConcurrentOptimizes", p.maxConcurrentOptimizes);
  r.optionalLong("blockSignSize", p.blockSignSize);
  if (p.blockSignSize > kMaxBlockSignSize) {
    p.blockSignSize = kMaxBlockSignSize;
    Str msg("blockSignSize set to greater than 2000. Restricting to 2000.");
    gLogger.warn(msg);
    if (notes) notes->push_back(msg);
  }
  if (p.blockSignSize < 0) p.blockSignSize = 0;
  r.optionalLong("waitForOptimize", p.waitForOptimize);
  r.optionalText("coldToFrozenScript", p.coldToFrozenScript);
  r.optionalText("warmToColdScript", p.warmToColdScript);
  r.optionalLong("maxTermChars", p.maxTermChars);
  r.optionalLong("maxTerms", p.maxTerms);
  r.optionalLong("maxPostings", p.maxPostings);
  r.optionalLong("maxValues", p.maxValues);
  r.optionalLong("maxMemMB", p.maxMemMB);
  r.optionalLong("indexThreads", p.indexThreads);
  r.optionalLong("queryThreads", p.queryThreads);
  r.optionalLong("addressCompressBits", p.addressCompressBits);
  if (p.addressCompressBits < 0 || p.addressCompressBits > 12)
    r.invalid("addressCompressBits", Str::fromFormat("%ld", p.addressCompressBits));
  r.optionalBool("isReadOnly", p.isReadOnly);
  return p;
}
