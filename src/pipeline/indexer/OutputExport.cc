#include "pipeline/indexer/OutputExport.h"

#include <cstdio>

#include "pipeline/indexer/Query.h"
#include "util/Exceptions.h"
#include "util/Logger.h"

static Logger gLogger("OutputExport");

void OutputExport::runModule() {
  Str path = getArg("exportto");
  std::vector<std::shared_ptr<PipelineData>> none;
  auto it = _query->resultMap().find("events");
  const auto& events = it == _query->resultMap().end() ? none : it->second;
  unsigned n = 0;
  for (const auto& e : events) n += e->has(PipelineData::rawKey) ? 1 : 0;
  gLogger.info("Exporting ... %u %ss", n, "event");

  FILE* f = path.empty() ? nullptr : std::fopen(path.c_str(), "w");
  if (!f) throw QueryException(Str("Cannot open for writing ") + path);
  Str text;
  bool ok = true;
  for (const auto& e : events) {
    if (!e->has(PipelineData::rawKey)) continue;
    text.clear();
    text += '\t';
    text += e->getStr(PipelineData::timeKey);
    text += '\t';
    for (char c : e->getStr(PipelineData::rawKey)) {
      switch (c) {
        case '\\':
          text += "\\\\";
          break;
        case '\n':
          text += "\\n";
          break;
        case '\r':
          text += "\\r";
          break;
        case '\t':
          text += "\\t";
          break;
        default:
          text += c;
      }
    }
    text += '\n';
    ok = std::fwrite(text.data(), 1, text.size(), f) == text.size() && ok;
  }
  ok = std::fclose(f) == 0 && ok;
  if (!ok) throw QueryException(Str("Cannot open for writing ") + path);
}
