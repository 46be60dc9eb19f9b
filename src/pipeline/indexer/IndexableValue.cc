#include "pipeline/indexer/IndexableValue.h"

#include <cstdio>
#include <cstring>

void IndexableValue::store(const char* term, size_t len) {
  if (!_handle) return;
  if (!_inIndex) {
    // A term from outside index() (a caller driving processToken itself)
    // goes in at once, with the value as it is now.
    st_put(_handle, term, _time, _address, _typeCode, _sourceCode, _sourceTypeCode, _hostCode);
    return;
  }
  _batch.append(term, len + 1);
  ++_batchCount;
  if (_batch.size() >= 65536) flushTerms();
}

void IndexableValue::flushTerms() {
  if (_handle && _batchCount)
    st_put_terms(_handle, _batch.data(), _batchCount, _time, _address, _typeCode, _sourceCode, _sourceTypeCode,
                 _hostCode);
  _batch.clear();
  _batchCount = 0;
}

void IndexableValue::put(const StrSegment& term, bool lowercase) {
  size_t n = term.size() < kMaxTerm ? term.size() : kMaxTerm;
  if (n == 0) return;
  const char* s = term.data();
  for (size_t i = 0; i < n; ++i) {
    char c = s[i];
    _term[i] = (lowercase && c >= 'A' && c <= 'Z') ? char(c + 32) : c;
  }
  _term[n] = '\0';
  store(_term, n);
}

void IndexableValue::processToken(const StrSegment& token) { put(token, true); }

void IndexableValue::each(const StrSegment&, const StrSegment& value) { put(value, true); }

bool IndexableValue::acceptToken(const char* term, size_t len, size_t, size_t) {
  if (len) store(term, len);
  return true;
}

void IndexableValue::index(const IndexableEvent& ev) {
  // Probe first: a nearly full hot slice flushes before this event's terms.
  if (_handle) st_put(_handle, "", 0, 0, 0, 0, 0, 0);
  // Terms of an earlier event cut short by an exception are not this one's.
  _batch.clear();
  _batchCount = 0;
  _inIndex = true;
  put(StrSegment("meta::all", 9), false);

  const char* p = ev.meta.data();
  const char* end = p + ev.meta.size();
  while (p < end) {
    const char* blank = static_cast<const char*>(std::memchr(p, ' ', size_t(end - p)));
    const char* stop = blank ? blank : end;
    processToken(StrSegment(p, size_t(stop - p)));
    p = stop + 1;
  }

  for (const auto& kv : ev.fields) each(kv.first, kv.second);

  size_t lines = 1;
  for (const char* q = ev.raw.data(), *e = q + ev.raw.size(); q < e; ++q) {
    q = static_cast<const char*>(std::memchr(q, '\n', size_t(e - q)));
    if (!q) break;
    ++lines;
  }
  char lc[32];
  int n = std::snprintf(lc, sizeof lc, "linecount::%zu", lines);
  put(StrSegment(lc, size_t(n)), false);

  _cleaner->tokenize(ev.raw, *this);
  if (!ev.indexTerms.empty()) _cleaner->tokenize(ev.indexTerms, *this);
  flushTerms();
  _inIndex = false;
}
