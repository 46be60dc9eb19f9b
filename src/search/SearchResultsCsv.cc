// The CSV dialect of result files: writing (escaping, column choice, the
// atomic file form) and reading (the header splitter, rows with quote-parity
// continuation, the lenient row parser in SearchResult).
#include <sys/types.h>
#include <unistd.h>

#include <cassert>
#include <cctype>
#include <cstring>

#include "loaderinfo/LoaderInfo.h"
#include "search/FILELineReader.h"
#include "search/SearchResults.h"
#include "search/StringLineReader.h"
#include "util/Exceptions.h"
#include "util/Logger.h"
#include "util/PortableRand.h"

size_t searchResultsLimit(const char* key, size_t def);

namespace {
Logger gLog("SearchResults");

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f'; }

struct AlnumTable {
  bool t[256];
  AlnumTable() {
    for (int c = 0; c < 256; ++c) t[c] = std::isalnum(c) != 0;
  }
};
const AlnumTable kAlnum;

const size_t kWriteFlush = 1 << 16;

// Splits a header line into names. Returns true when the text ends inside a
// quoted entry (more lines are needed). Leading and trailing blanks of
// unquoted entries are dropped; after a closing quote everything up to the
// next comma is ignored.
bool splitHeader(const Str& line, std::vector<Str>& names) {
  names.clear();
  const size_t n = line.size();
  size_t i = 0;
  while (true) {
    while (i < n && isBlank(line[i]) && line[i] != '\n') ++i;
    Str entry;
    if (i < n && line[i] == '"') {
      ++i;
      bool closed = false;
      while (i < n) {
        if (line[i] == '"') {
          if (i + 1 < n && line[i + 1] == '"') {
            entry.push_back('"');
            i += 2;
            continue;
          }
          ++i;
          closed = true;
          break;
        }
        entry.push_back(line[i++]);
      }
      if (!closed) return true;
      size_t comma = line.find(',', i);
      size_t stop = comma == Str::npos ? n : comma;
      for (size_t k = i; k < stop; ++k) {
        if (!isBlank(line[k])) {
          gLog.warn("Corrupt CSV line, char #%u: %s", static_cast<unsigned>(k), line.c_str());
          break;
        }
      }
      names.push_back(std::move(entry));
      if (comma == Str::npos) return false;
      i = comma + 1;
      continue;
    }
    size_t comma = line.find(',', i);
    size_t stop = comma == Str::npos ? n : comma;
    size_t e = stop;
    while (e > i && isBlank(line[e - 1])) --e;
    for (size_t k = i; k < e; ++k) {
      if (line[k] == '"') {
        gLog.warn("Corrupt CSV line, char #%u: %s", static_cast<unsigned>(k), line.c_str());
        break;
      }
    }
    names.emplace_back(line.data() + i, e - i);
    if (comma == Str::npos) return false;
    i = comma + 1;
  }
}

Str chompCopy(const Str& s) {
  size_t n = s.size();
  while (n > 0 && (s[n - 1] == '\n' || s[n - 1] == '\r')) --n;
  return Str(s.data(), n);
}
}  // namespace

// --- writing ---------------------------------------------------------------

void SearchResults::csvEscape(const char* p, size_t len, Str& out, bool stripCR) {
  if (len == 0) {
    out.append("\"\"", 2);
    return;
  }
  size_t k = 0;
  while (k < len && kAlnum.t[static_cast<unsigned char>(p[k])]) ++k;
  if (k == len) {
    out.append(p, len);
    return;
  }
  if (out.capacity() < out.size() + len + 2) out.reserve(2 * (out.size() + len + 2));
  out.push_back('"');
  const char* end = p + len;
  const char* s = p;
  // Copy runs between quotes (and CRs when stripping) in one go.
  while (s < end) {
    const char* q = s;
    while (q < end && *q != '"' && !(stripCR && *q == '\r')) ++q;
    out.append(s, q - s);
    if (q == end) break;
    if (*q == '"') out.append("\"\"", 2);
    s = q + 1;
  }
  out.push_back('"');
}

size_t SearchResults::writeHeaderAndRows(FileStar* f, Str* out, const std::vector<Str>& names,
                                         const std::vector<sr_index_t>& inds, bool header, bool stripCR) const {
  assert(names.size() == inds.size() && "fieldList.size() == keyIndList.size()");
  Str local;
  Str& buf = out ? *out : local;
  if (!out) buf.reserve(kWriteFlush + 4096);
  size_t written = 0;
  bool ok = true;
  auto flush = [&]() {
    if (f && !buf.empty()) {
      ok = f->write(buf.data(), buf.size()) && ok;
      written += buf.size();
      buf.clear();
    }
  };
  if (header) {
    for (size_t k = 0; k < names.size(); ++k) {
      if (k) buf.push_back(',');
      csvEscape(names[k], buf, stripCR);
    }
    buf.push_back('\n');
  }
  const size_t ncol = inds.size();
  for (const SearchResult* r : *this) {
    for (size_t k = 0; k < ncol; ++k) {
      if (k) buf.push_back(',');
      if (const Str* v = r->getValuePtr(inds[k])) csvEscape(v->data(), v->size(), buf, stripCR);
    }
    buf.push_back('\n');
    if (f && buf.size() >= kWriteFlush) flush();
  }
  if (f) {
    flush();
    return ok ? written : 0;
  }
  return buf.size();
}

size_t SearchResults::toCSV(FileStar& f, bool withInternal, bool stripCR) const {
  return toCSV(f, std::vector<Str>(), false, withInternal, stripCR);
}

size_t SearchResults::toCSV(FileStar& f, const std::vector<Str>& fields, bool onlyListed, bool withInternal,
                            bool stripCR) const {
  if (!f.isValid()) return 0;
  rewind(f.get());
  std::vector<Str> names(fields);
  std::vector<sr_index_t> inds;
  genFieldList(names, inds, onlyListed, withInternal);
  if (names.empty()) return 0;
  return writeHeaderAndRows(&f, nullptr, names, inds, true, stripCR);
}

bool SearchResults::toCSV(Str& out, bool withInternal, bool stripCR) const {
  return toCSV(out, std::vector<Str>(), false, withInternal, stripCR);
}

bool SearchResults::toCSV(Str& out, const std::vector<Str>& fields, bool onlyListed, bool withInternal,
                          bool stripCR) const {
  out.clear();
  std::vector<Str> names(fields);
  std::vector<sr_index_t> inds;
  genFieldList(names, inds, onlyListed, withInternal);
  if (names.empty()) return false;
  writeHeaderAndRows(nullptr, &out, names, inds, true, stripCR);
  return true;
}

size_t SearchResults::appendCSV(FileStar& f, const std::vector<Str>& fields, bool onlyListed, bool stripCR) const {
  if (!f.isValid()) return 0;
  std::vector<Str> names(fields);
  std::vector<sr_index_t> inds;
  genFieldList(names, inds, onlyListed, false);
  if (names.empty()) return 0;
  return writeHeaderAndRows(&f, nullptr, names, inds, false, stripCR);
}

size_t SearchResults::toCSV(const Pathname& path, bool withInternal, bool stripCR) const {
  return toCSV(path, std::vector<Str>(), false, withInternal, stripCR);
}

size_t SearchResults::toCSV(const Pathname& path, const std::vector<Str>& fields, bool onlyListed,
                            bool withInternal, bool stripCR) const {
  static size_t maxRetry = 0;
  static size_t retryPeriodMs = 0;
  if (maxRetry == 0) maxRetry = searchResultsLimit("tocsv_maxretry", 5);
  if (retryPeriodMs == 0) retryPeriodMs = searchResultsLimit("tocsv_retryperiod_ms", 500);

  Pathname tmp(LoaderInfo::getInstance().getHomePath() + "/var/run/velmor/" +
               Str::fromFormat("tocsvtmp_%lu.csv", static_cast<unsigned long>(portable_rand())));
  size_t written = 0;
  {
    FileStar f(fopen(tmp.c_str(), "w"));
    if (!f.isValid()) {
      gLog.error("Unable to create or write to temporary file (%s).", tmp.c_str());
      return 0;
    }
    written = toCSV(f, fields, onlyListed, withInternal, stripCR);
    bool ok = f.flush() && !f.error();
    ok = f.close() && ok;
    if (!ok) {
      gLog.error("Unable to create or write to temporary file (%s).", tmp.c_str());
      tmp.unlink();
      return 0;
    }
  }
  for (size_t attempt = 0; attempt < maxRetry; ++attempt) {
    if (tmp.renameTo(path)) return written;
    usleep(static_cast<useconds_t>(retryPeriodMs * 1000));
  }
  gLog.error("Unable to write to file (%s).  Retried %lu times, period = %lu ms.", path.c_str(),
             static_cast<unsigned long>(maxRetry), static_cast<unsigned long>(retryPeriodMs));
  tmp.unlink();
  return 0;
}

// --- reading ---------------------------------------------------------------

bool SearchResults::readHeader(LineReader& r, std::vector<sr_index_t>& inds, bool keep, bool allowInternal) {
  if (!keep) free(false);
  inds.clear();
  Str line;
  if (!r.readLine(line)) return false;
  std::vector<Str> names;
  while (splitHeader(chompCopy(line), names)) {
    if (!r.appendLine(line)) return false;
  }
  for (size_t col = 0; col < names.size(); ++col) {
    const Str& name = names[col];
    if (name.empty()) {
      gLog.warn("Corrupt csv header, contains empty value (col #%lu)", static_cast<unsigned long>(col));
      inds.push_back(nkeyindex);
      continue;
    }
    size_t dup = col;
    for (size_t k = 0; k < col; ++k) {
      if (names[k] == name) {
        dup = k;
        break;
      }
    }
    if (dup != col) {
      gLog.warn("Corrupt csv header, 2 columns with the same name '%s' (col #%lu and #%lu, #%lu will be ignored)",
                name.c_str(), static_cast<unsigned long>(dup), static_cast<unsigned long>(col),
                static_cast<unsigned long>(col));
      inds.push_back(nkeyindex);
      continue;
    }
    if (isInternalField(name)) {
      if (allowInternal) {
        inds.push_back(internalKeyIndex(name, true));
      } else {
        gLog.warn("External csv file contains internal field name '%s', ignoring column.", name.c_str());
        inds.push_back(nkeyindex);
      }
      continue;
    }
    inds.push_back(keyIndex(name, true));
  }
  gLog.debug("Head from csv file read: inds.size() = %u", static_cast<unsigned>(inds.size()));
  return true;
}

bool SearchResults::readCSVLine(LineReader& r, const std::vector<sr_index_t>& inds, bool skip) {
  Str& buf = _lineBuf;
  if (!r.readLine(buf)) return false;
  // A value may span lines: keep reading while the quotes are unbalanced.
  size_t quotes = 0;
  size_t scanned = 0;
  while (true) {
    const char* p = buf.data() + scanned;
    const char* e = buf.data() + buf.size();
    while ((p = static_cast<const char*>(memchr(p, '"', e - p))) != nullptr) {
      ++quotes;
      ++p;
    }
    scanned = buf.size();
    if ((quotes & 1) == 0) break;
    if (!r.appendLine(buf)) return false;
  }
  if (skip) return true;
  size_t n = buf.size();
  while (n > 0 && isBlank(buf[n - 1])) --n;
  SearchResult* row = new SearchResult(this, _maxKeyIndex);
  if (row->parseCSVLine(buf.data(), n, inds)) {
    push_back(row);
  } else {
    delete row;
    ++_badLines;
  }
  return true;
}

size_t SearchResults::fromCSV(LineReader& r, size_t start, size_t count, bool allowInternal) {
  std::vector<sr_index_t> inds;
  if (!readHeader(r, inds, false, allowInternal)) return 0;
  if (count == 0) return 0;
  const size_t stop = start + count;
  size_t n = 0;
  while (n < stop && readCSVLine(r, inds, n < start)) ++n;
  return n;
}

size_t SearchResults::fromCSV(FileStar& f, size_t start, size_t count, bool allowInternal) {
  if (!f.isValid()) return 0;
  FILELineReader r(f, false);
  return fromCSV(r, start, count, allowInternal);
}

size_t SearchResults::fromCSV(const Str& text, size_t start, size_t count, bool allowInternal) {
  StringLineReader r(text);
  return fromCSV(r, start, count, allowInternal);
}

size_t SearchResults::fromCSV(const Pathname& path, size_t start, size_t count, bool allowInternal) {
  _badLines = 0;
  FileStar f(fopen(path.c_str(), "r"));
  if (!f.isValid()) return 0;
  size_t n;
  {
    FILELineReader r(f, true);
    n = fromCSV(r, start, count, allowInternal);
  }
  if (_badLines != 0)
    gLog.warn("While reading file '%s', encountered %lu inconsistent number of column errors.", path.c_str(),
              static_cast<unsigned long>(_badLines));
  return n;
}

void SearchResults::openAndReadHeader(const Pathname& path, bool keep, bool allowInternal) {
  closeFile();
  FileStar f(fopen(path.c_str(), "r"));
  if (!f.isValid()) throw SearchResultsException(Str("Could not open file for reading: ") + path);
  _headerFile = f;
  _headerReader.reset(new FILELineReader(f, false));
  if (!readHeader(*_headerReader, _headerInds, keep, allowInternal)) {
    closeFile();
    throw SearchResultsException(Str("Error reading from file: ") + path);
  }
}

size_t SearchResults::readLines(size_t count) {
  if (!_headerReader) return 0;
  size_t n = 0;
  while (n < count && readCSVLine(*_headerReader, _headerInds, false)) ++n;
  return n;
}

void SearchResults::closeFile() {
  _headerReader.reset();
  if (_headerFile.isValid()) _headerFile.close();
  _headerInds.clear();
}
