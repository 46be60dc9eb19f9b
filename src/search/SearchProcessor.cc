#include "search/SearchProcessor.h"

#include <cassert>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "search/ProcessorArg.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "search/Subsearch.h"
#include "util/Logger.h"

static Str lowerStr(const Str& s) {
  Str out(s);
  lowercaseInPlace(out);
  return out;
}

static Logger gLogger("SearchProcessor");

SearchProcessorException searchError(Logger& logger, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  Str text;
  text.vformat(fmt, ap);
  va_end(ap);
  Str msg;
  if (logger.getName()[0] != '\0')
    msg = Str("Error in '") + logger.getName() + "': " + text;
  else
    msg = text;
  logger.error("%s", msg.c_str());
  return SearchProcessorException(msg);
}

SearchProcessorException searchError(const SearchProcessor* proc, Logger& logger, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  Str text;
  text.vformat(fmt, ap);
  va_end(ap);
  Str msg = proc ? "Error in '" + proc->getName() + "' command: " + text : text;
  logger.error("%s", msg.c_str());
  return SearchProcessorException(msg);
}

SearchProcessor::SearchProcessor(const Str& n) : name(n) {}

SearchProcessor::~SearchProcessor() { args.free(); }

// ---------------------------------------------------------------------------
// Tokenizing

bool SearchProcessor::tokenizeString(const Str& text, std::vector<Str>& tokens, std::vector<bool>& quoted,
                                     const char* delimiters) {
  Str token;
  bool inQuote = false;
  bool allQuoted = false;  // every byte of the token so far came from quotes
  bool afterBackslash = false;
  for (char c : text) {
    if (afterBackslash) {
      afterBackslash = false;
      if (c == '"') {
        token.back() = '"';
        if (!inQuote) allQuoted = false;
        continue;
      }
      if (c == '\\') continue;  // the first backslash stands for both
    }
    if (c == '\\') {
      token += c;
      afterBackslash = true;
      if (!inQuote) allQuoted = false;
      continue;
    }
    if (!inQuote && c != '\0' && strchr(delimiters, c)) {
      if (allQuoted || !token.empty()) {
        tokens.push_back(token);
        quoted.push_back(allQuoted);
      }
      token.clear();
      allQuoted = false;
      continue;
    }
    if (c == '"') {
      if (!inQuote && token.empty()) allQuoted = true;
      inQuote = !inQuote;
      continue;
    }
    token += c;
    if (!inQuote) allQuoted = false;
  }
  if (allQuoted || !token.empty()) {
    tokens.push_back(token);
    quoted.push_back(allQuoted);
  }
  return !inQuote;
}

void SearchProcessor::parseArguments() {
  ArgList out;
  for (Arg* a : args) {
    if (a->type != Arg::STRING || a->isParsed()) {
      out.push_back(a);
      continue;
    }
    std::vector<Str> tokens;
    std::vector<bool> quoted;
    tokenizeString(static_cast<StringArg*>(a)->getText(), tokens, quoted, ", ");
    for (size_t i = 0; i < tokens.size(); ++i) out.push_back(new StringArg(tokens[i], quoted[i], true));
    delete a;
  }
  args = out;
}

void SearchProcessor::evalArgs(SearchResultsInfo& info) {
  if (argsEvaluated) return;
  if (gLogger.isDebugEnabled())
    gLogger.debug("Before evaluating args of %s processor with args = %s", name.c_str(),
                  args.toString(0, false).c_str());
  ArgList out;
  try {
    for (size_t i = 0; i < args.size(); ++i) {
      Arg* a = args[i];
      if (a->type != Arg::PROCESSOR) {
        out.push_back(a);
        args[i] = nullptr;
        if (!searchString.empty()) searchString += ' ';
        searchString += a->toString(0);
        continue;
      }
      Arg* replacement = Subsearch::run(*static_cast<ProcessorArg*>(a), handlesSearchResultsArguments(), info);
      if (replacement->type == Arg::STRING) {
        if (!searchString.empty()) searchString += ' ';
        searchString += replacement->toString(0);
      }
      out.push_back(replacement);
      delete a;
      args[i] = nullptr;
    }
  } catch (...) {
    // Keep every argument owned by the command whatever happened.
    for (Arg* a : args)
      if (a) out.push_back(a);
    args = out;
    throw;
  }
  args = out;
  argsEvaluated = true;
  if (gLogger.isDebugEnabled())
    gLogger.debug("After evaluating args of %s processor with new args = %s", name.c_str(),
                  args.toString(0, false).c_str());
  parseArguments();
}

// ---------------------------------------------------------------------------
// Argument readers

StringArg* SearchProcessor::unconsumedString(size_t i) const {
  Arg* a = args[i];
  if (a->type != Arg::STRING || a->isConsumed()) return nullptr;
  return static_cast<StringArg*>(a);
}

namespace {

// Finds the single unconsumed option `optName` (lower-case compare),
// consumes it and returns its value through `value`.
bool findOption(const SearchProcessor* self, const ArgList& args, const Str& optName, Str& value) {
  Str want = lowerStr(optName);
  StringArg* found = nullptr;
  for (Arg* a : args) {
    if (a->type != Arg::STRING || a->isConsumed() || !a->isOption()) continue;
    StringArg* s = static_cast<StringArg*>(a);
    if (lowerStr(s->getOptionName()) != want) continue;
    if (found) throw searchError(self, gLogger, "Option '%s' specified more than once", optName.c_str());
    found = s;
  }
  if (!found) return false;
  found->setConsumed();
  value = found->getOptionValue();
  return true;
}

[[noreturn]] void badValue(const SearchProcessor* self, const char* kind, const Str& optName) {
  throw searchError(self, gLogger, "Invalid %s value for option '%s'", kind, optName.c_str());
}

bool parseLong(const Str& v, long& out) {
  if (v.empty()) return false;
  errno = 0;
  char* end = nullptr;
  long n = strtol(v.c_str(), &end, 10);
  if (errno || *end != '\0') return false;
  out = n;
  return true;
}

}  // namespace

bool SearchProcessor::getOption(const Str& optName, Str& out) { return findOption(this, args, optName, out); }

bool SearchProcessor::getOption(const Str& optName, double& out) {
  Str v;
  if (!findOption(this, args, optName, v)) return false;
  errno = 0;
  char* end = nullptr;
  double d = v.empty() ? 0 : strtod(v.c_str(), &end);
  if (v.empty() || errno || *end != '\0') badValue(this, "numerical", optName);
  out = d;
  return true;
}

bool SearchProcessor::getOption(const Str& optName, unsigned long& out) {
  Str v;
  if (!findOption(this, args, optName, v)) return false;
  long n;
  if (!parseLong(v, n) || strtod(v.c_str(), nullptr) < 0 || n < 0) badValue(this, "non-negative integer", optName);
  out = static_cast<unsigned long>(n);
  return true;
}

bool SearchProcessor::getOption(const Str& optName, long& out) {
  Str v;
  if (!findOption(this, args, optName, v)) return false;
  long n;
  if (!parseLong(v, n)) badValue(this, "integer", optName);
  out = n;
  return true;
}

bool SearchProcessor::getOption(const Str& optName, int& out) {
  Str v;
  if (!findOption(this, args, optName, v)) return false;
  long n;
  if (!parseLong(v, n) || n < INT_MIN || n > INT_MAX) badValue(this, "integer", optName);
  out = static_cast<int>(n);
  return true;
}

bool SearchProcessor::getOption(const Str& optName, bool& out) {
  Str v;
  if (!findOption(this, args, optName, v)) return false;
  static const char* const yes[] = {"t", "true", "1", "yes", "y"};
  static const char* const no[] = {"f", "false", "0", "no", "n"};
  for (const char* w : yes)
    if (strcasecmp(v.c_str(), w) == 0) return out = true, true;
  for (const char* w : no)
    if (strcasecmp(v.c_str(), w) == 0) return out = false, true;
  badValue(this, "boolean", optName);
}

size_t SearchProcessor::getNextArg(Str& out, bool consume) {
  for (size_t i = 0; i < args.size(); ++i) {
    if (StringArg* s = unconsumedString(i)) {
      out = s->getText();
      if (consume) s->setConsumed();
      return i;
    }
  }
  return args.size();
}

size_t SearchProcessor::nextArgIndex() {
  for (size_t i = 0; i < args.size(); ++i)
    if (unconsumedString(i)) return i;
  return args.size();
}

size_t SearchProcessor::getNextNonOpt(Str& out, bool consume) {
  size_t i = nextArgIndex();
  if (i == args.size()) return i;
  StringArg* s = static_cast<StringArg*>(args[i]);
  if (s->isOption()) throw searchError(this, gLogger, "Invalid option '%s'", s->getText().c_str());
  out = s->getText();
  if (consume) s->setConsumed();
  return i;
}

bool SearchProcessor::isNextKeyword(const Str& word) {
  size_t i = nextArgIndex();
  if (i == args.size()) return false;
  StringArg* s = static_cast<StringArg*>(args[i]);
  if (s->isOption() || strcasecmp(s->getText().c_str(), word.c_str()) != 0) return false;
  s->setConsumed();
  return true;
}

bool SearchProcessor::getNextArgs(std::vector<Str>& out, bool allowOptions, Str stopWord, bool ignoreCase) {
  bool skipped = false;
  for (size_t i = 0; i < args.size(); ++i) {
    StringArg* s = unconsumedString(i);
    if (!s) continue;
    const Str& t = s->getText();
    if (!stopWord.empty() &&
        (ignoreCase ? strcasecmp(t.c_str(), stopWord.c_str()) == 0 : t == stopWord))
      return true;
    if (s->isOption() && !allowOptions) {
      skipped = true;
      continue;
    }
    out.push_back(t);
    s->setConsumed();
  }
  return skipped;
}

bool SearchProcessor::getFieldSet(std::set<Str>& out, Str stopWord, bool ignoreCase) {
  std::vector<Str> names;
  bool r = getNextArgs(names, false, stopWord, ignoreCase);
  for (const Str& n : names) {
    if (n.empty()) throw searchError(this, gLogger, "Field names must not be empty strings");
    if (!out.insert(n).second) throw searchError(this, gLogger, "Field '%s' specified multiple times", n.c_str());
  }
  return r;
}

bool SearchProcessor::hasUnusedArg() const {
  for (Arg* a : args)
    if (!a->isConsumed()) return true;
  return false;
}

void SearchProcessor::refuseLeftovers() {
  size_t i = nextArgIndex();
  if (i < args.size()) throw searchError(this, gLogger, "Invalid argument: '%s'", args[i]->toString(0).c_str());
}

// ---------------------------------------------------------------------------
// Execution

void SearchProcessor::execute_dispatch(SearchResults& results, SearchResultsInfo& info) {
  bool streamable = isStreamable();
  bool transforming = isTransforming();
  if (gLogger.isDebugEnabled())
    gLogger.debug("execute_dispatch invoked for '%s': isStreamable = %s, isTransforming = %s", name.c_str(),
                  streamable ? "TRUE" : "FALSE", transforming ? "TRUE" : "FALSE");
  if (!streamable && !transforming) {
    execute(results, info);
  } else if (!streamable) {
    execute_transform(results, results, info);
  } else if (!results.hasFiles()) {
    execute(results, info);
  } else {
    results.firstFile();
    while (results.readFile()) {
      execute(results, info);
      results.writeFile();
      results.nextFile();
    }
  }
}

void SearchProcessor::execute_transform(SearchResults& in, SearchResults& out, SearchResultsInfo& info) {
  assert(isTransforming());
  if (!in.hasFiles()) {
    execute_input(in, info);
    out.free(false);
  } else {
    in.firstFile();
    while (in.readFile()) {
      execute_input(in, info);
      out.free(&out == &in);
      in.nextFile();
    }
    out.clearFileList();
  }
  execute_output(out, info);
}

void SearchProcessor::execute(SearchResults&, SearchResultsInfo&) {
  assert(!"command does not implement execute");
  abort();
}

void SearchProcessor::execute_input(SearchResults&, SearchResultsInfo&) {
  assert(!"command does not implement execute_input");
  abort();
}

void SearchProcessor::execute_output(SearchResults&, SearchResultsInfo&) {
  assert(!"command does not implement execute_output");
  abort();
}

Str SearchProcessor::toString(unsigned int indent) const {
  Str pad(indent * 2, ' ');
  Str out = pad + "Processor: " + name;
  if (!acceptsPartialResults()) out += " (no partial results)";
  out += '\n';
  Str argPad((indent + 1) * 2, ' ');
  for (Arg* a : args) out += argPad + a->toString(indent + 1) + "\n";
  return out;
}
