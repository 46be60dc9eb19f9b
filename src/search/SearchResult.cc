#include "search/SearchResult.h"

#include <cassert>
#include <cstring>

#include "search/SearchResults.h"
#include "util/Exceptions.h"
#include "util/Logger.h"
#include "util/RE.h"

namespace {
const Str kEmpty;
Logger gLog("SearchResults");

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f'; }
}  // namespace

SearchResult::SearchResult(SearchResults* parent, sr_index_t reserveSlots) : _parent(parent) {
  if (reserveSlots) reserve(reserveSlots);
}

SearchResult::SearchResult(const SearchResult& other) : _parent(other._parent) { copyVals(other); }

SearchResult& SearchResult::operator=(const SearchResult& other) {
  if (this != &other) {
    _parent = other._parent;
    copyVals(other);
  }
  return *this;
}

SearchResult::~SearchResult() { free(); }

void SearchResult::reserve(sr_index_t n) {
  if (n <= _size) return;
  if (_vals.size() < n) _vals.resize(n, nullptr);
  _size = n;
}

const Str& SearchResult::getValue(sr_index_t i) const {
  const Str* v = getValuePtr(i);
  return v ? *v : kEmpty;
}

bool SearchResult::getValue(sr_index_t i, Str& out) const {
  const Str* v = getValuePtr(i);
  if (!v) {
    out.clear();
    return false;
  }
  out = *v;
  return true;
}

bool SearchResult::getValue(const Str& key, Str& out) const {
  if (!_parent) {
    out.clear();
    return false;
  }
  sr_index_t i = SearchResults::isInternalField(key)
                     ? const_cast<SearchResults*>(_parent)->internalKeyIndex(key, false)
                     : static_cast<const SearchResults*>(_parent)->keyIndex(key);
  return getValue(i, out);
}

const Str& SearchResult::operator[](sr_index_t i) const {
  const Str* v = getValuePtr(i);
  if (!v) throw SearchResultsException("Invalid index into SearchResult!");
  return *v;
}

Str& SearchResult::operator[](sr_index_t i) {
  if (i == 0) throw SearchResultsException("Invalid index into SearchResult!");
  reserve(i);
  Str*& p = _vals[i - 1];
  if (!p) p = new Str();
  return *p;
}

Str& SearchResult::slot(sr_index_t i) {
  reserve(i);
  Str*& p = _vals[i - 1];
  if (!p) p = new Str();
  return *p;
}

bool SearchResult::getValueVec(const std::vector<sr_index_t>& inds, std::vector<Str>& out) const {
  out.resize(inds.size());
  bool all = true;
  for (size_t k = 0; k < inds.size(); ++k) all = getValue(inds[k], out[k]) && all;
  return all;
}

bool SearchResult::setValue(sr_index_t i, const Str& value) {
  if (i == 0) return false;
  slot(i).assign(value.data(), value.size());
  return true;
}

bool SearchResult::setValue(sr_index_t i, const char* p, size_t len) {
  if (i == 0) return false;
  slot(i).assign(p, len);
  return true;
}

bool SearchResult::setValue(const Str& key, const Str& value) {
  assert(_parent != nullptr && "_parent != __null");
  sr_index_t i = SearchResults::isInternalField(key) ? _parent->internalKeyIndex(key, true)
                                                     : _parent->keyIndex(key, true);
  return setValue(i, value);
}

void SearchResult::assign(sr_index_t i, Str* value) {
  assert(i != 0);
  if (!value) {
    removeValue(i);
    return;
  }
  reserve(i);
  delete _vals[i - 1];
  _vals[i - 1] = value;
}

void SearchResult::setValueVec(const std::vector<sr_index_t>& inds, const std::vector<Str>& values) {
  for (size_t k = 0; k < inds.size() && k < values.size(); ++k) setValue(inds[k], values[k]);
}

void SearchResult::removeValue(sr_index_t i) {
  if (i == 0 || i > _size) return;
  delete _vals[i - 1];
  _vals[i - 1] = nullptr;
}

void SearchResult::clear() {
  for (Str*& p : _vals) {
    delete p;
    p = nullptr;
  }
}

void SearchResult::free() {
  clear();
  std::vector<Str*>().swap(_vals);
  _size = 0;
}

void SearchResult::usurp(SearchResult& other) {
  if (this == &other) return;
  clear();
  _vals.swap(other._vals);
  _size = other._size;
  other._vals.clear();
  other._size = 0;
}

void SearchResult::copyVals(const SearchResult& other) {
  if (this == &other) return;
  clear();
  reserve(other._size);
  for (sr_index_t i = 0; i < other._size; ++i) {
    if (other._vals[i]) _vals[i] = new Str(*other._vals[i]);
  }
}

bool SearchResult::getMultiValues(sr_index_t i, std::vector<Str>& out) const {
  out.clear();
  if (!_parent) return false;
  sr_index_t mv = _parent->getMVIndex(i);
  if (const Str* enc = getValuePtr(mv)) {
    if (!SearchResults::decodeMV(*enc, out)) {
      gLog.warn("Corrupt internal representation for multi-value field '%s'",
                _parent->getKeyFromIndex(i).c_str());
    }
    return true;
  }
  const Str* plain = getValuePtr(i);
  if (!plain) return false;
  const RE* tok = _parent->getTokenizerFromIndex(i);
  if (!tok) {
    out.push_back(*plain);
    return true;
  }
  StringPiece input(*plain);
  std::string elem;
  while (!input.empty() && tok->FindAndConsume(&input, &elem)) out.emplace_back(std::move(elem));
  return true;
}

bool SearchResult::setMultiValues(sr_index_t i, const std::vector<Str>& values) {
  if (!_parent) return false;
  sr_index_t mv = _parent->getMVIndex(i);
  if (mv == 0) return false;
  Str& dst = slot(mv);
  dst.clear();
  SearchResults::encodeMV(values, dst);
  return true;
}

bool SearchResult::getMultiValueVecs(const std::vector<sr_index_t>& inds,
                                     std::vector<std::vector<Str>>& out) const {
  out.resize(inds.size());
  bool all = true;
  for (size_t k = 0; k < inds.size(); ++k) all = getMultiValues(inds[k], out[k]) && all;
  return all;
}

size_t SearchResult::hash() const {
  size_t h = 0;
  for (sr_index_t i = 0; i < _size; ++i) {
    const Str* v = _vals[i];
    if (!v) continue;
    const char* p = v->data();
    for (size_t k = 0, n = v->size(); k < n; ++k) h = h * 5 + static_cast<size_t>(static_cast<signed char>(p[k]));
  }
  return h;
}

// One pass over the line with a cursor. Cells of columns mapped to 0 are
// parsed for their extent only.
bool SearchResult::parseCSVLine(const char* p, size_t len, const std::vector<sr_index_t>& inds) {
  const size_t ncols = inds.size();
  if (len == 0) return ncols == 1;
  const char* const end = p + len;
  const char* cur = p;
  size_t col = 0;
  while (true) {
    // Skip blanks before the cell.
    while (cur < end && isBlank(*cur)) ++cur;
    if (cur == end) return col + 1 == ncols;
    if (col >= ncols) return false;  // more cells than columns
    const sr_index_t idx = inds[col];
    if (*cur == ',') {
      // Empty cell: the value stays absent.
      ++cur;
      ++col;
      if (cur == end) return col + 1 == ncols;
      continue;
    }
    if (*cur == '"') {
      const char* start = ++cur;
      // Find the closing quote, stepping over doubled ones.
      bool doubled = false;
      while (true) {
        const char* q = static_cast<const char*>(memchr(cur, '"', end - cur));
        if (!q) {
          gLog.warn("Mismatched quotes in csv: '%.*s'", static_cast<int>(len), p);
          return false;
        }
        if (q + 1 < end && q[1] == '"') {
          doubled = true;
          cur = q + 2;
          continue;
        }
        cur = q;
        break;
      }
      if (idx != 0) {
        Str& v = slot(idx);
        if (!doubled) {
          v.assign(start, cur - start);
        } else {
          v.clear();
          for (const char* s = start; s < cur; ++s) {
            v.push_back(*s);
            if (*s == '"') ++s;
          }
        }
      }
      ++cur;  // past the closing quote
      const char* comma = static_cast<const char*>(memchr(cur, ',', end - cur));
      ++col;
      if (!comma) return col == ncols;
      cur = comma + 1;
      if (cur == end) return col + 1 == ncols;
      continue;
    }
    // Unquoted: runs to the next comma, trailing blanks trimmed.
    const char* comma = static_cast<const char*>(memchr(cur, ',', end - cur));
    const char* vend = comma ? comma : end;
    const char* tend = vend;
    while (tend > cur && isBlank(tend[-1])) --tend;
    if (idx != 0) slot(idx).assign(cur, tend - cur);
    ++col;
    if (!comma) return col == ncols;
    cur = comma + 1;
    if (cur == end) return col + 1 == ncols;
  }
}
