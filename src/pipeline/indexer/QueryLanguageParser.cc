#include "pipeline/indexer/QueryLanguageParser.h"

#include <cstring>

#include "pipeline/indexer/ISavedSearchSource.h"
#include "util/Exceptions.h"
#include "util/Logger.h"
#include "util/Regex.h"
#include "util/xml/XmlTreeParser.h"

static Logger gLogger("QueryLanguageParser");

namespace {

// Is text[i] a double quote that toggles a quoted run (no backslash before it)?
bool isQuote(const Str& text, size_t i) { return text[i] == '"' && !(i > 0 && text[i - 1] == '\\'); }

void rewriteOutsideQuotes(const Str& segment, Str& out) {
  static const Regex kNotEquals("(\\w+)\\s*!=\\s*");
  static const Regex kEquals("(\\w+)\\s*=\\s*");
  if (segment.find('=') == Str::npos) {
    out += segment;
    return;
  }
  // replaceAll writes its whole output, so each pass gets its own.
  Str once, twice;
  kNotEquals.replaceAll(StrSegment(segment), "NOT \\1::", once, true);
  kEquals.replaceAll(StrSegment(once), "\\1::", twice, true);
  out += twice;
}

// The first element named `name` at or below n, depth first.
xml::node findElement(const xml::node& n, const char* name) {
  if (n.empty()) return n;
  if (std::strcmp(n.get_name(), name) == 0) return n;
  for (const xml::node& child : n.elements()) {
    xml::node found = findElement(child, name);
    if (!found.empty()) return found;
  }
  return xml::node();
}

}  // namespace

Str QueryLanguageParser::indexify(const Str& text) {
  Str out;
  out.reserve(text.size() + 16);
  size_t start = 0;
  bool inQuote = false;
  for (size_t i = 0; i < text.size(); ++i) {
    if (!isQuote(text, i)) continue;
    if (inQuote) {
      out.append(text, start, i + 1 - start);  // the quoted run as it is, closing quote included
    } else {
      rewriteOutsideQuotes(Str(text.substr(start, i - start)), out);
      out += '"';
    }
    start = i + 1;
    inQuote = !inQuote;
  }
  if (inQuote)
    out.append(text, start, Str::npos);
  else
    rewriteOutsideQuotes(Str(text.substr(start)), out);
  return out;
}

Str QueryLanguageParser::handleParensInQuery(const Str& text) {
  Str out;
  out.reserve(text.size() + 16);
  bool inQuote = false;
  long wordParens = 0;  // "(" opened inside the current word, still open
  const size_t n = text.size();
  for (size_t i = 0; i < n; ++i) {
    const char c = text[i];
    const bool escaped = !out.empty() && out.back() == '\\';
    if (c == '"') {
      if (!escaped) inQuote = !inQuote;
      out += c;
    } else if (isBlank(c)) {
      wordParens = 0;
      out += c;
    } else if (c == '(') {
      if (escaped) {
        out.back() = '(';
        if (!inQuote) ++wordParens;
      } else if (inQuote || (!out.empty() && !isBlank(out.back()))) {
        out += '(';
        if (!inQuote) ++wordParens;
      } else {
        out += "( ";
      }
    } else if (c == ')') {
      if (escaped) {
        out.back() = ')';
      } else if (inQuote) {
        out += ')';
      } else if (wordParens > 0) {
        --wordParens;
        out += ')';
      } else {
        size_t j = i;
        while (j < n && text[j] == ')') ++j;
        if (j == n || isBlank(text[j]))
          out += " )";
        else
          out += ')';
      }
    } else {
      out += c;
    }
  }
  return out;
}

Str QueryLanguageParser::savedSearchText(const Str& text) {
  if (text.find("<key>") == Str::npos) return text;
  xml::tree_parser parser(text.data(), text.size(), false);
  if (parser.failed()) {
    gLogger.warn("Saved search text looks like XML but does not parse (%s); using it as it is",
                 parser.get_error_message().c_str());
    return text;
  }
  xml::node keys = findElement(parser.get_document().get_root_node(), "keys");
  if (keys.empty()) return text;
  Str out;
  for (const xml::node& key : keys.elements("key")) {
    if (!out.empty()) out += ' ';
    out += key.get_content();
  }
  return out;
}

void QueryLanguageParser::handleSavedVelmorsInSearch(Str& text, const Str& user, std::vector<Str>& info) {
  static const size_t kPrefixLen = std::strlen("savedsearch::");
  int expansions = 0;
  bool inQuote = false;
  size_t i = 0;
  while (i < text.size()) {
    if (isQuote(text, i)) {
      inQuote = !inQuote;
      ++i;
      continue;
    }
    const bool wordStart = i == 0 || isBlank(text[i - 1]);
    if (inQuote || !wordStart ||
        (text.compare(i, kPrefixLen, "savedsearch::") != 0 && text.compare(i, kPrefixLen, "savedvelmor::") != 0)) {
      ++i;
      continue;
    }
    const size_t n = text.size();
    size_t p = i + kPrefixLen, end;
    Str name;
    if (p < n && text[p] == '"') {  // a quoted name may hold blanks
      size_t q = p + 1;
      while (q < n && !isQuote(text, q)) ++q;
      name = text.substr(p + 1, q - p - 1);
      end = q < n ? q + 1 : n;
    } else {
      end = p;
      while (end < n && !isBlank(text[end])) ++end;
      name = text.substr(p, end - p);
    }
    if (++expansions > kMaxSavedSearchExpansions)
      throw QueryParseException("Too many saved searches to expand (does saved search " + name +
                                " name itself?)");
    Str saved, replacement;
    std::shared_ptr<ISavedSearchSource> source = ISavedSearchSource::installed();
    if (source && source->lookup(name, user, saved)) {
      gLogger.debug("Expanding saved search %s", name.c_str());
      replacement = "( " + handleParensInQuery(indexify(savedSearchText(saved)) + " ") + ") ";
    } else {
      info.push_back("Unable to find savedvelmor " + name);
    }
    if (end < n && isBlank(text[end])) ++end;  // the replacement brings its own blank
    text.replace(i, end - i, replacement);
    // Rescan from i: the saved text may name further saved searches.
  }
}

char QueryLanguageParser::tokenizeString(const Str& text, std::vector<Str>& tokens) {
  Str cur;
  bool inQuote = false;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '\\' && i + 1 < text.size() && text[i + 1] == '"') {
      cur += '"';
      ++i;
    } else if (c == '"') {
      inQuote = !inQuote;
    } else if (!inQuote && isBlank(c)) {
      if (!cur.empty()) tokens.push_back(cur);
      cur.clear();
    } else {
      cur += c;
    }
  }
  if (inQuote) return '"';
  if (!cur.empty()) tokens.push_back(cur);
  return 0;
}
