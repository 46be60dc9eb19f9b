#include "search/processors/StringSearchExpander.h"

#include <cstdio>

#include "pipeline/indexer/ISavedSearchSource.h"
#include "pipeline/indexer/ITagResolver.h"
#include "pipeline/indexer/QueryLanguageParser.h"
#include "pipeline/indexer/TimeParser.h"
#include "util/Exceptions.h"
#include "util/Logger.h"

static Logger gLogger("StringSearchExpander");

namespace {

const char kDefaultTimeFormat[] = "%m/%d/%Y:%H:%M:%S";

// Stands for an event type that a tag names but that does not exist: an
// indexed comparison on a field no event carries, so it matches nothing.
const char kNoSuchEventType[] = "__no_such_eventtype__";

const char* const kTimeWords[] = {
    "starttime",           "endtime",          "starttimeu",         "endtimeu",
    "minutesago",          "hoursago",         "daysago",            "monthsago",
    "startminutesago",     "starthoursago",    "startdaysago",       "startmonthsago",
    "endminutesago",       "endhoursago",      "enddaysago",         "endmonthsago",
    "searchtimespanminutes", "searchtimespanhours", "searchtimespandays", "searchtimespanmonths"};

// The fields a tag may be on, in the order an unqualified tag tries them.
const char* const kTagFields[] = {"host", "source", "sourcetype", "savedsearch", "eventtype"};

bool isTimeWord(const Str& name) {
  for (const char* w : kTimeWords)
    if (name == w) return true;
  return false;
}

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v'; }

// `value` in double quotes, with quotes and backslashes escaped, so that it
// reaches the comparison as it is.
Str quoted(const Str& value) {
  Str s = "\"";
  for (char c : value) {
    if (c == '"' || c == '\\') s += '\\';
    s += c;
  }
  s += '"';
  return s;
}

// `field::value` as one token, quoted whole when the value would split.
Str indexedTerm(const Str& field, const Str& value) {
  Str t = field + "::" + value;
  for (char c : value)
    if (isSpace(c) || c == '"' || c == '(' || c == ')') return quoted(t);
  return t;
}

// Splits "field::value" (the resolvers' form) into its halves; a bare value
// belongs to `defaultField`.
void splitTerm(const Str& term, const Str& defaultField, Str& field, Str& value) {
  size_t sep = term.find("::");
  if (sep == Str::npos || sep == 0) {
    field = defaultField;
    value = term;
  } else {
    field = term.substr(0, sep);
    value = term.substr(sep + 2);
  }
}

void addWarning(std::vector<Str>& warnings, const Str& w) {
  for (const Str& x : warnings)
    if (x == w) return;
  warnings.push_back(w);
}

// Pushes the tokens of one resolved term, in parentheses when it is more
// than one token.
void pushTerm(const Str& term, std::vector<Str>& out) {
  std::vector<Str> tokens;
  StringSearchExpander::tokenize(term, tokens);
  if (tokens.size() == 1) {
    out.push_back(tokens[0]);
    return;
  }
  out.push_back("(");
  out.insert(out.end(), tokens.begin(), tokens.end());
  out.push_back(")");
}

}  // namespace

void StringSearchExpander::tokenize(const Str& text, std::vector<Str>& tokens) {
  Str word;
  bool inQuote = false;
  bool haveWord = false;  // a word may be "" (an empty quoted run)
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c == '"' && (i == 0 || text[i - 1] != '\\')) {
      inQuote = !inQuote;
      word += c;
      haveWord = true;
      continue;
    }
    if (!inQuote && (isSpace(c) || c == '(' || c == ')')) {
      if (haveWord) tokens.push_back(word);
      word.clear();
      haveWord = false;
      if (c == '(' || c == ')') tokens.push_back(Str(1, c));
      continue;
    }
    word += c;
    haveWord = true;
  }
  if (haveWord) tokens.push_back(word);
}

Str StringSearchExpander::_removeWrappingQuotes(const Str& token) {
  if (token.size() >= 2 && token.front() == '"' && token.back() == '"') return token.substr(1, token.size() - 2);
  return token;
}

Str StringSearchExpander::expandSearch(const Str& text, std::vector<Str>& warnings) const {
  std::vector<Str> found;
  Str current = text;
  for (int round = 0; round < kMaxRounds; ++round) {
    Str next = _internalExpandSearch(current, found);
    if (next == current) break;
    if (next.size() > kMaxExpandedBytes) {
      gLogger.warn("Expansion of the search stopped: the text would exceed %zu bytes", kMaxExpandedBytes);
      break;
    }
    current = std::move(next);
    if (round == kMaxRounds - 1) gLogger.warn("Expansion of the search stopped after %d rounds", kMaxRounds);
  }
  for (const Str& w : found) addWarning(warnings, w);
  return current;
}

Str StringSearchExpander::_internalExpandSearch(const Str& text, std::vector<Str>& warnings) const {
  std::vector<Str> tokens;
  tokenize(text, tokens);
  const time_t now = _now ? _now : ::time(nullptr);
  std::vector<TimeParser> times(1);
  Str format = kDefaultTimeFormat;
  std::vector<Str> out;

  for (const Str& token : tokens) {
    if (token == "(") {
      out.push_back(token);
      times.emplace_back();
      continue;
    }
    if (token == ")") {
      if (times.size() > 1) {
        emitTimeConditions(times.back(), out);
        times.pop_back();
      }
      out.push_back(token);
      continue;
    }
    const Str t = _removeWrappingQuotes(token);
    const size_t eq = t.find('=');
    const size_t colons = t.find("::");
    const size_t sep = eq < colons ? eq : colons;
    if (sep == Str::npos || sep == 0) {
      out.push_back(token);
      continue;
    }
    const Str name = t.substr(0, sep);
    const bool isEquals = sep == eq;
    const Str value = _removeWrappingQuotes(t.substr(sep + (isEquals ? 1 : 2)));

    if (isTimeWord(name)) {
      TimeParser& top = times.back();
      if (name.startswith("searchtimespan") && !top.hasMinTime() && !top.hasMaxTime()) {
        addWarning(warnings, name + " supplied without or before endtime or starttime");
        out.push_back(token);
        continue;
      }
      try {
        top.parse(name, value, format, now);
      } catch (const TimeParseException& e) {
        addWarning(warnings, e.what());
        out.push_back(token);
      } catch (const ValidationException& e) {
        addWarning(warnings, e.what());
        out.push_back(token);
      }
      continue;
    }
    if (name == "timeformat") {
      format = value.empty() ? Str(kDefaultTimeFormat) : value;
      continue;
    }
    bool replaced = false;
    if (value.empty()) {
      // Nothing named: copied as it stands.
    } else if (name == "savedvelmor" || name == "savedsearch") {
      replaced = _pushbackTokensForSavedVelmorOrEventtype(true, value, out, warnings);
    } else if (name == "eventtype") {
      replaced = _pushbackTokensForSavedVelmorOrEventtype(false, value, out, warnings);
    } else if (name == "tag") {
      replaced = _pushbackTokensForTag(value, out, warnings);
    } else if (name == "hosttag") {
      replaced = _pushbackTokensForTag("host::" + value, out, warnings);
    } else if (name == "eventtypetag") {
      replaced = _pushbackTokensForTag("eventtype::" + value, out, warnings);
    } else if (name == "sourcetype" && isEquals) {
      replaced = _pushbackTokensForSourceType(value, out);
    }
    if (!replaced) out.push_back(token);
  }
  // Unclosed parentheses leave the tree builder to complain; their time
  // words still apply where they stand.
  while (!times.empty()) {
    emitTimeConditions(times.back(), out);
    times.pop_back();
  }

  Str joined;
  for (const Str& t : out) {
    if (!joined.empty()) joined += ' ';
    joined += t;
  }
  return joined;
}

void StringSearchExpander::emitTimeConditions(const TimeParser& parser, std::vector<Str>& out) {
  char buf[64];
  if (parser.hasMinTime()) {
    snprintf(buf, sizeof buf, "_time>=%.3f", static_cast<double>(parser.getMinTime()));
    out.push_back(buf);
  }
  if (parser.hasMaxTime()) {
    snprintf(buf, sizeof buf, "_time<%.3f", static_cast<double>(parser.getMaxTime()));
    out.push_back(buf);
  }
}

bool StringSearchExpander::_pushbackTokensForTag(const Str& term, std::vector<Str>& out,
                                                 std::vector<Str>& warnings) const {
  Str field, tag;
  const size_t p = term.find_first_of(":=");
  if (p == Str::npos) {
    tag = term;
  } else {
    field = term.substr(0, p);
    const size_t q = term.find_first_not_of(":=", p);
    if (q != Str::npos) tag = _removeWrappingQuotes(term.substr(q));
  }

  std::shared_ptr<ITagResolver> resolver = ITagResolver::installed();
  std::vector<Str> keys;  // "field::value"
  if (resolver && !tag.empty()) {
    if (!field.empty()) {
      std::vector<Str> terms;
      if (resolver->resolveTag(field, tag, _user, terms))
        for (const Str& t : terms) keys.push_back(t.find("::") == Str::npos ? field + "::" + t : t);
    } else {
      for (const char* f : kTagFields) {
        std::vector<Str> terms;
        if (!resolver->resolveTag(f, tag, _user, terms)) continue;
        for (const Str& t : terms) keys.push_back(t.find("::") == Str::npos ? Str(f) + "::" + t : t);
      }
    }
  }
  if (keys.empty()) {
    addWarning(warnings, field.empty() ? "Unable to find tag " + tag : "Unable to find tag " + tag + " on " + field);
    return false;
  }

  out.push_back("(");
  bool first = true;
  for (const Str& key : keys) {
    if (!first) out.push_back("OR");
    first = false;
    Str f, v;
    splitTerm(key, field, f, v);
    std::vector<Str> ignored;
    if (f == "eventtype" && !resolver->resolveEventType(v, _user, ignored)) {
      gLogger.warn("Unable to find eventtype %s referenced by tag %s", v.c_str(), tag.c_str());
      out.push_back(indexedTerm(kNoSuchEventType, v));
      continue;
    }
    out.push_back(f + "=" + quoted(v));
  }
  out.push_back(")");
  return true;
}

bool StringSearchExpander::_pushbackTokensForSavedVelmorOrEventtype(bool isSavedSearch, const Str& name,
                                                                    std::vector<Str>& out,
                                                                    std::vector<Str>& warnings) const {
  if (!isSavedSearch) {
    std::shared_ptr<ITagResolver> resolver = ITagResolver::installed();
    std::vector<Str> terms;
    if (!resolver || !resolver->resolveEventType(name, _user, terms)) {
      addWarning(warnings, "Unable to find an eventtype " + name);
      return false;
    }
    out.push_back("(");
    if (terms.empty()) out.push_back(indexedTerm(kNoSuchEventType, name));
    for (size_t i = 0; i < terms.size(); ++i) {
      if (i) out.push_back("OR");
      pushTerm(terms[i], out);
    }
    out.push_back(")");
    return true;
  }

  std::shared_ptr<ISavedSearchSource> source = ISavedSearchSource::installed();
  Str text;
  if (!source || !source->lookup(name, _user, text)) {
    addWarning(warnings, "Unable to find  a saved search " + name);
    return false;
  }
  Str body;
  if (text.find("<key>") != Str::npos) {
    body = QueryLanguageParser::savedSearchText(text);
  } else if (_doesContainOtherOperators(text, body)) {
    addWarning(warnings, "Unable to run the saved search " + name +
                             " as part of a search as it contains other non search commands. Please use the "
                             "savedsearch command.");
    return false;
  }
  gLogger.debug("Replaced '%s' with '%s'", name.c_str(), body.c_str());
  out.push_back("(");
  tokenize(body, out);
  out.push_back(")");
  return true;
}

bool StringSearchExpander::_pushbackTokensForSourceType(const Str& name, std::vector<Str>& out) const {
  std::shared_ptr<ITagResolver> resolver = ITagResolver::installed();
  std::vector<Str> terms;
  if (!resolver || !resolver->resolveSourceType(name, _user, terms) || terms.empty()) return false;
  // The indexed form ("sourcetype::x") is not expanded again, so a source
  // type that stands for itself among others ends after one round.
  out.push_back("(");
  for (size_t i = 0; i < terms.size(); ++i) {
    if (i) out.push_back("OR");
    Str f, v;
    splitTerm(terms[i], "sourcetype", f, v);
    out.push_back(indexedTerm(f, v));
  }
  out.push_back(")");
  return true;
}

bool StringSearchExpander::_doesContainOtherOperators(const Str& text, Str& terms) {
  std::vector<Str> parts;
  Str part;
  bool inQuote = false;
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c == '"' && (i == 0 || text[i - 1] != '\\')) inQuote = !inQuote;
    if (c == '|' && !inQuote) {
      parts.push_back(part);
      part.clear();
      continue;
    }
    part += c;
  }
  parts.push_back(part);

  terms.clear();
  for (size_t i = 0; i < parts.size(); ++i) {
    const Str& s = parts[i];
    size_t b = 0;
    while (b < s.size() && isSpace(s[b])) ++b;
    size_t e = b;
    while (e < s.size() && !isSpace(s[e])) ++e;
    const Str command = s.substr(b, e - b);
    Str rest;
    if (command == "search") {
      rest = s.substr(e);
    } else if (i == 0 || command.empty()) {
      rest = s;  // the first part is search terms; an empty part adds none
    } else {
      return true;
    }
    if (!terms.empty()) terms += ' ';
    terms += rest;
  }
  return false;
}
