#include "search/processors/ResultsXml.h"

#include <cctype>
#include <cstring>

#include "search/SL.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "util/XmlEscape.h"

namespace {

// The bytes that end a word of "_raw" when it is segmented, and the blank.
const char kBreakers[] = "[]<>(){}|!;,'\"*\n\r\t/\\:=@.?-&$#+%_ ";

bool isBreaker(char c) { return c != '\0' && std::strchr(kBreakers, c) != nullptr; }

bool isKeyword(const std::set<Str>& keywords, const Str& word) {
  if (keywords.empty()) return false;
  if (keywords.count(word)) return true;
  Str lower(word);
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return keywords.count(lower) != 0;
}

}  // namespace

void ResultsXml::escape(const Str& in, Str& out, bool quotes) { appendXmlEscaped(out, in, quotes); }

void ResultsXml::columns(const SearchResults& results, const SearchResultsInfo& info, std::vector<Str>& names,
                         std::vector<sr_index_t>& keys) {
  names.clear();
  keys.clear();
  std::set<sr_index_t> seen;
  auto shown = [](const Str& n) { return n.empty() || n[0] != '_' || n == SL::Raw || n == SL::Timestamp; };
  for (const Str& n : info.columnOrder) {
    sr_index_t k = results.keyIndex(n);
    if (k == SearchResults::nkeyindex || !shown(n) || !seen.insert(k).second) continue;
    names.push_back(n);
    keys.push_back(k);
  }
  std::vector<Str> order;
  results.getColumnOrder(order);
  for (const Str& n : order) {
    sr_index_t k = results.keyIndex(n);
    if (!shown(n) || !seen.insert(k).second) continue;
    names.push_back(n);
    keys.push_back(k);
  }
}

void ResultsXml::appendSegmented(const Str& raw, const std::set<Str>& keywords, Str& out) {
  size_t i = 0;
  Str word;
  while (i < raw.size()) {
    if (isBreaker(raw[i])) {
      Str one(1, raw[i]);
      escape(one, out);
      ++i;
      continue;
    }
    size_t j = i;
    while (j < raw.size() && !isBreaker(raw[j])) ++j;
    word.assign(raw, i, j - i);
    out += isKeyword(keywords, word) ? "<sg h='1'>" : "<sg>";
    escape(word, out);
    out += "</sg>";
    i = j;
  }
}

void ResultsXml::appendResult(const SearchResult& row, size_t offset,
                              const std::vector<Str>& names, const std::vector<sr_index_t>& keys,
                              const std::set<Str>& keywords, bool segment, Str& out) {
  out.appendFormat("<result offset='%lu'>\n", static_cast<unsigned long>(offset));
  std::vector<Str> values;
  for (size_t c = 0; c < keys.size(); ++c) {
    const Str* v = row.getValuePtr(keys[c]);
    if (!v) continue;
    out += "<field k='";
    escapeAttribute(names[c], out);
    out += "'>";
    if (names[c] == SL::Raw) {
      out += "<v xml:space='preserve'>";
      if (segment)
        appendSegmented(*v, keywords, out);
      else
        escape(*v, out);
      out += "</v></field>\n";
      continue;
    }
    out += '\n';
    values.clear();
    if (!row.getMultiValues(keys[c], values) || values.empty()) values.assign(1, *v);
    for (const Str& one : values) {
      out += isKeyword(keywords, one) ? "<value h='1'><text>" : "<value><text>";
      escape(one, out);
      out += "</text></value>\n";
    }
    out += "</field>\n";
  }
  out += "</result>\n";
}

bool ResultsXml::appendMessages(const SearchResultsInfo& info, Str& out) {
  bool any = false;
  for (const auto& kv : info.messages) any = any || !kv.second.empty();
  if (!any) return false;
  out += "<results type=\"message\">\n";
  for (const auto& kv : info.messages) {
    for (const Str& text : kv.second) {
      out += "<msg type=\"";
      escapeAttribute(kv.first, out);
      out += "\">";
      escape(text, out);
      out += "</msg>\n";
    }
  }
  out += "</results>\n";
  return true;
}

void ResultsXml::replaceWithXmlRow(SearchResults& results, const Str& xml) {
  results.clearFileList();
  results.free(false);
  SearchResult* r = results.addNewResult();
  r->setValue(results.keyIndex(SL::XML, true), xml);
}
