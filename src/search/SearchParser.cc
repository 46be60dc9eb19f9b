#include "search/SearchParser.h"

#include <cctype>
#include <cstring>
#include <memory>

#include "search/ListArg.h"
#include "search/ProcessorArg.h"
#include "search/SearchFactory.h"
#include "search/SearchPipeline.h"
#include "search/StringArg.h"
#include "util/Logger.h"

static Logger gLogger("SearchParser");
// Wraps parse failures; it has no name, so the texts are not prefixed.
static Logger gWrapLogger("");

namespace {

const char kBlanks[] = " \t\n";

void stripBlanks(Str& s) {
  size_t b = s.find_first_not_of(kBlanks);
  if (b == std::string::npos) {
    s.clear();
    return;
  }
  size_t e = s.find_last_not_of(kBlanks);
  s = s.substr(b, e - b + 1);
}

}  // namespace

void SearchParser::_groupQuotes(const Str& text, std::vector<Str>& runs) {
  Str cur;
  bool inQuote = false;
  bool escaped = false;
  for (char c : text) {
    if (escaped) {
      cur += c;
      escaped = false;
    } else if (c == '\\') {
      cur += c;
      escaped = true;
    } else if (c == '"' && !inQuote) {
      runs.push_back(cur);
      cur.clear();
      inQuote = true;
    } else if (c == '"') {
      runs.push_back('"' + cur + '"');
      cur.clear();
      inQuote = false;
    } else {
      cur += c;
    }
  }
  runs.push_back(cur);
}

void SearchParser::_groupParens(const std::vector<Str>& runs, ArgList& out) {
  ListArg root;
  std::vector<ListArg*> stack;  // open lists above the root
  auto top = [&]() -> Arg* { return stack.empty() ? static_cast<Arg*>(&root) : stack.back(); };
  Str buffer;
  auto flush = [&]() {
    if (!buffer.empty()) top()->append(new StringArg(buffer, false, false));
    buffer.clear();
  };
  try {
    for (const Str& run : runs) {
      if (run.startswith('"')) {
        buffer += run;
        continue;
      }
      for (char c : run) {
        if (c == '[') {
          flush();
          stack.push_back(new ListArg());
        } else if (c == ']') {
          flush();
          if (stack.empty()) throw SearchProcessorException("Mismatched ']'");
          ListArg* done = stack.back();
          stack.pop_back();
          top()->append(done);
        } else {
          buffer += c;
        }
      }
    }
    flush();
  } catch (...) {
    for (ListArg* l : stack) delete l;
    throw;
  }
  // A bracket that never closed takes its content with it.
  for (ListArg* l : stack) delete l;
  ArgList& members = const_cast<ArgList&>(root.getList());
  out.insert(out.end(), members.begin(), members.end());
  members.clear();
}

void SearchParser::_setFunctionName(Str& text, Str& name) {
  stripBlanks(text);
  size_t blank = text.find(' ');
  size_t bar = text.find('|');
  if (blank == std::string::npos && bar == std::string::npos) {
    name = text;
    text.clear();
  } else if (blank < bar) {
    name = text.substr(0, blank);
    text.erase(0, blank + 1);
  } else {
    name = text.substr(0, bar);
    text.erase(0, bar);
  }
}

void SearchParser::_setArgumentText(Str& text, Str& args) {
  std::vector<Str> runs;
  _groupQuotes(text, runs);
  args.clear();
  Str rest;
  bool inRest = false;
  for (const Str& run : runs) {
    if (inRest) {
      rest += run;
      continue;
    }
    if (run.startswith('"')) {
      args += run;
      continue;
    }
    // A bar preceded by a backslash is protected like any other byte, and
    // "||" is the concatenation operator of expressions, not two pipes.
    size_t bar = std::string::npos;
    for (size_t i = 0; i < run.size(); ++i) {
      if (run[i] == '\\') {
        ++i;
      } else if (run[i] == '|' && i + 1 < run.size() && run[i + 1] == '|') {
        ++i;
      } else if (run[i] == '|') {
        bar = i;
        break;
      }
    }
    if (bar == std::string::npos) {
      args += run;
    } else {
      args += run.substr(0, bar);
      rest = run.substr(bar);
      inRest = true;
    }
  }
  text = rest;
}

void SearchParser::_parseProc(Str& text, Str& name, Str& args) {
  gLogger.debug("PARSING PROC FROM '%s'", text.c_str());
  _setFunctionName(text, name);
  _setArgumentText(text, args);
}

SearchPipeline* SearchParser::_parseQuery(const ArgList& groups, bool allowInternal) {
  std::unique_ptr<SearchPipeline> pipeline(new SearchPipeline());
  SearchProcessor* current = nullptr;
  for (Arg* a : groups) {
    if (a->type == Arg::LIST) {
      if (!current) throw SearchProcessorException("Subsearches are only valid as arguments to commands");
      const ArgList& members = static_cast<ListArg*>(a)->getList();
      SearchPipeline* sub = _parseQuery(members, allowInternal);
      sub->setLitSearch(members.toString(0, false));
      current->addArgument(new ProcessorArg(sub));
      continue;
    }
    if (a->type != Arg::STRING) continue;
    Str text = static_cast<StringArg*>(a)->getText();
    stripBlanks(text);
    if (text.empty()) continue;
    pipeline->appendSearch(text);
    if (text.startswith('|') && !(current && text.startswith("||"))) {
      text.erase(0, 1);
      current = nullptr;
    } else if (current) {
      Str argText;
      _setArgumentText(text, argText);
      current->addArgument(new StringArg(argText, false, false));
    }
    while (!text.empty()) {
      if (text.startswith('|')) text.erase(0, 1);
      Str name, argText;
      _parseProc(text, name, argText);
      if (name.empty()) throw SearchProcessorException("You must follow a pipe ('|') with a command.");
      SearchProcessor* p = SearchFactory::getProcessor(name, allowInternal);
      if (!argText.empty()) p->addArgument(new StringArg(argText, false, false));
      pipeline->addProcessor(p);
      current = p;
    }
  }
  return pipeline.release();
}

SearchProcessor* SearchParser::parse(const Str& search, bool allowInternal) {
  gLogger.info("PARSING: '%s'\n", search.c_str());
  ArgList groups;
  try {
    std::vector<Str> runs;
    _groupQuotes(search, runs);
    _groupParens(runs, groups);
    if (gLogger.isDebugEnabled()) gLogger.debug("GROUPS: %s\n", groups.toString(0, false).c_str());
    SearchPipeline* p = _parseQuery(groups, allowInternal);
    p->setLitSearch(search);
    groups.free();
    return p;
  } catch (const std::exception& e) {
    groups.free();
    if (strncmp(e.what(), "Unknown search operation", 24) == 0) throw searchError(gWrapLogger, "%s", e.what());
    throw searchError(gWrapLogger, "%s, while parsing query:\"%s\"", e.what(), search.c_str());
  } catch (...) {
    groups.free();
    throw searchError(gWrapLogger, "while parsing query:\"%s\"", search.c_str());
  }
}

Str SearchParser::quoteWord(const Str& word) {
  bool plain = !word.empty();
  for (char c : word)
    if (isspace(static_cast<unsigned char>(c)) || c == '"' || c == ',' || c == '|' || c == '[' || c == ']') plain = false;
  if (plain) return word;
  Str out = "\"";
  for (char c : word) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  out += '"';
  return out;
}
