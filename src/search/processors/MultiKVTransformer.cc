#include "search/processors/MultiKVTransformer.h"

#include <algorithm>
#include <cassert>
#include <cctype>
#include <set>

#include "search/SL.h"
#include "search/SearchResult.h"
#include "search/SearchResultsInfo.h"
#include "search/StringArg.h"
#include "search/processors/ConfigMultiKV.h"
#include "search/processors/KVTransformer.h"
#include "util/Logger.h"

namespace {
Logger gLogger("MultiKVTransformer");

bool isBlank(const StrSegment& s) {
  for (char c : s)
    if (!isspace(static_cast<unsigned char>(c))) return false;
  return true;
}

void splitLines(const Str& text, std::vector<StrSegment>& out) {
  out.clear();
  size_t b = 0;
  while (b <= text.size()) {
    size_t e = text.find('\n', b);
    if (e == Str::npos) e = text.size();
    size_t len = e - b;
    if (len > 0 && text[b + len - 1] == '\r') --len;
    if (!(e == text.size() && len == 0 && b == text.size() && b != 0)) out.emplace_back(text.data() + b, len);
    b = e + 1;
  }
}
}  // namespace

MultiKVTransformer::MultiKVTransformer(const Str& name) : SearchProcessor(name) {}
MultiKVTransformer::~MultiKVTransformer() = default;

void MultiKVTransformer::processArguments() {
  std::vector<Str>* list = nullptr;
  for (size_t i = 0; i < args.size(); ++i) {
    StringArg* a = unconsumedString(i);
    if (!a) continue;
    a->setConsumed();
    Str err;
    if (a->isOption()) {
      list = nullptr;
      err = _opts.setOption(a->getOptionName(), a->getOptionValue());
    } else if (!a->isQuoted() && MultiKVOptions::isKeyword(a->getText())) {
      err = _opts.setOption(a->getText(), Str());
      Str kw = lowercase(StrSegment(a->getText()));
      list = kw == "fields" ? &_opts.fields : &_opts.filter;
    } else if (list) {
      list->push_back(a->getText());
    } else {
      err = Str::fromFormat("Invalid argument '%s'", a->getText().c_str());
    }
    if (!err.empty()) throw searchError(this, gLogger, "%s", err.c_str());
  }
  Str err = _opts.validate();
  if (!err.empty()) throw searchError(this, gLogger, "%s", err.c_str());
  if (!_opts.conf.empty()) {
    _conf = std::make_unique<ConfigMultiKV>();
    if (!_conf->load(_opts.conf, err)) throw searchError(this, gLogger, "%s", err.c_str());
  }
}

long MultiKVTransformer::scoreHeader(const std::vector<StrSegment>& lines, size_t i) {
  std::vector<TableSection::Span> ws;
  TableSection::words(lines[i], ws);
  if (ws.size() < 2) return 0;
  long score = 0;
  for (const auto& w : ws) {
    StrSegment t(lines[i].data() + w.start, w.end - w.start);
    bool digit = false, eq = false;
    for (char c : t) digit = digit || isdigit(static_cast<unsigned char>(c)), eq = eq || c == '=';
    if (eq || isdigit(static_cast<unsigned char>(t[0]))) score -= 3;
    else if (!digit) score += 2;
  }
  if (i + 1 < lines.size()) {
    std::vector<TableSection::Span> next;
    TableSection::words(lines[i + 1], next);
    bool data = false;
    for (const auto& w : next) data = data || isdigit(static_cast<unsigned char>(lines[i + 1][w.start]));
    if (next.size() >= 2 && data) score += 3;
  }
  return score;
}

long MultiKVTransformer::findHeader(const std::vector<StrSegment>& lines, size_t from, size_t limit) {
  long best = -1, bestScore = 0;
  for (size_t i = from; i < limit && i < lines.size(); ++i) {
    long s = scoreHeader(lines, i);
    if (s > bestScore) best = long(i), bestScore = s;
  }
  if (best >= 0) assert(bestScore > 0 && "headerScore > 0");
  return best;
}

void MultiKVTransformer::nameColumns(const std::vector<StrSegment>& lines, const StrSegment& header, Table& t) const {
  std::vector<Str> raw;
  for (const auto& c : t.columns) raw.emplace_back(header.data() + c.start, c.end - c.start);
  if (t.align && t.columns.size() > 1) {
    // Join a word to the next one, one blank away, when no body line has a
    // cell under both: they are one name ("Local Address").
    std::vector<TableSection::Span> cells;
    for (bool merged = true; merged && t.columns.size() > 1;) {
      merged = false;
      std::vector<bool> both(t.columns.size(), false);
      for (size_t l : t.body) {
        TableSection::align(lines[l], t.columns, cells);
        for (size_t c = 0; c + 1 < cells.size(); ++c)
          if (cells[c].end > cells[c].start && cells[c + 1].end > cells[c + 1].start) both[c] = true;
      }
      for (size_t c = 0; c + 1 < t.columns.size(); ++c) {
        if (both[c] || t.columns[c + 1].start != t.columns[c].end + 1) continue;
        t.columns[c].end = t.columns[c + 1].end;
        raw[c] += " " + raw[c + 1];
        t.columns.erase(t.columns.begin() + long(c) + 1);
        raw.erase(raw.begin() + long(c) + 1);
        merged = true;
        break;
      }
    }
  }
  t.names.clear();
  std::set<Str> seen;
  for (size_t c = 0; c < raw.size(); ++c) {
    Str n = raw[c];
    KVTransformer::cleanKey(n, false);
    if (n.empty() || !seen.insert(n).second) n = Str::fromFormat("Column_%u", unsigned(c + 1));
    t.names.push_back(n);
  }
}

StrSegment MultiKVTransformer::headerLine(const std::vector<StrSegment>& lines, size_t h) const {
  return _conf ? StrSegment(_headerText) : lines[h];
}

bool MultiKVTransformer::nextTable(const std::vector<StrSegment>& lines, size_t from, size_t end, bool first,
                                   Table& t, size_t& next) const {
  t = Table();
  if (_opts.noheader) {
    t.align = false;
    for (size_t i = from; i < end; ++i)
      if (!isBlank(lines[i])) t.body.push_back(i);
    next = end;
    return !t.body.empty();
  }
  const size_t headerLimit = std::min({end, size_t(_opts.maxHeaderLine), from + size_t(_opts.maxHeaderLookahead)});
  long h = -1;
  size_t bodyStart = from;
  const TableSection* body = _conf ? &_conf->body() : nullptr;
  if (_conf) {
    if (first) {
      // pre.end: the header comes after the first line matching it.
      size_t i = from;
      bool hasPreEnd = false;
      for (; i < end; ++i)
        if (_conf->pre().isEnd(lines[i])) {
          hasPreEnd = true;
          break;
        }
      if (hasPreEnd) from = bodyStart = i + 1;
    }
    const TableSection& hs = _conf->header();
    if (hs.tokenMode() == TableSection::TOKENS_LIST) {
      t.names = hs.tokenList();
      t.align = false;
    } else {
      if (hs.hasStart()) {
        for (size_t i = from; i < end; ++i)
          if (hs.isStart(lines[i])) {
            h = long(i + size_t(hs.offset()));
            break;
          }
      } else {
        h = findHeader(lines, from, std::min({end, size_t(_opts.maxHeaderLine), from + size_t(_opts.maxHeaderLookahead)}));
        (void)headerLimit;
      }
      if (h < 0 || size_t(h) >= end) return false;
      _headerText.assign(lines[size_t(h)].data(), lines[size_t(h)].size());
      hs.replace(_headerText);
      hs.cut(StrSegment(_headerText), nullptr, t.columns);
      t.align = body->tokenMode() == TableSection::TOKENS_DEFAULT || body->tokenMode() == TableSection::TOKENS_ALIGN;
      bodyStart = size_t(h) + 1;
    }
  } else {
    if (first && _opts.forceheader > 0) h = long(_opts.forceheader) - 1;
    else h = findHeader(lines, from, headerLimit);
    if (h < 0 || size_t(h) >= end) return false;
    TableSection::words(lines[size_t(h)], t.columns);
    bodyStart = size_t(h) + 1;
  }

  size_t i = bodyStart;
  if (body && body->hasStart()) {
    while (i < end && !body->isStart(lines[i])) ++i;
  }
  if (body) i += size_t(body->offset());
  long taken = 0;
  for (; i < end; ++i) {
    const StrSegment& line = lines[i];
    if (body && (body->isEnd(line) || _conf->post().isStart(line))) {
      next = end;  // what follows is the post section: no further table
      if (h >= 0) nameColumns(lines, headerLine(lines, size_t(h)), t);
      return true;
    }
    if (isBlank(line)) {
      if (_opts.multitable) break;
      continue;
    }
    if (body && (body->isIgnored(line) || !body->isMember(line))) continue;
    t.body.push_back(i);
    if (body && body->lineCount() > 0 && ++taken >= body->lineCount()) {
      ++i;
      break;
    }
  }
  next = i + 1;
  if (h >= 0) nameColumns(lines, headerLine(lines, size_t(h)), t);
  return true;
}

size_t MultiKVTransformer::extract(SearchResults& results, SearchResults::iterator pos) {
  SearchResult* event = *pos;
  const Str* raw = event->getValuePtr(results.keyIndex(SL::Raw));
  if (!raw) return 0;
  std::vector<StrSegment> lines;
  splitLines(*raw, lines);
  const size_t begin = std::min(size_t(_opts.startLine - 1), lines.size());
  const size_t end = _opts.lastLine ? std::min(size_t(_opts.lastLine), lines.size()) : lines.size();
  const unsigned long parent = ++_parents;
  const sr_index_t rawKey = results.keyIndex(SL::Raw, true);
  const sr_index_t parentKey = results.keyIndex(Str("_mkv_parent"), true);
  const sr_index_t childKey = results.keyIndex(Str("_mkv_child"), true);
  const sr_index_t idKey = results.keyIndex(Str("_mkv_id"), true);
  std::set<Str> wanted(_opts.fields.begin(), _opts.fields.end());
  size_t made = 0;
  unsigned long child = 0;
  SearchResult* last = nullptr;
  std::vector<TableSection::Span> cells;
  std::vector<sr_index_t> colKeys;
  size_t from = begin;
  bool first = true;
  Table t;
  Str edited;
  while (from < end && made < _opts.maxnewresults) {
    size_t next = end;
    if (!nextTable(lines, from, end, first, t, next)) break;
    first = false;
    colKeys.clear();
    last = nullptr;
    for (size_t l : t.body) {
      if (made >= _opts.maxnewresults) break;
      StrSegment line = lines[l];
      if (_conf) {
        edited.assign(line.data(), line.size());
        _conf->body().replace(edited);
        line = StrSegment(edited);
      }
      if (!_opts.filter.empty()) {
        bool hit = false;
        for (const Str& f : _opts.filter) hit = hit || line.find(StrSegment(f)) != StrSegment::npos;
        if (!hit) continue;
      }
      if (t.align && !t.columns.empty()) {
        if (_conf) _conf->body().cut(line, &t.columns, cells);
        else TableSection::align(line, t.columns, cells);
        std::vector<TableSection::Span> ws;
        TableSection::words(line, ws);
        if (last && t.columns.size() > 1 && !ws.empty() && ws[0].start >= t.columns.back().start) {
          // The last cell of the row above runs on in this line.
          Str& rawText = (*last)[rawKey];
          rawText += "\n";
          rawText.append(line.data(), line.size());
          if (!colKeys.empty() && colKeys.back() != 0) {
            Str& cell = (*last)[colKeys.back()];
            cell += "\n";
            cell.append(line.data() + ws[0].start, ws.back().end - ws[0].start);
          }
          gLogger.debug("found Multi-line event! Lines = %lu, Parent_ID = %lu\n", (unsigned long)l + 1, parent);
          continue;
        }
      } else if (_conf) {
        _conf->body().cut(line, nullptr, cells);
      } else {
        TableSection::words(line, cells);
      }
      while (colKeys.size() < cells.size()) {
        size_t c = colKeys.size();
        Str name = c < t.names.size() ? t.names[c] : Str::fromFormat("Column_%u", unsigned(c + 1));
        colKeys.push_back(wanted.empty() || wanted.count(name) ? results.keyIndex(name, true) : 0);
      }
      SearchResult* r = results.addNewResult(pos, _opts.copyattrs ? event : nullptr);
      r->setValue(rawKey, line.data(), line.size());
      for (size_t c = 0; c < cells.size(); ++c)
        if (colKeys[c] && cells[c].end > cells[c].start)
          r->setValue(colKeys[c], line.data() + cells[c].start, cells[c].end - cells[c].start);
      ++child;
      char buf[64];
      r->setValue(parentKey, buf, size_t(snprintf(buf, sizeof buf, "%lu", parent)));
      r->setValue(childKey, buf, size_t(snprintf(buf, sizeof buf, "%lu", child)));
      r->setValue(idKey, buf, size_t(snprintf(buf, sizeof buf, "%lu.%lu", parent, child)));
      last = r;
      ++made;
    }
    if (!_opts.multitable) break;
    from = next;
  }
  return made;
}

void MultiKVTransformer::execute(SearchResults& results, SearchResultsInfo&) {
  for (auto it = results.begin(); it != results.end();) {
    size_t made = extract(results, it);
    if ((made > 0 && _opts.rmorig) || (made == 0 && !_opts.passthru)) {
      delete *it;
      it = results.erase(it);
    } else {
      ++it;
    }
  }
}
