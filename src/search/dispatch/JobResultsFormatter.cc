#include "search/dispatch/JobResultsFormatter.h"

#include <cctype>
#include <set>

#include "search/SL.h"
#include "search/SearchResults.h"
#include "search/processors/ResultsXml.h"

namespace {


// The length of the valid UTF-8 sequence at p (1..4), or 0 when it is not one.
size_t utf8Length(const unsigned char* p, size_t left) {
  unsigned char c = p[0];
  size_t n;
  unsigned min;
  unsigned cp;
  if (c < 0x80) return 1;
  if ((c & 0xE0) == 0xC0) { n = 2; cp = c & 0x1F; min = 0x80; }
  else if ((c & 0xF0) == 0xE0) { n = 3; cp = c & 0x0F; min = 0x800; }
  else if ((c & 0xF8) == 0xF0) { n = 4; cp = c & 0x07; min = 0x10000; }
  else return 0;
  if (n > left) return 0;
  for (size_t i = 1; i < n; ++i) {
    if ((p[i] & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (p[i] & 0x3F);
  }
  if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
  return n;
}

}  // namespace

bool JobResultsFormatter::isOutputMode(const Str& mode) {
  return mode == "xml" || mode == "json" || mode == "csv" || mode == "raw";
}

bool JobResultsFormatter::isSegmentation(const Str& s) {
  return s == "none" || s == "raw" || s == "inner" || s == "outer" || s == "full";
}

const char* JobResultsFormatter::contentType(const Str& mode) {
  if (mode == "json") return "application/json";
  if (mode == "csv") return "text/csv";
  if (mode == "raw") return "text/plain";
  return "text/xml";
}

void JobResultsFormatter::jsonEscape(const Str& in, Str& out) {
  const unsigned char* p = reinterpret_cast<const unsigned char*>(in.data());
  size_t len = in.size();
  for (size_t i = 0; i < len;) {
    unsigned char c = p[i];
    if (c >= 0x80) {
      size_t n = utf8Length(p + i, len - i);
      if (n == 0) {
        out += "\\ufffd";
        ++i;
      } else {
        out.append(reinterpret_cast<const char*>(p + i), n);
        i += n;
      }
      continue;
    }
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      case '\b': out += "\\b"; break;
      case '\f': out += "\\f"; break;
      default:
        if (c < 0x20 || c == 0x7F)
          out += Str::fromFormat("\\u%04x", c);
        else
          out += static_cast<char>(c);
    }
    ++i;
  }
}

void JobResultsFormatter::chooseFields(const SearchResults& rows, const std::vector<Str>& fields,
                                       std::vector<Str>& names, std::vector<size_t>& inds) {
  names = fields;
  std::vector<sr_index_t> found;
  rows.genFieldList(names, found, !fields.empty(), false);
  inds.assign(found.begin(), found.end());
}

void JobResultsFormatter::format(const SearchResults& rows, const Str& mode, const std::vector<Str>& fields,
                                 const Str& segmentation, Str& out) {
  if (mode == "csv") {
    Str csv;
    if (fields.empty())
      rows.toCSV(csv);
    else
      rows.toCSV(csv, fields, true);
    out += csv;
    return;
  }
  if (mode == "raw") {
    sr_index_t raw = rows.keyIndex(SL::Raw);
    for (const SearchResult* r : rows) {
      out += r->getValue(raw);
      out += '\n';
    }
    return;
  }
  std::vector<Str> names;
  std::vector<size_t> inds;
  chooseFields(rows, fields, names, inds);
  if (mode == "json")
    toJSON(rows, names, inds, out);
  else
    toXML(rows, names, inds, segmentation, out);
}

void JobResultsFormatter::toXML(const SearchResults& rows, const std::vector<Str>& names,
                                const std::vector<size_t>& inds, const Str& segmentation, Str& out) {
  // The same document the output commands write, so a job's rows read as a
  // search's rows do.
  const bool segment = segmentation == "inner" || segmentation == "outer" || segmentation == "full";
  const std::set<Str> noKeywords;
  out += "<?xml version=\"1.0\"?>\n<results>\n";
  size_t offset = 0;
  for (const SearchResult* r : rows) ResultsXml::appendResult(*r, offset++, names, inds, noKeywords, segment, out);
  out += "</results>\n";
}

void JobResultsFormatter::toJSON(const SearchResults& rows, const std::vector<Str>& names,
                                 const std::vector<size_t>& inds, Str& out) {
  out += "[\n";
  bool firstRow = true;
  for (const SearchResult* r : rows) {
    if (!firstRow) out += ",\n";
    firstRow = false;
    out += "\t{\n";
    bool firstField = true;
    for (size_t k = 0; k < names.size(); ++k) {
      const Str* v = r->getValuePtr(inds[k]);
      if (v == nullptr) continue;
      if (!firstField) out += ",\n";
      firstField = false;
      out += "\t\t\"";
      jsonEscape(names[k], out);
      out += "\": \"";
      jsonEscape(*v, out);
      out += '"';
    }
    out += "\n\t}";
  }
  out += "\n]";
}
