#include "pipeline/analysis/LinePassThroughProcessor.h"

#include <climits>
#include <cstdio>
#include <ctime>

namespace {
// A syslog stamp has no year: it is read near the reference time, which is
// moved on once an hour so that a service running across New Year's Eve
// dates January lines in the new year.
constexpr int64_t kReferenceRefresh = 3600;
}  // namespace

LinePassThroughProcessor::LinePassThroughProcessor()
    : _stamps(int64_t(time(nullptr))), _referenceSet(int64_t(time(nullptr))) {}

const PluginFactory& LinePassThroughProcessor::factory() {
  static const SimplePluginFactory<LinePassThroughProcessor> f("aggregatorprocessor");
  return f;
}

void LinePassThroughProcessor::init(const xml::node&, const xml::node&) {}

int LinePassThroughProcessor::execute(std::shared_ptr<PipelineData>& record) {
  PipelineData& r = *record;
  const Str& channel = r.getStr(PipelineData::channelKey);
  if (r.contains(PipelineData::doneKey)) {
    _lastStamp.erase(channel);
    return r.contains(PipelineData::rawKey) ? eOk : eDrop;
  }
  if (r.contains(PipelineData::timeKey)) return eOk;
  int64_t now = int64_t(time(nullptr));
  if (now - _referenceSet >= kReferenceRefresh) {
    _stamps = LeadingTime(now);
    _referenceSet = now;
  }
  int64_t t;
  if (_stamps.parse(StrSegment(r.getStr(PipelineData::rawKey)), t) && t >= INT32_MIN && t <= INT32_MAX) {
    if (_lastStamp.size() >= kMaxChannels && !_lastStamp.count(channel)) _lastStamp.clear();
    _lastStamp[channel] = t;
  } else {
    auto it = _lastStamp.find(channel);
    t = it == _lastStamp.end() ? now : it->second;
  }
  int n = snprintf(_timeText, sizeof _timeText, "%lld", (long long)t);
  r.put(PipelineData::timeKey, Str(std::string(_timeText, size_t(n))));
  return eOk;
}
