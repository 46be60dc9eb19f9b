#include "tools/velmor/EventPrinter.h"
#include "util/StrSegment.h"

#include <cmath>
#include <cstdlib>
#include <ctime>

#include "search/SearchResults.h"

namespace {
const char* const kTime = "\033[32m";
const char* const kHost = "\033[36m";
const char* const kMatch = "\033[1;31m";
const char* const kReset = "\033[0m";
}  // namespace

EventPrinter::EventPrinter(std::vector<Str> terms, bool colour) : _colour(colour) {
  for (const Str& t : terms)
    if (!t.empty()) _terms.push_back(lowercase(t));
}

Str EventPrinter::formatTime(const Str& epoch) {
  char* end = nullptr;
  double t = strtod(epoch.c_str(), &end);
  if (epoch.empty() || end == nullptr || *end != '\0') return epoch;
  double whole = std::floor(t);
  time_t secs = static_cast<time_t>(whole);
  long ms = std::lround((t - whole) * 1000);
  if (ms >= 1000) {
    ++secs;
    ms -= 1000;
  }
  struct tm tm;
  localtime_r(&secs, &tm);
  char buf[64];
  strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &tm);
  Str out(buf);
  if (ms != 0) out += Str::fromFormat(".%03ld", ms);
  return out;
}

Str EventPrinter::highlight(const Str& text) const {
  if (!_colour || _terms.empty()) return text;
  Str lower = lowercase(text);
  // Marks of every byte inside a match; overlapping matches merge.
  std::vector<bool> marked(text.size(), false);
  for (const Str& t : _terms)
    for (size_t at = lower.find(t); at != Str::npos; at = lower.find(t, at + 1))
      for (size_t i = at; i < at + t.size(); ++i) marked[i] = true;
  Str out;
  bool in = false;
  for (size_t i = 0; i < text.size(); ++i) {
    if (marked[i] != in) {
      out += marked[i] ? kMatch : kReset;
      in = marked[i];
    }
    out += text[i];
  }
  if (in) out += kReset;
  return out;
}

Str EventPrinter::format(const SearchResults& rows, const SearchResult& row) const {
  const Str* time = row.getValuePtr(rows.keyIndex(Str("_time")));
  const Str* host = row.getValuePtr(rows.keyIndex(Str("host")));
  const Str* raw = row.getValuePtr(rows.keyIndex(Str("_raw")));
  Str t = time ? formatTime(*time) : Str("-");
  Str h = host && !host->empty() ? *host : Str("-");
  Str out;
  if (_colour) {
    out += kTime + t + kReset + " " + kHost + h + kReset + " ";
  } else {
    out += t + " " + h + " ";
  }
  out += highlight(raw ? *raw : Str());
  return out;
}
