// MemoryQueryIndex: an index held in memory, for the tests of the query
// compiler and executeQuery. Events carry raw text, a time, a host, source
// and source type, and extra meta terms ("unexpected::5", "user::bob"). An
// event holds the lowercased words of its raw text (runs of letters, digits
// and "_"), its meta terms and "meta::all"; the engine query matches AND /
// OR / NOT terms against them ("err*" is a prefix). Every query and read
// call is counted, so a test can tell whether a search touched the index.
#pragma once

#include <algorithm>
#include <atomic>
#include <cctype>
#include <map>
#include <set>
#include <vector>

#include "pipeline/indexer/IPartitionPolicy.h"
#include "pipeline/indexer/PolicyParameters.h"

class MemoryQueryIndex : public IPartitionPolicy {
 public:
  explicit MemoryQueryIndex(const Str& name) { _params.name = name; }

  // Adds one event; the address grows with each, so arrival order is the
  // order of the calls.
  void add(const Str& raw, int32_t time, const Str& host = "web1", const Str& source = "/var/log/app.log",
           const Str& sourceType = "app", const Str& extraMeta = "") {
    Event e;
    e.id.bucketId = 1;
    e.id.address = static_cast<uint32_t>(_events.size() * 100 + 7);
    e.id.time = time;
    e.id.host = code(_hosts, host);
    e.id.source = code(_sources, source);
    e.id.sourceType = code(_sourceTypes, sourceType);
    e.raw = raw;
    e.meta = "host::" + host + " source::" + source + " sourcetype::" + sourceType;
    if (!extraMeta.empty()) e.meta += " " + extraMeta;
    Str word;
    for (char c : raw + " ") {
      if (std::isalnum(static_cast<unsigned char>(c)) || c == '_') {
        word += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      } else if (!word.empty()) {
        e.terms.insert(word);
        word.clear();
      }
    }
    Str tok;
    for (char c : e.meta + " ") {
      if (c != ' ') {
        tok += c;
      } else if (!tok.empty()) {
        e.terms.insert(lowercase(tok));
        tok.clear();
      }
    }
    e.terms.insert("meta::all");
    _events.push_back(e);
  }

  std::atomic<int> queryCalls{0};
  std::atomic<int> readCalls{0};
  // The maxResults setting the policy reports (0: none).
  void setMaxResults(long n) { _params.maxResults = n; }

  // --- IPartitionPolicy ---------------------------------------------------------
  using IPartitionPolicy::query;
  using IPartitionPolicy::read;
  bool write(const WritableEvent&) override { return false; }
  bool query(const std::vector<Str>& andTerms, const std::vector<Str>& orTerms, const std::vector<Str>& notTerms,
             int32_t start, int32_t end, size_t count, std::vector<ValueWrapper>& out, size_t skip = 0) override {
    ++queryCalls;
    out.clear();
    std::vector<ValueWrapper> all;
    for (const Event& e : _events) {
      if (e.id.time < start || e.id.time > end) continue;
      bool ok = std::all_of(andTerms.begin(), andTerms.end(), [&](const Str& t) { return holds(e, t); });
      if (ok && !orTerms.empty())
        ok = std::any_of(orTerms.begin(), orTerms.end(), [&](const Str& t) { return holds(e, t); });
      if (ok) ok = std::none_of(notTerms.begin(), notTerms.end(), [&](const Str& t) { return holds(e, t); });
      if (ok) all.push_back(e.id);
    }
    std::sort(all.begin(), all.end());
    for (size_t i = skip; i < all.size() && out.size() < count; ++i) out.push_back(all[i]);
    return true;
  }
  bool read(const ValueWrapper& v, DataWrapper& out) override {
    ++readCalls;
    for (const Event& e : _events)
      if (e.id == v) {
        out.value = e.id;
        out.raw = e.raw;
        out.meta = e.meta;
        out.time = e.id.time;
        return true;
      }
    return false;
  }
  const Str& getName() const override { return _params.name; }
  const PolicyParameters& getPolicyParameters() const override { return _params; }
  bool getGlobalHostWordForCode(uint32_t, uint32_t code, Str& out) override { return word(_hosts, code, out); }
  bool getGlobalSourceWordForCode(uint32_t, uint32_t code, Str& out) override { return word(_sources, code, out); }
  bool getGlobalSourceTypeWordForCode(uint32_t, uint32_t code, Str& out) override {
    return word(_sourceTypes, code, out);
  }

 private:
  struct Event {
    ValueWrapper id;
    Str raw;
    Str meta;
    std::set<Str> terms;
  };

  static bool holds(const Event& e, const Str& term) {
    Str t = lowercase(term.startswith('+') ? Str(term.substr(1)) : term);
    if (t.size() > 1 && t.back() == '*') {
      Str prefix = t.substr(0, t.size() - 1);
      auto it = e.terms.lower_bound(prefix);
      return it != e.terms.end() && it->compare(0, prefix.size(), prefix) == 0;
    }
    return e.terms.count(t) != 0;
  }
  static uint32_t code(std::map<Str, uint32_t>& table, const Str& w) {
    auto it = table.find(w);
    if (it != table.end()) return it->second;
    uint32_t c = static_cast<uint32_t>(table.size() + 1);
    table[w] = c;
    return c;
  }
  static bool word(const std::map<Str, uint32_t>& table, uint32_t code, Str& out) {
    for (const auto& [w, c] : table)
      if (c == code) {
        out = w;
        return true;
      }
    return false;
  }

  PolicyParameters _params;
  std::vector<Event> _events;
  std::map<Str, uint32_t> _hosts, _sources, _sourceTypes;
};
