#include "search/dispatch/JobDocuments.h"

#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <map>
#include <vector>

#include "framework/http/AtomEntry.h"
#include "framework/http/HTTPReply.h"
#include "search/SearchResults.h"

namespace {

Str field(const SearchResult& r, const SearchResults& rs, const char* name) {
  Str v;
  r.getValue(rs.keyIndex(Str(name)), v);
  return v;
}

long toLong(const Str& s) {
  long v = 0;
  if (s.tryToLong(v)) return v;
  double d = 0;
  return s.tryToDouble(d) ? static_cast<long>(d) : 0;
}

double toDouble(const Str& s) {
  double d = 0;
  return s.tryToDouble(d) ? d : 0;
}

Str esc(const Str& s) { return HTTPReply::xmlEscape(s); }

// One field of the summary: its own row and its value rows.
struct FieldSummary {
  Str count, min, max, sum, sumsq, dc;
  std::vector<std::pair<long, Str>> values;  // count, value
};

}  // namespace

bool JobDocuments::readStatus(const Pathname& dir, const Str& sid, JobStatus& out) {
  Pathname file = dir / "status.csv";
  SearchResults rs;
  if (rs.fromCSV(file) == 0 || rs.empty()) return false;
  const SearchResult& r = *rs.front();
  out = JobStatus();
  out.sid = sid;
  out.user = field(r, rs, "user");
  out.start = toDouble(field(r, rs, "start"));
  out.count = toLong(field(r, rs, "count"));
  out.cursor = field(r, rs, "cursor");
  out.keywords = field(r, rs, "keywords");
  out.ttl = toLong(field(r, rs, "ttl"));
  out.done = field(r, rs, "done") == "1";
  out.search = field(r, rs, "search");
  out.streaming = field(r, rs, "streaming");
  out.error = field(r, rs, "error");
  out.setStart = field(r, rs, "setStart");
  out.setEnd = field(r, rs, "setEnd");
  out.startTime = field(r, rs, "startTime");
  out.endTime = field(r, rs, "endTime");
  struct stat st;
  if (file.stat(st)) out.mtime = st.st_mtime;
  out.paused = (dir / "pause").exists();
  out.finalized = (dir / "finalize").exists();
  out.saved = (dir / "save").exists();
  out.cancelled = (dir / "cancel").exists();
  SearchResults msgs;
  if ((dir / "messages.csv").isFile() && msgs.fromCSV(dir / "messages.csv") > 0) {
    for (const SearchResult* m : msgs) out.messages.push_back(field(*m, msgs, "type") + ": " + field(*m, msgs, "text"));
  }
  return true;
}

bool JobDocuments::isTimeFormat(const Str& fmt) {
  if (fmt.find('%') == Str::npos) return false;
  time_t zero = 0;
  struct tm tm;
  gmtime_r(&zero, &tm);
  char buf[256];
  return strftime(buf, sizeof buf, fmt.c_str(), &tm) > 0;
}

bool JobDocuments::parseTime(const Str& text, const Str& fmt, double& out) {
  Str t = text.trim();
  if (t.empty()) return false;
  if (fmt == "%s") return t.tryToDouble(out) && std::isfinite(out);
  struct tm tm = {};
  tm.tm_isdst = -1;
  const char* end = strptime(t.c_str(), fmt.c_str(), &tm);
  if (end == nullptr || *end != '\0') return false;
  time_t secs = mktime(&tm);
  if (secs == static_cast<time_t>(-1)) return false;
  out = static_cast<double>(secs);
  return true;
}

Str JobDocuments::formatTime(double t, const Str& fmt) {
  if (fmt == "%s") {
    if (t == std::floor(t)) return Str::fromFormat("%lld", static_cast<long long>(t));
    return Str::fromFormat("%.3f", t);
  }
  time_t secs = static_cast<time_t>(std::floor(t));
  struct tm tm;
  localtime_r(&secs, &tm);
  char buf[256];
  size_t n = strftime(buf, sizeof buf, fmt.c_str(), &tm);
  return Str(std::string(buf, n));
}

Str JobDocuments::rfc3339(time_t t) {
  struct tm tm;
  gmtime_r(&t, &tm);
  char buf[64];
  strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &tm);
  return Str(std::string(buf));
}

void JobDocuments::timelineXML(const SearchResults& buckets, const JobStatus& st, const Str& timeFormat, Str& out) {
  out += Str::fromFormat("<timeline c='%lld' cursor='%d'>\n", static_cast<long long>(st.count),
                         static_cast<int>(toDouble(st.cursor)));
  for (const SearchResult* r : buckets) {
    double et = toDouble(field(*r, buckets, "et"));
    double lt = toDouble(field(*r, buckets, "lt"));
    long c = toLong(field(*r, buckets, "count"));
    double d = lt - et;
    int precision = d == std::floor(d) ? 0 : 3;
    out += Str::fromFormat("\t<bucket c='%d' t='%s' d='%.*f' f='%s'>%d</bucket>\n", static_cast<int>(c),
                           esc(formatTime(et, timeFormat)).c_str(), precision, d,
                           field(*r, buckets, "complete") == "1" ? "1" : "0", static_cast<int>(c));
  }
  out += "</timeline>\n";
}

void JobDocuments::summaryXML(const SearchResults& summary, const JobStatus& st, long topCount, Str& out) {
  std::map<Str, FieldSummary> fields;
  std::vector<Str> order;
  for (const SearchResult* r : summary) {
    Str key = field(*r, summary, "key");
    if (key.empty()) continue;
    auto [it, fresh] = fields.try_emplace(key);
    if (fresh) order.push_back(key);
    FieldSummary& f = it->second;
    Str value;
    bool isValueRow = r->getValue(summary.keyIndex(Str("value")), value) && !value.empty();
    if (!isValueRow) {
      f.count = field(*r, summary, "count");
      f.min = field(*r, summary, "min");
      f.max = field(*r, summary, "max");
      f.sum = field(*r, summary, "sum");
      f.sumsq = field(*r, summary, "sumsq");
      f.dc = field(*r, summary, "dc");
    } else {
      f.values.emplace_back(toLong(field(*r, summary, "count")), value);
    }
  }
  double newest = toDouble(st.startTime), oldest = toDouble(st.endTime);
  if (oldest > newest) std::swap(oldest, newest);
  out += Str::fromFormat("<summary start_time='%d' end_time='%d'>\n", static_cast<int>(oldest),
                         static_cast<int>(newest));
  const Str tagPrefix = "tag::";
  for (const Str& name : order) {
    if (name.startswith(tagPrefix.c_str())) continue;
    FieldSummary& f = fields[name];
    long count = toLong(f.count);
    long dc = f.dc.empty() ? static_cast<long>(f.values.size()) : toLong(f.dc);
    bool dcExact = dc < 10000;
    out += Str::fromFormat("\t<field k='%s' c='%d' dc='%d' exact='%s'>\n", esc(name).c_str(), static_cast<int>(count),
                           static_cast<int>(dc), dcExact ? "1" : "0");
    if (!f.min.empty() && !f.max.empty() && count > 0) {
      double sum = toDouble(f.sum), sumsq = toDouble(f.sumsq);
      double mean = sum / count;
      double var = count > 1 ? (sumsq - count * mean * mean) / (count - 1) : 0;
      out += Str::fromFormat("\t\t<min>%s</min>\n\t\t<max>%s</max>\n\t\t<mean>%f</mean>\n\t\t<stdev>%f</stdev>\n",
                             esc(f.min).c_str(), esc(f.max).c_str(), mean, var > 0 ? std::sqrt(var) : 0.0);
    }
    auto tags = fields.find(tagPrefix + name);
    if (tags != fields.end() && !tags->second.values.empty()) {
      out += "\t\t<tags>\n";
      for (const auto& [c, tag] : tags->second.values)
        out += Str::fromFormat("\t\t\t<tag c='%d'>%s</tag>\n", static_cast<int>(c), esc(tag).c_str());
      out += "\t\t</tags>\n";
    }
    std::stable_sort(f.values.begin(), f.values.end(),
                     [](const auto& a, const auto& b) { return a.first > b.first; });
    const bool valuesExact = dcExact && dc <= 100;
    out += "\t\t<modes>\n";
    long shown = 0;
    for (const auto& [c, value] : f.values) {
      if (shown++ >= topCount) break;
      out += Str::fromFormat("\t\t\t<value c='%d' exact='%s'><text>%s</text></value>\n", static_cast<int>(c),
                             valuesExact ? "1" : "0", esc(value).c_str());
    }
    out += "\t\t</modes>\n\t</field>\n";
  }
  out += "</summary>\n";
}

void JobDocuments::statusEntry(const JobStatus& st, const Str& urlBase, time_t now, AtomEntry& out) {
  const Str self = "/services/search/jobs/" + st.sid;
  out = AtomEntry();
  out.title = st.search;
  out.id = urlBase + self;
  out.updated = rfc3339(st.mtime);
  out.author = st.user;
  out.links.push_back(AtomLink{self, "alternate", ""});
  for (const char* rel : {"events", "results", "timeline", "summary", "control"})
    out.links.push_back(AtomLink{self + "/" + rel, rel, ""});
  auto line = [&out](const char* name, const Str& value) {
    Str v = value;
    for (size_t p = 0; (p = v.find('\n', p)) != Str::npos; p += 2) v.replace(p, 1, "\\n");
    out.content += Str(name) + "=" + v + "\n";
  };
  line("mtime", Str::fromFormat("%lld", static_cast<long long>(st.mtime)));
  line("ttl", Str::fromFormat("%ld", st.ttl));
  line("expired", st.expired(now) ? "1" : "0");
  line("start", formatTime(st.start, "%s"));
  line("cursor", st.cursor);
  line("sid", st.sid);
  line("paused", st.paused ? "1" : "0");
  line("finalized", st.finalized ? "1" : "0");
  line("done", st.done ? "1" : "0");
  line("count", Str::fromFormat("%ld", st.count));
  line("error", st.error);
  for (const Str& m : st.messages) line("message", m);
  out.contentType = "text";
}
