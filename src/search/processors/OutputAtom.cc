#include "search/processors/OutputAtom.h"

#include <time.h>

#include <algorithm>

#include "search/SL.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "search/processors/ResultsXml.h"

Str OutputAtom::isoTime(long long seconds) {
  time_t t = static_cast<time_t>(seconds);
  struct tm tm;
  gmtime_r(&t, &tm);
  char buf[32];
  strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &tm);
  return Str(buf);
}

void OutputAtom::renderBegin(SearchResultsInfo& info, Str& out) {
  _feedId = "velmor:search:" + info.queryId;
  _now = isoTime(static_cast<long long>(time(nullptr)));
  out += "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<feed xmlns=\"http://www.w3.org/2005/Atom\">\n";
  out += "<title>Search results</title>\n<id>";
  ResultsXml::escape(_feedId, out);
  out += "</id>\n<updated>" + _now + "</updated>\n";
}

void OutputAtom::renderChunk(SearchResults& chunk, SearchResultsInfo& info) {
  ResultsXml::columns(chunk, info, _names, _keys);
  _raw = chunk.keyIndex(SL::Raw);
  _time = chunk.keyIndex(SL::Timestamp);
}

void OutputAtom::renderRow(SearchResults&, const SearchResult& row, size_t position, Str& out) {
  Str title;
  if (const Str* raw = row.getValuePtr(_raw)) {
    // 80 bytes, backed off so that no UTF-8 sequence is cut.
    size_t n = std::min<size_t>(raw->size(), 80);
    while (n > 0 && n < raw->size() && (static_cast<unsigned char>((*raw)[n]) & 0xC0) == 0x80) --n;
    title = raw->substr(0, n);
  } else {
    for (size_t c = 0; c < _keys.size() && title.empty(); ++c)
      if (const Str* v = row.getValuePtr(_keys[c])) title = _names[c] + "=" + *v;
  }
  Str updated = _now;
  double t;
  if (const Str* tv = row.getValuePtr(_time); tv && tv->tryToDouble(t)) updated = isoTime(static_cast<long long>(t));
  out += "<entry>\n<title>";
  ResultsXml::escape(title, out);
  out += "</title>\n<id>";
  ResultsXml::escape(_feedId, out);
  out.appendFormat(":%lu</id>\n<updated>", static_cast<unsigned long>(position));
  out += updated + "</updated>\n<content type=\"text/xml\">\n";
  ResultsXml::appendResult(row, position, _names, _keys, std::set<Str>(), false, out);
  out += "</content>\n</entry>\n";
}

void OutputAtom::renderEnd(SearchResultsInfo&, size_t, Str& out) { out += "</feed>\n"; }
