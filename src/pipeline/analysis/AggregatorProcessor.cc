#include "pipeline/analysis/AggregatorProcessor.h"

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <ctime>

#include "util/ExtraTimevalParseInfo.h"
#include "util/Logger.h"
#include "util/Timeval.h"

static Logger gLogger("AggregatorMiningProcessor");

AggregatorProcessor::AggregatorProcessor() = default;
AggregatorProcessor::~AggregatorProcessor() = default;

const PluginFactory& AggregatorProcessor::factory() {
  static const SimplePluginFactory<AggregatorProcessor> f("aggregatorprocessor");
  return f;
}

void AggregatorProcessor::init(const xml::node&, const xml::node&) {}

int AggregatorProcessor::execute(std::shared_ptr<PipelineData>& record) {
  if (!record) return eDrop;
  const char* source = record->getIfAvailCStr(PipelineData::sourceKey);
  try {
    if (!source) return eOk;
    const Str& key = record->defaultConf(false);
    auto it = _aggregators.find(key);
    if (it == _aggregators.end()) {
      auto made = std::make_unique<Aggregator>(key);
      made->dateParser().setDateByString(StrSegment(source));
      it = _aggregators.emplace(key, std::move(made)).first;
    }
    Aggregator& aggregator = *it->second;

    PipelineData::SharedStr done = record->getIfAvail(PipelineData::doneKey);
    std::shared_ptr<PipelineData> line = record;
    if (done) {
      gLogger.info("Got done message for: %s", source);
      line.reset();
    }
    std::shared_ptr<PipelineData> result = aggregator.processLine(line);
    if (result) putTimestamp(aggregator, *result);
    if (done) {
      _aggregators.erase(it);
      if (result) result->put(PipelineData::doneKey, done);
    }
    if (!result) return eDrop;
    record = std::move(result);
    return eOk;
  } catch (const std::exception& e) {
    gLogger.error("Uncaught exception in Aggregator for source: %s, skipping this event", source ? source : "NULL");
    gLogger.debug("The exception was: %s", e.what());
    return eDrop;
  }
}

void AggregatorProcessor::putTimestamp(Aggregator& aggregator, PipelineData& record) {
  const char* given = record.getIfAvailCStr(PipelineData::timeKey);
  const Str& raw = record.getStr(PipelineData::rawKey);
  int64_t seconds = 0;
  Str meta;
  const bool found = eventTime(aggregator, StrSegment(raw.data(), raw.size()), given, seconds, meta);
  if (!meta.empty()) record.append(PipelineData::metaKey, meta);
  if (found)
    record.setTimeKey((unsigned long)seconds);
  else if (!given)
    record.setTimeKey((unsigned long)time(nullptr));
}

bool AggregatorProcessor::eventTime(Aggregator& aggregator, const StrSegment& raw, const char* given,
                                    int64_t& seconds, Str& meta) {
  Timeval reference;
  unsigned long givenSeconds = given ? strtoul(given, nullptr, 10) : 0;
  if (givenSeconds != 0 && givenSeconds != ULONG_MAX)
    reference.set(int64_t(givenSeconds), 0);
  else
    reference.setToNow();

  Timeval out;
  ExtraTimevalParseInfo extra;
  // A time the index cannot hold (it keeps signed 32-bit seconds: from
  // 1901-12-13 to 2038-01-19) counts as none, rather than wrapping round.
  if (aggregator.dateParser().parseDate(out, raw, reference, extra) && out.sec() >= INT32_MIN &&
      out.sec() <= INT32_MAX) {
    if (aggregator.indexDateElements()) meta += aggregator.dateTerms(extra);
    seconds = out.sec();
    return true;
  }
  if (aggregator.indexDateElements()) meta += "timestamp::none";
  return false;
}
