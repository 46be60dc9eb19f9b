#include "pipeline/indexer/OutputVelmorUI21.h"

#include "pipeline/indexer/GetModule.h"
#include "pipeline/indexer/Query.h"

void OutputVelmorUI21::element(const char* name, const Str& text) {
  _out.appendFormat("\t\t<%s>", name);
  appendEscaped(StrSegment(text));
  _out.appendFormat("</%s>\n", name);
}

void OutputVelmorUI21::writeEvents(const std::vector<std::shared_ptr<PipelineData>>& events) {
  _out.appendFormat("<results type=\"%s\">\n", "events");
  for (const auto& e : events) {
    const Str& cd = e->getStr(PipelineData::cdKey);
    _out += "\t<result cd=\"";
    appendEscaped(StrSegment(cd), true);
    _out += '"';
    if (!e->has(PipelineData::rawKey)) {
      _out += ">Unable to find this event</result>\n";
      continue;
    }
    appendRelevance(cd);
    const Str& raw = e->getStr(PipelineData::rawKey);
    _out.appendFormat(" lines=\"%ld\">\n", lineCount(raw));
    _out += "\t\t<timestamp>";
    appendEscaped(StrSegment(formatTime(*e)));
    _out += "</timestamp>\n";
    element("host", e->getStr(PipelineData::hostField));
    element("source", e->getStr(PipelineData::sourceField));
    element("sourcetype", e->getStr(PipelineData::sourceTypeField));
    _out += "\t\t<text>";
    appendEventText(raw);
    _out += "</text>\n";
    _out += "\t</result>\n";
    flush(64 * 1024);
  }
  _out += "</results>\n\n";
}

void OutputVelmorUI21::writeList(const Str& kind, const std::vector<std::shared_ptr<PipelineData>>& rows) {
  const char* tag = "item";
  const char* attr = "name";
  bool coded = true;
  if (kind == "hosts") {
    tag = "host";
  } else if (kind == "sources") {
    tag = "source";
  } else if (kind == "sourcetypes") {
    tag = "sourcetype";
    attr = "base";
  } else if (kind == "types") {
    tag = "type";
    attr = "wob";
  } else {
    coded = false;
  }
  _out += "<results type=\"";
  appendEscaped(StrSegment(kind), true);
  _out += "\">\n";
  for (const auto& r : rows) {
    _out.appendFormat("\t\t<%s", tag);
    if (coded) _out.appendFormat(" cd=\"%lld\"", r->getStr(GetModule::kCodeKey).toLongLong(-1));
    _out.appendFormat(" %s=\"", attr);
    appendEscaped(StrSegment(r->getStr(PipelineData::rawKey)), true);
    _out.appendFormat("\" >%llu</%s>\n", (unsigned long long)r->getStr(GetModule::kCountKey).toUnsignedLong(0), tag);
  }
  _out += "</results>\n\n";
}
