#include "search/processors/TransamOperator.h"

#include <algorithm>
#include <set>

#include "libbundle/PropertyPages.h"
#include "libbundle/StringMgr.h"
#include "search/SL.h"
#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "search/processors/EndPointsOperator.h"
#include "search/processors/MaxSpanOperator.h"
#include "search/processors/PatternOperator.h"
#include "search/processors/UnifiedOperator.h"
#include "util/Logger.h"

namespace {

Logger gLogger("transaction");

const char* const kSettings[] = {"maxspan", "maxpause",  "maxevents", "startswith", "endswith",
                                 "fields",  "matchtype", "exclusive", "aliases",    "pattern"};

bool isSetting(const Str& name) {
  for (const char* s : kSettings)
    if (name == s) return true;
  return false;
}

Str lower(const Str& s) {
  Str out(s);
  for (char& c : out) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return out;
}

// Seconds as short text: whole numbers without decimals, else up to
// milliseconds with trailing zeros dropped.
Str formatSeconds(double d) {
  Str s = Str::fromFormat("%.3f", d);
  while (s.back() == '0') s.pop_back();
  if (s.back() == '.') s.pop_back();
  return s;
}

// Moves the rows of every spill file into memory.
void gatherRows(SearchResults& results) {
  if (!results.hasFiles()) return;
  SearchResults all;
  results.firstFile();
  while (results.readFile()) {
    all.takeRows(results);
    if (!results.nextFile()) break;
  }
  results.clearFileList();
  results.free(true);
  results.takeRows(all);
}

// The rows in time order; rows without a time keep their place when the
// others are already in (either) order, and come first when they must be
// sorted.
void timeOrder(SearchResults& results, std::vector<CandidateEvent>& events) {
  sr_index_t tk = results.keyIndex(SL::Timestamp);
  events.reserve(results.size());
  bool ascending = true, descending = true;
  double prev = NAN;
  for (SearchResult* r : results) {
    CandidateEvent e;
    e.row = r;
    const Str* v = r->getValuePtr(tk);
    double t;
    if (v != nullptr && v->tryToDouble(t) && std::isfinite(t)) e.time = t;
    if (!std::isnan(e.time)) {
      if (!std::isnan(prev)) {
        if (e.time < prev) ascending = false;
        if (e.time > prev) descending = false;
      }
      prev = e.time;
    }
    events.push_back(e);
  }
  if (ascending) return;
  if (descending) {
    std::reverse(events.begin(), events.end());
    return;
  }
  std::stable_sort(events.begin(), events.end(), [](const CandidateEvent& a, const CandidateEvent& b) {
    if (std::isnan(a.time)) return !std::isnan(b.time);
    if (std::isnan(b.time)) return false;
    return a.time < b.time;
  });
}

}  // namespace

void TransamOperator::processArguments() {
  PropertiesMap options;
  Str typeName;
  bool afterFields = false;
  bool first = true;
  for (size_t i = 0; i < args.size(); ++i) {
    StringArg* a = unconsumedString(i);
    if (a == nullptr) continue;
    bool wasFirst = first;
    first = false;
    if (a->isOption()) {
      Str opt = lower(a->getOptionName());
      afterFields = false;
      if (!isSetting(opt)) continue;  // refused below
      if (options.contains(opt)) throw searchError(this, gLogger, "Option '%s' specified more than once", opt.c_str());
      options.put(opt, a->getOptionValue());
      a->setConsumed();
      afterFields = opt == "fields";
    } else if (afterFields) {
      Str f;
      options.get("fields", f);
      options.put("fields", f + "," + a->getText());
      a->setConsumed();
    } else if (wasFirst) {
      typeName = a->getText();
      a->setConsumed();
    }
  }
  refuseLeftovers();

  PropertiesMap settings;
  if (!typeName.empty()) {
    PropertyPages& pages = PropertyPages::instance("transactiontypes");
    if (!pages.propsExist(typeName))
      throw searchError(this, gLogger, StringMgr::str("TRANSAM_UNKNOWN_TRANSACTION__S").c_str(), typeName.c_str());
    pages.fillLayers(settings, typeName, false);
  }
  for (const auto& kv : options) settings.put(kv.first, kv.second);
  try {
    _def = std::make_unique<Transaction>(typeName.empty() ? Str("no_name") : typeName, settings);
    // Conditions are checked here so that a bad one fails before any row.
    EndPointsOperator check(_def->startswith, _def->endswith);
    if (!_def->pattern.empty()) PatternOperator checkPattern(_def->aliases, _def->pattern);
  } catch (const std::exception& e) {
    throw searchError(this, gLogger, "%s", e.what());
  }
}

void TransamOperator::execute(SearchResults& results, SearchResultsInfo& info) {
  (void)info;
  gatherRows(results);
  const Transaction& def = *_def;

  // Fields: names with a trailing "*" take every field with that prefix.
  std::vector<Str> names;
  for (const Str& f : def.fields) {
    if (f.back() == '*') {
      Str prefix(f.substr(0, f.size() - 1));
      for (const auto& kv : results.getKeyMap())
        if (kv.first.compare(0, prefix.size(), prefix) == 0 &&
            std::find(names.begin(), names.end(), kv.first) == names.end())
          names.push_back(kv.first);
      continue;
    }
    if (!results.empty() && results.keyIndex(f) == SearchResults::nkeyindex)
      throw searchError(this, gLogger, StringMgr::str("TRANSAM_UNKNOWN_TRANSACTION_FIELD__S__S").c_str(), f.c_str(),
                        def.name.c_str());
    if (std::find(names.begin(), names.end(), f) == names.end()) names.push_back(f);
  }
  if (results.empty()) return;

  std::vector<CandidateEvent> events;
  timeOrder(results, events);

  std::vector<sr_index_t> keys;
  for (const Str& f : names) keys.push_back(results.keyIndex(f));
  UnifiedOperator unify(keys);
  MaxSpanOperator span(def.maxspan, def.maxpause, def.maxevents);
  std::unique_ptr<EndPointsOperator> ends;
  std::unique_ptr<PatternOperator> pattern;
  try {
    ends = std::make_unique<EndPointsOperator>(def.startswith, def.endswith);
    ends->prepare(results);
    if (!def.pattern.empty()) {
      pattern = std::make_unique<PatternOperator>(def.aliases, def.pattern);
      pattern->prepare(results);
    }
  } catch (const std::exception& e) {
    throw searchError(this, gLogger, "%s", e.what());
  }
  std::vector<std::vector<CandidateOperator*>> steps;
  if (!keys.empty()) steps.push_back({&unify});
  std::vector<CandidateOperator*> cut{&span};
  if (!def.startswith.empty() || !def.endswith.empty()) cut.push_back(ends.get());
  steps.push_back(cut);
  if (pattern) steps.push_back({pattern.get()});

  std::vector<Candidate> candidates;
  CandidateOperator::processCandidatePipeline(events, steps, candidates);
  std::stable_sort(candidates.begin(), candidates.end(), [](const Candidate& a, const Candidate& b) {
    if (std::isnan(a.start)) return false;
    if (std::isnan(b.start)) return true;
    return a.start > b.start;
  });

  // The rows of the transactions, made in a set of the same dictionary.
  const sr_index_t rawK = results.keyIndex(SL::Raw, true);
  const sr_index_t timeK = results.keyIndex(SL::Timestamp, true);
  const sr_index_t typeK = results.keyIndex(SL::EventTypes, true);
  const sr_index_t dtK = results.keyIndex(SL::Datatype, true);
  const sr_index_t countK = results.keyIndex(SL::CountPublic, true);
  const sr_index_t durK = results.keyIndex(SL::DurationPublic, true);
  const sr_index_t linesK = results.keyIndex("linecount", true);
  const sr_index_t ttK = def.hasName() ? results.keyIndex("transactiontype", true) : SearchResults::nkeyindex;
  std::set<sr_index_t> computed{rawK, timeK, typeK, dtK, countK, durK, linesK, ttK};
  std::vector<sr_index_t> others;
  for (const auto& kv : results.getKeyMap())
    if (computed.count(kv.second) == 0) others.push_back(kv.second);

  SearchResults out;
  out.copyKeyMap(results);
  Str raw;
  std::vector<Str> types, mv;
  for (const Candidate& c : candidates) {
    SearchResult* row = out.addNewResult();
    for (sr_index_t k : others) {
      const Str* agreed = nullptr;
      bool mixed = false;
      for (const CandidateEvent& e : c.events) {
        const Str* v = e.row->getValuePtr(k);
        if (v == nullptr) continue;
        if (agreed == nullptr)
          agreed = v;
        else if (*agreed != *v) {
          mixed = true;
          break;
        }
      }
      if (agreed != nullptr && !mixed) row->setValue(k, *agreed);
    }
    raw.clear();
    unsigned long lines = 0;
    types.clear();
    for (const CandidateEvent& e : c.events) {
      const Str& r = e.row->getValue(rawK);
      if (&e != &c.events.front()) raw += '\n';
      raw += r;
      if (!r.empty()) lines += r.count_char('\n') + 1;
      if (e.row->getMultiValues(typeK, mv))
        for (const Str& t : mv)
          if (!t.empty() && std::find(types.begin(), types.end(), t) == types.end()) types.push_back(t);
    }
    row->setValue(rawK, raw);
    const Str* t0 = c.events.front().row->getValuePtr(timeK);
    if (t0 != nullptr) row->setValue(timeK, *t0);
    if (!types.empty()) {
      Str joined;
      for (const Str& t : types) joined += (joined.empty() ? "" : " ") + t;
      row->setValue(typeK, joined);
    }
    row->setValue(dtK, Str("transaction"));
    if (ttK != SearchResults::nkeyindex) row->setValue(ttK, def.name);
    row->setValue(countK, Str::fromFormat("%zu", c.events.size()));
    row->setValue(linesK, Str::fromFormat("%lu", lines));
    if (c.events.size() > 1 && c.hasStart()) row->setValue(durK, formatSeconds(c.last - c.start));
  }
  results.free(true);
  results.takeRows(out);
  gLogger.debug("%zu events in %zu transactions", events.size(), candidates.size());
}
