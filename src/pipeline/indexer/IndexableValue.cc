#include "pipeline/indexer/IndexableValue.h"

#include <cstdio>
#include <cstring>
#include <typeinfo>

namespace {
// Terms are handed to the engine once the batch holds this many bytes.
constexpr size_t kBatchBytes = 65536;
}  // namespace

char* IndexableValue::batchRoom(size_t n) {
  if (_batchLen + n + 1 > _batchCap) {
    size_t cap = _batchCap ? _batchCap : 4096;
    while (cap < _batchLen + n + 1) cap *= 2;
    std::unique_ptr<char[]> bigger(new char[cap]);
    if (_batchLen) std::memcpy(bigger.get(), _batch.get(), _batchLen);
    _batch = std::move(bigger);
    _batchCap = cap;
  }
  return _batch.get() + _batchLen;
}

void IndexableValue::batched(size_t n) {
  _batchLen += n + 1;
  ++_batchCount;
  if (_batchLen >= kBatchBytes) flushTerms();
}

void IndexableValue::store(const char* term, size_t len) {
  if (!_handle) return;
  if (!_inIndex) {
    // A term from outside index() (a caller driving processToken itself)
    // goes in at once, with the value as it is now.
    st_put(_handle, term, _time, _address, _typeCode, _sourceCode, _sourceTypeCode, _hostCode);
    return;
  }
  std::memcpy(batchRoom(len), term, len + 1);
  batched(len);
}

void IndexableValue::flushTerms() {
  if (_handle && _batchCount)
    st_put_terms(_handle, _batch.get(), _batchCount, _time, _address, _typeCode, _sourceCode, _sourceTypeCode,
                 _hostCode);
  _batchLen = 0;
  _batchCount = 0;
}

void IndexableValue::put(const StrSegment& term, bool lowercase) {
  size_t n = term.size() < kMaxTerm ? term.size() : kMaxTerm;
  if (n == 0) return;
  const char* s = term.data();
  char* out = _direct ? batchRoom(n) : _term;
  if (lowercase) {
    for (size_t i = 0; i < n; ++i) {
      char c = s[i];
      out[i] = (c >= 'A' && c <= 'Z') ? char(c + 32) : c;
    }
  } else {
    std::memcpy(out, s, n);
  }
  out[n] = '\0';
  if (_direct)
    batched(n);
  else
    store(_term, n);
}

bool IndexableValue::putMetaWhole(const StrSegment& meta) {
  const size_t n = meta.size();
  // The batch must not fill up among these terms (it is handed over only
  // between terms), and each term must be one put() keeps whole.
  if (n == 0 || _batchLen + n + 1 >= kBatchBytes) return false;
  char* out = batchRoom(n);
  // Copied, then lowercased eight bytes at a time: a byte below 0x80 that
  // is at least 'A' and below '[' gets 0x20 added. Then cut at blanks.
  std::memcpy(out, meta.data(), n);
  size_t i = 0;
  for (; i + 8 <= n; i += 8) {
    uint64_t x;
    std::memcpy(&x, out + i, 8);
    const uint64_t low = x & 0x7f7f7f7f7f7f7f7fULL;
    const uint64_t atLeastA = low + 0x3f3f3f3f3f3f3f3fULL;   // top bit: byte >= 'A'
    const uint64_t pastZ = low + 0x2525252525252525ULL;      // top bit: byte > 'Z'
    const uint64_t upper = atLeastA & ~pastZ & ~x & 0x8080808080808080ULL;
    if (upper) {
      x |= upper >> 2;
      std::memcpy(out + i, &x, 8);
    }
  }
  for (; i < n; ++i)
    if (out[i] >= 'A' && out[i] <= 'Z') out[i] = char(out[i] + 32);
  size_t terms = 0, termStart = 0;
  for (;;) {
    const char* blank = static_cast<const char*>(std::memchr(out + termStart, ' ', n - termStart));
    const size_t stop = blank ? size_t(blank - out) : n;
    if (stop == termStart || stop - termStart > kMaxTerm) return false;  // an empty or long term: term by term
    ++terms;
    if (!blank) break;
    out[stop] = '\0';
    termStart = stop + 1;
  }
  out[n] = '\0';
  _batchLen += n + 1;
  _batchCount += terms;
  return true;
}

void IndexableValue::processToken(const StrSegment& token) { put(token, true); }

void IndexableValue::each(const StrSegment&, const StrSegment& value) { put(value, true); }

bool IndexableValue::acceptToken(const char* term, size_t len, size_t, size_t) {
  if (!len) return true;
  if (_direct) {
    std::memcpy(batchRoom(len), term, len + 1);
    batched(len);
  } else {
    store(term, len);
  }
  return true;
}

void IndexableValue::index(const IndexableEvent& ev) {
  // Probe first: a nearly full hot slice flushes before this event's terms.
  if (_handle) st_put(_handle, "", 0, 0, 0, 0, 0, 0);
  // Terms of an earlier event cut short by an exception are not this one's.
  _batchLen = 0;
  _batchCount = 0;
  _inIndex = true;
  _direct = _handle && typeid(*this) == typeid(IndexableValue);
  put(StrSegment("meta::all", 9), false);

  const char* p = ev.meta.data();
  const char* end = p + ev.meta.size();
  if (_direct && putMetaWhole(ev.meta)) p = end;
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
  // "linecount::<lines>", the digits written from the end of the buffer.
  char lc[40];
  char* e = lc + sizeof lc;
  char* b = e;
  do {
    *--b = char('0' + lines % 10);
    lines /= 10;
  } while (lines);
  b -= 11;
  std::memcpy(b, "linecount::", 11);
  put(StrSegment(b, size_t(e - b)), false);

  _cleaner->tokenize(ev.raw, *this);
  if (!ev.indexTerms.empty()) _cleaner->tokenize(ev.indexTerms, *this);
  flushTerms();
  _inIndex = false;
  _direct = false;
}
