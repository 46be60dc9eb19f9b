// A brute-force model of an index for the engine tests: seeded random
// events, the engine's query semantics evaluated event by event, and the
// expected answers in engine order.
#ifndef VELMOR_TESTS_SEARCHTHING_ST_MODEL_H
#define VELMOR_TESTS_SEARCHTHING_ST_MODEL_H

#include <algorithm>
#include <cstdint>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "searchthing/ipcver.h"

struct ModelEvent {
  int32_t time;
  uint32_t addr;
  uint32_t codes[4];  // type, source, source type, host
  std::vector<std::string> terms;
  bool deleted = false;
};

// A query in natural form: suffixes are written forwards here and reversed
// when the engine's spec is built.
struct ModelQuery {
  std::vector<std::string> and_kw, or_kw, not_kw, and_pre, or_pre, not_pre, and_suf, or_suf, not_suf;
  int32_t start = INT32_MIN, end = INT32_MAX;
};

// Left-to-right wildcard match: parts between '*' found in order without
// overlap; the last part of a pattern with a hard end is searched again from
// behind each find until one ends at the term's end.
inline bool modelWildcard(const std::string& pat, const std::string& term) {
  std::vector<std::string> parts;
  size_t from = 0;
  for (size_t i = 0; i <= pat.size(); ++i) {
    if (i == pat.size() || pat[i] == '*') {
      if (i > from) parts.push_back(pat.substr(from, i - from));
      from = i + 1;
    }
  }
  bool hard_start = !pat.empty() && pat[0] != '*';
  bool hard_end = !pat.empty() && pat.back() != '*';
  if (parts.empty()) return true;
  if (hard_start && hard_end && parts.size() == 1) return term == parts[0];
  size_t pos = 0, first = 0, last = parts.size();
  if (hard_start) {
    if (term.compare(0, parts[0].size(), parts[0]) != 0) return false;
    pos = parts[0].size();
    first = 1;
  }
  if (hard_end) --last;
  for (size_t p = first; p < last; ++p) {
    size_t at = term.find(parts[p], pos);
    if (at == std::string::npos) return false;
    pos = at + parts[p].size();
  }
  if (!hard_end) return true;
  const std::string& tail = parts.back();
  for (;;) {
    size_t at = term.find(tail, pos);
    if (at == std::string::npos) return false;
    if (at + tail.size() == term.size()) return true;
    pos = at + tail.size();
  }
}

inline bool hasTerm(const ModelEvent& e, const std::string& kw) {
  for (const std::string& t : e.terms) {
    if (kw.find('*') != std::string::npos ? modelWildcard(kw, t) : t == kw) return true;
  }
  return false;
}
inline bool hasPrefix(const ModelEvent& e, const std::string& p) {
  for (const std::string& t : e.terms)
    if (t.compare(0, p.size(), p) == 0) return true;
  return false;
}
inline bool hasSuffix(const ModelEvent& e, const std::string& s) {
  for (const std::string& t : e.terms)
    if (t.size() >= s.size() && t.compare(t.size() - s.size(), s.size(), s) == 0) return true;
  return false;
}

inline bool modelMatches(const ModelQuery& q, const ModelEvent& e) {
  if (e.deleted || e.time < q.start || e.time > q.end) return false;
  for (auto& k : q.and_kw)
    if (!hasTerm(e, k)) return false;
  for (auto& p : q.and_pre)
    if (!hasPrefix(e, p)) return false;
  for (auto& s : q.and_suf)
    if (!hasSuffix(e, s)) return false;
  if (!q.or_kw.empty() || !q.or_pre.empty() || !q.or_suf.empty()) {
    bool any = false;
    for (auto& k : q.or_kw) any = any || hasTerm(e, k);
    for (auto& p : q.or_pre) any = any || hasPrefix(e, p);
    for (auto& s : q.or_suf) any = any || hasSuffix(e, s);
    if (!any) return false;
  }
  for (auto& k : q.not_kw)
    if (hasTerm(e, k)) return false;
  for (auto& p : q.not_pre)
    if (hasPrefix(e, p)) return false;
  for (auto& s : q.not_suf)
    if (hasSuffix(e, s)) return false;
  return true;
}

// Expected answers, newest first (time, then address, descending).
inline std::vector<st_tsval> modelAnswers(const std::vector<ModelEvent>& events, const ModelQuery& q) {
  std::vector<st_tsval> out;
  for (const ModelEvent& e : events) {
    if (!modelMatches(q, e)) continue;
    out.push_back(st_tsval{e.time, e.addr, e.codes[0], e.codes[1], e.codes[2], e.codes[3]});
  }
  std::sort(out.begin(), out.end(), [](const st_tsval& a, const st_tsval& b) {
    return a.time != b.time ? a.time > b.time : a.address > b.address;
  });
  return out;
}

// Owns the string arrays of an st_query_spec built from a ModelQuery.
class SpecHolder {
 public:
  explicit SpecHolder(const ModelQuery& q) {
    st_query_init(&spec_);
    spec_.start = q.start;
    spec_.end = q.end;
    fill(&spec_.and_keywords, q.and_kw, false);
    fill(&spec_.or_keywords, q.or_kw, false);
    fill(&spec_.not_keywords, q.not_kw, false);
    fill(&spec_.and_prefixes, q.and_pre, false);
    fill(&spec_.or_prefixes, q.or_pre, false);
    fill(&spec_.not_prefixes, q.not_pre, false);
    fill(&spec_.and_suffixes, q.and_suf, true);
    fill(&spec_.or_suffixes, q.or_suf, true);
    fill(&spec_.not_suffixes, q.not_suf, true);
  }
  SpecHolder(const SpecHolder&) = delete;
  SpecHolder& operator=(const SpecHolder&) = delete;
  const st_query_spec* get() const { return &spec_; }

 private:
  void fill(st_strlist* l, const std::vector<std::string>& v, bool reverse) {
    std::vector<std::string>& store = strings_[slot_];
    std::vector<char*>& ptrs = ptrs_[slot_];
    ++slot_;
    for (const std::string& s : v) store.push_back(reverse ? std::string(s.rbegin(), s.rend()) : s);
    for (std::string& s : store) ptrs.push_back(s.data());
    l->strs = ptrs.empty() ? nullptr : ptrs.data();
    l->count = static_cast<uint32_t>(ptrs.size());
  }
  st_query_spec spec_;
  std::vector<std::string> strings_[9];
  std::vector<char*> ptrs_[9];
  int slot_ = 0;
};

// Seeded events: a shared vocabulary with common prefixes and suffixes, plus
// one term unique to each event ("ev<n>").
inline std::vector<ModelEvent> makeEvents(unsigned seed, size_t n) {
  static const char* vocab[] = {"alpha",  "alphabet", "alpine", "beta",    "betamax", "delta", "gamma",
                                "gammaray", "error",  "errand", "mirror",  "terror",  "warn",  "warning",
                                "zeta",   "eta",      "iota",   "kappa",   "lambda",  "omega", "sigma",
                                "user@host", "10.0.0.1", "GET",  "POST",    "status=200"};
  const size_t nv = sizeof vocab / sizeof vocab[0];
  std::mt19937 rng(seed);
  std::vector<ModelEvent> events;
  uint32_t addr = 100;
  for (size_t i = 0; i < n; ++i) {
    ModelEvent e;
    e.time = 1000000 + static_cast<int32_t>(rng() % 3000);
    addr += 1 + rng() % 50;
    e.addr = addr;
    e.codes[0] = rng() % 5;
    e.codes[1] = 1 + rng() % 300;
    e.codes[2] = rng() % 17;
    e.codes[3] = rng() % 1000;
    std::set<std::string> terms;
    size_t k = 1 + rng() % 5;
    for (size_t j = 0; j < k; ++j) terms.insert(vocab[rng() % nv]);
    terms.insert("ev" + std::to_string(i));
    e.terms.assign(terms.begin(), terms.end());
    events.push_back(e);
  }
  return events;
}

// Puts events through a handle, syncing every `per_slice` events so that
// each event lies whole in one slice.
inline bool putEvents(st_handle* h, const std::vector<ModelEvent>& events, size_t per_slice) {
  for (size_t i = 0; i < events.size(); ++i) {
    const ModelEvent& e = events[i];
    for (const std::string& t : e.terms) {
      if (st_put(h, t.c_str(), e.time, e.addr, e.codes[0], e.codes[1], e.codes[2], e.codes[3]) != 0) return false;
    }
    if ((i + 1) % per_slice == 0 && st_sync(h) == -1) return false;
  }
  return true;
}

#endif
