#include "pipeline/indexer/OutputScheduler.h"

#include <cstdio>
#include <ctime>

#include "pipeline/indexer/GetModule.h"
#include "pipeline/indexer/Query.h"

namespace {

unsigned listTotal(Query& q, const char* kind) {
  auto it = q.resultMap().find(kind);
  if (it == q.resultMap().end() || it->second.empty()) return 0;
  return unsigned(it->second.front()->getStr(GetModule::kTotalKey).toUnsignedLong(it->second.size()));
}

Str boundText(bool set, int64_t t) {
  if (!set) return Str();
  time_t tt = time_t(t);
  struct tm tm;
  char buf[64];
  if (!localtime_r(&tt, &tm) || std::strftime(buf, sizeof buf, "%m/%d/%Y:%H:%M:%S", &tm) == 0)
    return ToString((long long)t);
  return Str(buf);
}

}  // namespace

void OutputScheduler::runModule() {
  FILE* out = _query->output();
  if (!out) return;
  const unsigned long limit = _query->stateMachine().getResultLimit();
  const size_t found = _query->results().size();
  const bool capped = limit > 0 && found > limit;
  const TimeParser& tp = _query->stateMachine().getTimeParser();
  Str line = Str::fromFormat(
      "<schedResults><eventCount>%u%s</eventCount><hostCount>%u%s</hostCount><sourceCount>%u%s</sourceCount>"
      "<typeCount>%u%s</typeCount><sourceTypeCount>%u%s</sourceTypeCount><eventTagCount>%u%s</eventTagCount>"
      "<hostTagCount>%u%s</hostTagCount><starttime>%s</starttime><endtime>%s</endtime></schedResults>",
      unsigned(capped ? limit : found), capped ? "+" : "", listTotal(*_query, "hosts"), "",
      listTotal(*_query, "sources"), "", listTotal(*_query, "types"), "", listTotal(*_query, "sourcetypes"), "",
      listTotal(*_query, "eventtags"), "", listTotal(*_query, "hosttags"), "",
      boundText(tp.hasMinTime(), tp.getMinTime()).c_str(), boundText(tp.hasMaxTime(), tp.getMaxTime()).c_str());
  line += '\n';
  std::fwrite(line.data(), 1, line.size(), out);
}
