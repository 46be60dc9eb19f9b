#include "tools/velmor/RowsPrinter.h"

#include "search/SearchResults.h"
#include "search/dispatch/JobResultsFormatter.h"
#include "tools/velmor/EventPrinter.h"
#include "tools/velmor/TableWriter.h"

namespace {

// The fields shown: every field in order of first appearance, but of the
// hidden ones ("_..." and "__...") only _raw and _time.
std::vector<Str> publicColumns(const SearchResults& rows) {
  std::vector<Str> order, out;
  rows.getColumnOrder(order);
  for (const Str& n : order)
    if (!n.startswith('_') || n == "_raw" || n == "_time") out.push_back(n);
  return out;
}

}  // namespace

bool RowsPrinter::parseMode(const Str& text, Mode& out) {
  if (text == "table") out = kTable;
  else if (text == "raw") out = kRaw;
  else if (text == "json") out = kJson;
  else if (text == "csv") out = kCsv;
  else return false;
  return true;
}

bool RowsPrinter::areEvents(const SearchResults& rows) {
  sr_index_t raw = rows.keyIndex(Str("_raw"));
  if (raw == SearchResults::nkeyindex) return false;
  for (const SearchResult* r : rows)
    if (r->hasValue(raw)) return true;
  return false;
}

Str RowsPrinter::format(const SearchResults& rows, Mode mode, const EventPrinter& events) {
  Str out;
  const bool isEvents = areEvents(rows);
  switch (mode) {
    case kTable:
      if (!isEvents) return TableWriter().format(rows);
      for (const SearchResult* r : rows) {
        out += events.format(rows, *r);
        out += '\n';
      }
      return out;
    case kRaw: {
      if (isEvents) {
        sr_index_t raw = rows.keyIndex(Str("_raw"));
        for (const SearchResult* r : rows) {
          out += r->getValue(raw);
          out += '\n';
        }
        return out;
      }
      std::vector<Str> cols = publicColumns(rows);
      std::vector<sr_index_t> keys;
      for (const Str& c : cols) keys.push_back(rows.keyIndex(c));
      for (const SearchResult* r : rows) {
        for (size_t i = 0; i < keys.size(); ++i) {
          if (i) out += '\t';
          out += r->getValue(keys[i]);
        }
        out += '\n';
      }
      return out;
    }
    case kJson:
      if (rows.empty()) return "[]\n";
      JobResultsFormatter::format(rows, "json", publicColumns(rows), "none", out);
      out += '\n';
      return out;
    case kCsv: {
      std::vector<Str> cols = publicColumns(rows);
      if (cols.empty()) return out;
      JobResultsFormatter::format(rows, "csv", cols, "none", out);
      if (!out.empty() && out.back() != '\n') out += '\n';
      return out;
    }
  }
  return out;
}

Str RowsPrinter::line(const SearchResults& rows, const SearchResult& row, Mode mode, const EventPrinter& events) {
  Str out;
  switch (mode) {
    case kTable:
      out = events.format(rows, row);
      break;
    case kRaw:
      out = row.getValue(rows.keyIndex(Str("_raw")));
      break;
    case kJson:
    case kCsv: {
      out += '{';
      bool first = true;
      for (const Str& name : publicColumns(rows)) {
        const Str* v = row.getValuePtr(rows.keyIndex(name));
        if (!v) continue;
        if (!first) out += ',';
        first = false;
        out += '"';
        JobResultsFormatter::jsonEscape(name, out);
        out += "\":\"";
        JobResultsFormatter::jsonEscape(*v, out);
        out += '"';
      }
      out += '}';
      break;
    }
  }
  out += '\n';
  return out;
}
