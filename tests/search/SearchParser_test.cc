// Parser tables: search text in, the commands with their raw argument text
// out, or the exact failure message out.
#include <gtest/gtest.h>

#include <memory>

#include "search/ProcessorArg.h"
#include "search/SearchFactory.h"
#include "search/SearchParser.h"
#include "search/SearchPipeline.h"
#include "search/StringArg.h"

namespace {

// A command that only records what the parser gave it.
class Recorder : public SearchProcessor {
 public:
  explicit Recorder(const Str& n) : SearchProcessor(n) {}
  static SearchProcessor* create(const Str& n) { return new Recorder(n); }
};

class SearchParserTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    for (const char* n : {"search", "stats", "head", "eval", "fields"})
      SearchFactory::registerBuiltin(n, &Recorder::create, false);
    SearchFactory::registerBuiltin("prestats", &Recorder::create, true);
  }
};

// "name{arg|arg|[sub]}" for each command, joined by " ; ". A ProcessorArg is
// rendered as "[" + its rendering + "]".
Str render(const SearchProcessor* p);

Str renderPipeline(const SearchPipeline* pl) {
  Str out;
  for (SearchProcessor* p : pl->getProcessors()) {
    if (!out.empty()) out += " ; ";
    out += render(p);
  }
  return out;
}

Str render(const SearchProcessor* p) {
  Str out = p->getName() + "{";
  bool first = true;
  for (Arg* a : p->getArguments()) {
    if (!first) out += "|";
    first = false;
    if (a->type == Arg::PROCESSOR)
      out += "[" + renderPipeline(static_cast<SearchPipeline*>(static_cast<ProcessorArg*>(a)->getProcessor())) + "]";
    else
      out += a->toString(0);
  }
  return out + "}";
}

Str parseToText(const Str& search, bool internal = true) {
  std::unique_ptr<SearchProcessor> p(SearchParser::parse(search, internal));
  return renderPipeline(static_cast<SearchPipeline*>(p.get()));
}

Str parseError(const Str& search, bool internal = true) {
  try {
    delete SearchParser::parse(search, internal);
  } catch (const SearchProcessorException& e) {
    return e.what();
  }
  return "(no error)";
}

TEST_F(SearchParserTest, CommandsAndArgumentText) {
  struct Case {
    const char* in;
    const char* out;
  } cases[] = {
      {"", ""},
      {"   \t ", ""},
      {"search foo", "search{foo}"},
      {"search foo | stats count", "search{foo } ; stats{count}"},
      {"search foo|stats count|head 3", "search{foo} ; stats{count} ; head{3}"},
      {"Stats count", "stats{count}"},
      {"head", "head{}"},
      {"search \"a|b\" | head 1", "search{\"a|b\" } ; head{1}"},
      {"search \"a[b]\" | head 1", "search{\"a[b]\" } ; head{1}"},
      {"search a\\\"b | head", "search{a\\\"b } ; head{}"},
      {"search a\\|b | head", "search{a\\|b } ; head{}"},
      // A tab does not end a command name.
      {"stats\tcount", "(unknown)"},
      // An unterminated quote loses its mark, so its bar starts command "b".
      {"search \"a|b", "(unknown)"},
      {"search x [search y | head 2] z | head",
       "search{x|[search{y } ; head{2}]|z } ; head{}"},
      {"search [search [search deep]] | head", "search{[search{[search{deep}]}]} ; head{}"},
      {"search [search b", "search{}"},
      {"eval x=1 | search a=\"b c\"", "eval{x=1 } ; search{a=\"b c\"}"},
      {"prestats count", "prestats{count}"},
      // "||" concatenates inside an expression; it never ends the command.
      {"eval y = \"a\" || x | head 1", "eval{y = \"a\" || x } ; head{1}"},
      {"eval y = a||b||c", "eval{y = a||b||c}"},
      {"eval y = [search q] || x | head", "eval{y =|[search{q}]||| x } ; head{}"},
      {"eval y = \"a|b\" || \"|\" | head", "eval{y = \"a|b\" || \"|\" } ; head{}"},
      // Bars pair from the left: the third one ends the command.
      {"search a ||| head", "search{a ||} ; head{}"},
  };
  for (const Case& c : cases) {
    Str got;
    try {
      got = parseToText(c.in);
    } catch (const SearchProcessorException& e) {
      got = Str(e.what()).startswith("Unknown search operation") ? Str("(unknown)") : Str(e.what());
    }
    EXPECT_EQ(got, c.out) << "search: " << c.in;
  }
}

TEST_F(SearchParserTest, FailureMessages) {
  struct Case {
    const char* in;
    bool internal;
    const char* msg;
  } cases[] = {
      {"search foo | | stats count", true,
       "You must follow a pipe ('|') with a command., while parsing query:\"search foo | | stats count\""},
      {"search foo |", true, "You must follow a pipe ('|') with a command., while parsing query:\"search foo |\""},
      {"[search foo]", true,
       "Subsearches are only valid as arguments to commands, while parsing query:\"[search foo]\""},
      {"search a ] b", true, "Mismatched ']', while parsing query:\"search a ] b\""},
      {"foo", true, "Unknown search operation: 'foo'"},
      {"search x | FOO bar", true, "Unknown search operation: 'foo'"},
      {"prestats count", false, "Unknown search operation: 'prestats'"},
      {"search [nosuch x]", true, "Unknown search operation: 'nosuch'"},
  };
  for (const Case& c : cases) EXPECT_EQ(parseError(c.in, c.internal), c.msg) << c.in;
}

TEST_F(SearchParserTest, LiteralSearchAndSubsearchText) {
  std::unique_ptr<SearchProcessor> p(SearchParser::parse("search x [search y | head 2] | head", true));
  EXPECT_EQ(p->getLitSearch(), "search x [search y | head 2] | head");
  auto* pl = static_cast<SearchPipeline*>(p.get());
  SearchProcessor* first = pl->getProcessors().front();
  ASSERT_EQ(first->getArguments().size(), 2u);
  auto* sub = static_cast<ProcessorArg*>(first->getArguments()[1])->getProcessor();
  EXPECT_EQ(sub->getLitSearch(), "search y | head 2");
}

TEST(GroupQuotes, Runs) {
  struct Case {
    const char* in;
    std::vector<Str> runs;
  } cases[] = {
      {"a b", {"a b"}},
      {"a \"b c\" d", {"a ", "\"b c\"", " d"}},
      {"\"x\"", {"", "\"x\"", ""}},
      {"a\\\"b", {"a\\\"b"}},
      {"\"open", {"", "open"}},
      {"\"a\\\"b\"", {"", "\"a\\\"b\"", ""}},
  };
  for (const Case& c : cases) {
    std::vector<Str> runs;
    SearchParser::_groupQuotes(c.in, runs);
    EXPECT_EQ(runs, c.runs) << c.in;
  }
}

TEST(SetFunctionName, BlankOrBarEndsName) {
  struct Case {
    const char* in;
    const char* name;
    const char* rest;
  } cases[] = {
      {"  stats count  ", "stats", "count"},
      {"head|tail", "head", "|tail"},
      {"head 1|tail", "head", "1|tail"},
      {"|x", "", "|x"},
      {"single", "single", ""},
      {"a\tb c", "a\tb", "c"},
  };
  for (const Case& c : cases) {
    Str text = c.in, name;
    SearchParser::_setFunctionName(text, name);
    EXPECT_EQ(name, c.name) << c.in;
    EXPECT_EQ(text, c.rest) << c.in;
  }
}

}  // namespace
