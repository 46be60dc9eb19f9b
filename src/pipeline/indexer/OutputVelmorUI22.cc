#include "pipeline/indexer/OutputVelmorUI22.h"

#include "pipeline/indexer/GetModule.h"
#include "pipeline/indexer/Query.h"

void OutputVelmorUI22::writeEvents(const std::vector<std::shared_ptr<PipelineData>>& events) {
  _out.appendFormat("<results type=\"%s\" c=\"%llu\" tc=\"%u\">\n", "events", (unsigned long long)events.size(),
                    unsigned(_query->results().size()));
  for (const auto& e : events) {
    const Str& cd = e->getStr(PipelineData::cdKey);
    _out += "\t<r";
    _out += " cd=\"";
    appendEscaped(StrSegment(cd), true);
    _out += '"';
    if (!e->has(PipelineData::rawKey)) {
      _out += ">Unable to find this event<meta></meta></r>\n";
      continue;
    }
    appendRelevance(cd);
    const Str& raw = e->getStr(PipelineData::rawKey);
    _out.appendFormat(" lines=\"%ld\">", lineCount(raw));
    appendEventText(raw);
    _out += "<meta>";
    dumpEventMetaData(*e);
    _out += "</meta>";
    _out += "</r>\n";
    flush(64 * 1024);
  }
  _out += "</results>\n\n";
}

void OutputVelmorUI22::writeList(const Str& kind, const std::vector<std::shared_ptr<PipelineData>>& rows) {
  unsigned total = rows.empty() ? 0u : unsigned(rows.front()->getStr(GetModule::kTotalKey).toUnsignedLong(rows.size()));
  _out += "<results type=\"";
  appendEscaped(StrSegment(kind), true);
  _out.appendFormat("\" c=\"%llu\" tc=\"%u\">\n", (unsigned long long)rows.size(), total);
  for (const auto& r : rows) {
    _out += "\t<cols";
    _out.appendFormat(" c=\"%ld\" cd=\"%lld\"", r->getStr(GetModule::kCountKey).toLong(0),
                      r->getStr(GetModule::kCodeKey).toLongLong(-1));
    _out += '>';
    appendEscaped(StrSegment(r->getStr(PipelineData::rawKey)));
    _out += "</cols>\n";
  }
  _out += "</results>\n\n";
}
