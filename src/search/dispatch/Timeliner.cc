#include "search/dispatch/Timeliner.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "search/SLUtil.h"
#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "search/dispatch/DispatchDirs.h"
#include "util/Logger.h"

static Logger gLogger("Timeliner");

namespace {

const char* const kSteps[] = {"1s", "10s", "1min", "10min", "1h", "1day", "1month"};
constexpr size_t kRungs = sizeof(kSteps) / sizeof(kSteps[0]);
constexpr double kMaxTime = 1e11;
constexpr size_t kMaxDistinct = 10000;  // distinct values counted per field
constexpr size_t kTopValues = 100;      // value rows written per field

struct Step {
  long count = 1;
  tl_unit_t unit = TL_SECOND;
};

Step step(size_t rung) {
  Step s;
  long secs;
  SLUtil::decompTimeSpanStr(kSteps[rung], secs, s.count, s.unit);
  return s;
}

bool readTime(const SearchResult& row, sr_index_t k, double& t) {
  const Str* v = row.getValuePtr(k);
  return v != nullptr && v->tryToDouble(t) && std::isfinite(t) && std::fabs(t) <= kMaxTime;
}

Str number(double d) { return Str::fromFormat("%.15g", d); }
Str number(size_t n) { return ToString(static_cast<unsigned long>(n)); }

bool isEventFileName(const Str& name) {
  if (!name.endswith(".csv") || name.size() == 4) return false;
  for (size_t i = 0; i + 4 < name.size(); ++i)
    if (name[i] < '0' || name[i] > '9') return false;
  return true;
}

// The event files of a job, in numeric order.
std::vector<Pathname> eventFiles(const Pathname& dir) {
  std::vector<Str> names;
  dir.readDirectory(names);
  std::vector<std::pair<unsigned long, Str>> numbered;
  for (const Str& n : names) {
    unsigned long v;
    if (isEventFileName(n) && Str(n.substr(0, n.size() - 4)).tryToUnsignedLong(v)) numbered.emplace_back(v, n);
  }
  std::sort(numbered.begin(), numbered.end());
  std::vector<Pathname> out;
  for (const auto& e : numbered) out.push_back(dir / e.second);
  return out;
}

bool readWhole(const Pathname& path, SearchResults& out) {
  out.free(false);
  if (!path.isFile()) return false;
  out.fromCSV(path);
  return true;
}

}  // namespace

struct Timeliner::FieldSummary {
  size_t count = 0;    // events having the field
  size_t numeric = 0;  // of them with a numeric value
  double min = 0, max = 0, sum = 0, sumsq = 0;
  std::map<Str, size_t> values;
  bool capped = false;  // a value was not counted: `values` is full

  void add(const Str& v) {
    ++count;
    double d;
    if (v.tryToDouble(d) && std::isfinite(d)) {
      if (numeric == 0 || d < min) min = d;
      if (numeric == 0 || d > max) max = d;
      sum += d;
      sumsq += d * d;
      ++numeric;
    }
    auto it = values.find(v);
    if (it != values.end())
      ++it->second;
    else if (values.size() < kMaxDistinct)
      values.emplace(v, 1);
    else
      capped = true;
  }
};

Timeliner::Timeliner(const Pathname& dir, size_t statusBuckets, int64_t setStart, int64_t setEnd)
    : _dir(dir), _maxBuckets(statusBuckets == 0 ? 1 : statusBuckets), _setStart(setStart), _setEnd(setEnd) {
  fitBuckets();
}

Timeliner::~Timeliner() = default;

const char* Timeliner::bucketSpan() const { return kSteps[_rung]; }

int64_t Timeliner::bucketStart(int64_t t, size_t rung) const {
  Step s = step(rung);
  int64_t start = t;
  if (!SLUtil::timeBinStart(t, s.count, s.unit, SLUtil::userTimezone(), start)) start = t;
  return start;
}

bool Timeliner::coveredRange(int64_t& lo, int64_t& hi) const {
  bool any = _anyTime;
  lo = _oldest;
  hi = _newest;
  if (_setStart != 0 && std::fabs(static_cast<double>(_setStart)) <= kMaxTime) {
    if (!any || _setStart < lo) lo = _setStart;
    if (!any) hi = _setStart;
    any = true;
  }
  if (_setEnd != 0 && std::fabs(static_cast<double>(_setEnd)) <= kMaxTime && (!any || _setEnd - 1 >= lo)) {
    if (!any) lo = _setEnd - 1;
    if (_setEnd - 1 > hi) hi = _setEnd - 1;
    any = true;
  }
  return any;
}

void Timeliner::fitBuckets() {
  int64_t lo, hi;
  if (!coveredRange(lo, hi)) return;
  size_t rung = _rung;
  for (; rung + 1 < kRungs; ++rung) {
    Step s = step(rung);
    int64_t b = bucketStart(lo, rung);
    size_t n = 0;
    while (b <= hi && n <= _maxBuckets) {
      int64_t next;
      if (!SLUtil::timeBinNext(b, s.count, s.unit, SLUtil::userTimezone(), next)) break;
      b = next;
      ++n;
    }
    if (n <= _maxBuckets) break;
  }
  if (rung == _rung) return;
  std::map<int64_t, size_t> moved;
  for (const auto& [start, n] : _counts) moved[bucketStart(start, rung)] += n;
  _counts.swap(moved);
  _rung = rung;
}

bool Timeliner::processResults(const SearchResults& chunk) {
  if (chunk.empty()) return true;
  bool ok = DispatchDirs::writeCsv(chunk, _dir / (number(_events) + ".csv"));
  _events += chunk.size();

  sr_index_t tk = chunk.keyIndex("_time");
  std::vector<std::pair<FieldSummary*, sr_index_t>> fields;
  for (const auto& [name, k] : chunk.getKeyMap()) {
    if (name.startswith('_')) continue;
    auto& slot = _fields[name];
    if (!slot) slot = std::make_unique<FieldSummary>();
    fields.emplace_back(slot.get(), k);
  }
  // The range first, so that the bucket size is chosen once per chunk.
  std::vector<int64_t> times;
  times.reserve(chunk.size());
  for (const SearchResult* r : chunk) {
    double t;
    if (tk == SearchResults::nkeyindex || !readTime(*r, tk, t)) continue;
    int64_t s = static_cast<int64_t>(std::floor(t));
    if (!_anyTime || s < _oldest) _oldest = s;
    if (!_anyTime || s > _newest) _newest = s;
    _anyTime = true;
    times.push_back(s);
  }
  fitBuckets();
  // Events come in time order mostly: the bucket of the last one is kept.
  Step st = step(_rung);
  int64_t curStart = 0, curEnd = 0;
  for (int64_t s : times) {
    if (curEnd <= curStart || s < curStart || s >= curEnd) {
      curStart = bucketStart(s, _rung);
      if (!SLUtil::timeBinNext(curStart, st.count, st.unit, SLUtil::userTimezone(), curEnd)) curEnd = curStart;
    }
    ++_counts[curStart];
  }
  for (const SearchResult* r : chunk)
    for (const auto& [summary, k] : fields)
      if (const Str* v = r->getValuePtr(k)) summary->add(*v);
  return writeTimeline(false) && ok;
}

bool Timeliner::writeTimeline(bool exhausted) {
  SearchResults rows;
  sr_index_t et = rows.keyIndex("et", true), lt = rows.keyIndex("lt", true);
  sr_index_t count = rows.keyIndex("count", true), complete = rows.keyIndex("complete", true);
  int64_t lo, hi;
  if (coveredRange(lo, hi)) {
    Step s = step(_rung);
    int64_t b = bucketStart(lo, _rung);
    while (b <= hi) {
      int64_t next;
      if (!SLUtil::timeBinNext(b, s.count, s.unit, SLUtil::userTimezone(), next)) {
        gLogger.warn("Unable to advance bucket: %ld", static_cast<long>(b));
        break;
      }
      SearchResult* row = rows.addNewResult();
      row->setValue(et, ToString(static_cast<long long>(b)));
      row->setValue(lt, ToString(static_cast<long long>(next)));
      auto it = _counts.find(b);
      row->setValue(count, number(it == _counts.end() ? size_t(0) : it->second));
      bool done = exhausted || (_anyTime && _oldest < b);
      row->setValue(complete, Str(done ? "1" : "0"));
      b = next;
    }
  }
  static const std::vector<Str> kColumns = {"et", "lt", "count", "complete"};
  return DispatchDirs::writeCsv(rows, _dir / "timeline.csv", &kColumns);
}

bool Timeliner::writeSummary() {
  SearchResults rows;
  const char* names[] = {"key", "value", "count", "min", "max", "sum", "sumsq", "dc"};
  sr_index_t k[8];
  for (int i = 0; i < 8; ++i) k[i] = rows.keyIndex(names[i], true);
  for (const auto& [name, f] : _fields) {
    SearchResult* row = rows.addNewResult();
    row->setValue(k[0], name);
    row->setValue(k[1], Str());
    row->setValue(k[2], number(f->count));
    if (f->numeric > 0) {
      row->setValue(k[3], number(f->min));
      row->setValue(k[4], number(f->max));
      row->setValue(k[5], number(f->sum));
      row->setValue(k[6], number(f->sumsq));
    }
    row->setValue(k[7], number(f->values.size()));
    std::vector<std::pair<size_t, Str>> top;
    top.reserve(f->values.size());
    for (const auto& [v, n] : f->values) top.emplace_back(n, v);
    size_t keep = std::min(kTopValues, top.size());
    std::partial_sort(top.begin(), top.begin() + long(keep), top.end(), [](const auto& a, const auto& b) {
      return a.first != b.first ? a.first > b.first : a.second < b.second;
    });
    for (size_t i = 0; i < keep; ++i) {
      SearchResult* vr = rows.addNewResult();
      vr->setValue(k[0], name);
      vr->setValue(k[1], top[i].second);
      vr->setValue(k[2], number(top[i].first));
    }
  }
  static const std::vector<Str> kColumns(std::begin(names), std::end(names));
  return DispatchDirs::writeCsv(rows, _dir / "summary.csv", &kColumns);
}

bool Timeliner::commit(bool exhausted) {
  bool ok = writeTimeline(exhausted);
  return writeSummary() && ok;
}

bool Timeliner::readEvents(const Pathname& dir, double et, double lt, size_t offset, size_t count,
                           SearchResults& out) {
  out.free(false);
  const bool filtered = et > 0 || lt > 0;
  size_t need = count == 0 ? SearchResults::kAllRows : count;
  for (const Pathname& file : eventFiles(dir)) {
    if (need == 0) break;
    SearchResults part;
    if (!filtered) {
      size_t passed = part.fromCSV(file, offset, need);
      size_t skipped = passed - std::min(passed, part.size());
      offset -= std::min(offset, skipped);
    } else {
      part.fromCSV(file);
      sr_index_t tk = part.keyIndex("_time");
      size_t kept = 0;
      for (auto it = part.begin(); it != part.end();) {
        double t = 0;
        bool match = tk != SearchResults::nkeyindex && readTime(**it, tk, t) && (et <= 0 || t >= et) &&
                     (lt <= 0 || t < lt);
        if (match && offset > 0) {
          --offset;
        } else if (match && kept < need) {
          ++kept;
          ++it;
          continue;
        }
        delete *it;
        it = part.erase(it);
      }
    }
    need -= std::min(need, part.size());
    if (!part.empty()) out.takeRows(part);
  }
  return !out.empty();
}

bool Timeliner::readTimeline(const Pathname& dir, SearchResults& out) { return readWhole(dir / "timeline.csv", out); }

bool Timeliner::readSummary(const Pathname& dir, SearchResults& out) { return readWhole(dir / "summary.csv", out); }
