#include "search/processors/AbstractOperator.h"

#include <algorithm>
#include <cstring>

#include "libbundle/StringMgr.h"
#include "search/SL.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "util/Logger.h"

namespace {
Logger gLogger("abstract");

const long kMaxLinesLimit = 500;
const long kMaxTermsLimit = 1000;

// Calls f(start, len) for each word of the line.
template <class F>
void forEachWord(const Str& line, F f) {
  size_t i = 0, n = line.size();
  while (i < n) {
    while (i < n && AbstractOperator::isBreaker(line[i])) ++i;
    size_t s = i;
    while (i < n && !AbstractOperator::isBreaker(line[i])) ++i;
    if (i > s) f(s, i - s);
  }
}

void addGap(Str& out, size_t n) {
  out.appendFormat("... %d line%s omitted ...\n", static_cast<int>(n), n == 1 ? "" : "s");
}
}  // namespace

const char* const AbstractOperator::kBreakers = "[]<>(){}|!;,'\"*\n\r\t/\\:=@.?-&$#+%_";

bool AbstractOperator::isBreaker(char c) { return c == ' ' || c == '\0' || strchr(kBreakers, c) != nullptr; }

void AbstractOperator::processArguments() {
  auto check = [&](const char* opt, long& v, long hi) {
    if (v < 1 || v > hi)
      throw searchError(this, gLogger, "%s",
                        Str::fromFormat(StringMgr::str("ABSTRACT_SRANGE_ERROR__S_LD_D").c_str(), opt, v,
                                        static_cast<int>(hi))
                            .c_str());
  };
  long v;
  if (getOption("maxlines", v)) {
    check("maxlines", v, kMaxLinesLimit);
    _maxLines = static_cast<unsigned long>(v);
  }
  if (getOption("maxterms", v)) {
    check("maxterms", v, kMaxTermsLimit);
    _maxTerms = static_cast<unsigned long>(v);
  }
  refuseLeftovers();
}

void AbstractOperator::splitLines(const Str& text, std::vector<Str>& lines) {
  lines.clear();
  size_t s = 0;
  while (s < text.size()) {
    size_t e = text.find('\n', s);
    if (e == Str::npos) e = text.size();
    size_t len = e - s;
    if (len > 0 && text[s + len - 1] == '\r') --len;
    lines.push_back(text.substr(s, len));
    s = e + 1;
  }
}

void AbstractOperator::scoreLines(const std::vector<Str>& lines, const std::vector<Str>& keywords,
                                  std::vector<double>& scores) {
  scores.assign(lines.size(), 0.0);
  if (keywords.empty()) return;
  Str word;
  for (size_t i = 0; i < lines.size(); ++i) {
    forEachWord(lines[i], [&](size_t s, size_t len) {
      word.assign(lines[i], s, len);
      for (char& c : word) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
      if (std::binary_search(keywords.begin(), keywords.end(), word)) scores[i] += 1.0;
    });
  }
}

void AbstractOperator::improveLineScores(std::vector<double>& scores) {
  if (scores.empty()) return;
  std::vector<double> base(scores);
  for (size_t i = 0; i < base.size(); ++i) {
    double near = 0;
    if (i > 0) near = std::max(near, base[i - 1]);
    if (i + 1 < base.size()) near = std::max(near, base[i + 1]);
    scores[i] += near * 0.25;
  }
  scores[0] += 0.5;
}

Str AbstractOperator::abstract(const std::vector<Str>& lines, const std::vector<double>& scores, size_t maxLines,
                               size_t maxTerms) {
  std::vector<size_t> order(lines.size());
  for (size_t i = 0; i < order.size(); ++i) order[i] = i;
  std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) { return scores[a] > scores[b]; });
  std::vector<bool> keep(lines.size(), false);
  std::vector<size_t> cut(lines.size(), Str::npos);  // byte length of a shortened line
  size_t taken = 0, terms = 0;
  for (size_t idx : order) {
    if (taken >= maxLines) break;
    size_t words = 0, endOfLimit = Str::npos;
    forEachWord(lines[idx], [&](size_t s, size_t len) {
      ++words;
      if (maxTerms && terms + words == maxTerms) endOfLimit = s + len;
    });
    if (maxTerms && terms + words > maxTerms) {
      if (taken == 0) {  // never give back nothing: cut the best line
        keep[idx] = true;
        cut[idx] = endOfLimit;
        ++taken;
      }
      break;
    }
    keep[idx] = true;
    terms += words;
    ++taken;
  }
  Str out;
  size_t gap = 0;
  for (size_t i = 0; i < lines.size(); ++i) {
    if (!keep[i]) {
      ++gap;
      continue;
    }
    if (gap) addGap(out, gap);
    gap = 0;
    out.append(lines[i], 0, cut[i] == Str::npos ? lines[i].size() : cut[i]);
    out += '\n';
  }
  if (gap) addGap(out, gap);
  if (!out.empty()) out.pop_back();
  return out;
}

void AbstractOperator::execute(SearchResults& results, SearchResultsInfo& info) {
  if (results.empty()) return;
  sr_index_t raw = results.keyIndex(SL::Raw);
  if (raw == SearchResults::nkeyindex) return;
  sr_index_t lineCount = results.keyIndex("_fulllinecount", true);
  sr_index_t charCount = results.keyIndex("_fullcharcount", true);
  std::vector<Str> keywords;
  for (const Str& k : info.keywords) keywords.push_back(lowercase(k));
  std::sort(keywords.begin(), keywords.end());
  std::vector<Str> lines;
  std::vector<double> scores;
  for (SearchResult* r : results) {
    const Str* text = r->getValuePtr(raw);
    if (!text) continue;
    splitLines(*text, lines);
    r->setValue(lineCount, ToString(static_cast<unsigned long>(lines.size())));
    r->setValue(charCount, ToString(static_cast<unsigned long>(text->size())));
    size_t words = 0;
    if (_maxTerms)
      for (const Str& l : lines) forEachWord(l, [&](size_t, size_t) { ++words; });
    if (lines.size() <= _maxLines && words <= _maxTerms) continue;
    scoreLines(lines, keywords, scores);
    improveLineScores(scores);
    r->setValue(raw, abstract(lines, scores, _maxLines, _maxTerms));
  }
}
