// The command line of velmor-index as a table: words in, the parsed value or
// the usage message out.
#include "tools/velmor-index/IndexToolArgs.h"

#include <gtest/gtest.h>

#include <sstream>
#include <vector>

namespace {

IndexToolArgs parseWords(const std::string& line) {
  std::istringstream in(line);
  std::vector<std::string> words{"velmor-index"};
  for (std::string w; in >> w;) words.push_back(w == "''" ? "" : w);
  std::vector<const char*> argv;
  for (auto& w : words) argv.push_back(w.c_str());
  return IndexToolArgs::parse(int(argv.size()), argv.data());
}

// A compact rendering of what was parsed.
std::string render(const IndexToolArgs& a) {
  static const char* kNames[] = {"add", "search", "roll", "info", "query", "help"};
  std::string s = std::string(kNames[a.command]) + " " + a.index;
  for (auto& f : a.files) s += " f:" + f;
  for (auto& t : a.terms) s += " t:" + t;
  if (!a.host.empty()) s += " host=" + a.host;
  if (!a.sourceType.empty()) s += " st=" + a.sourceType;
  if (a.syncEvery != 200000) s += " sync=" + std::to_string(a.syncEvery);
  if (a.earliest != INT32_MIN) s += " e=" + std::to_string(a.earliest);
  if (a.latest != INT32_MAX) s += " l=" + std::to_string(a.latest);
  if (a.count != 100) s += " n=" + std::to_string(a.count);
  if (!a.queryText.empty()) s += " q:" + a.queryText;
  if (a.user != "admin") s += " user=" + a.user;
  if (!a.queryId.empty()) s += " id=" + a.queryId;
  return s;
}

TEST(IndexToolArgsTest, Table) {
  struct Row {
    const char* words;
    const char* expected;  // rendering, or "!" and the error text
  };
  const Row rows[] = {
      {"add main a.log", "add main f:a.log"},
      {"add main a.log b.log --host web1 --sourcetype=syslog", "add main f:a.log f:b.log host=web1 st=syslog"},
      {"add --host h main a.log", "add main f:a.log host=h"},
      {"add main -- --odd-name.log", "add main f:--odd-name.log"},
      {"add main a.log --sync-every 5000", "add main f:a.log sync=5000"},
      {"search main error", "search main t:error"},
      {"search main", "search main"},
      {"search main GET status=500 --count 5 --earliest 100 --latest=2026-11-23",
       "search main t:GET t:status=500 e=100 l=1795392000 n=5"},
      {"roll main", "roll main"},
      {"info _internal", "info _internal"},
      {"query SEARCH", "query  q:SEARCH"},
      {"query --user bob --id=q1 SEARCH", "query  q:SEARCH user=bob id=q1"},
      {"query", "!query needs the query text as one argument"},
      {"query SEARCH GET", "!query needs the query text as one argument"},
      {"query ''", "!the query text is empty"},
      {"query x --id ../etc", "!--id needs a query id without '/', '\\' or a leading '.'"},
      {"query x --count 3", "!--count does not apply to query"},
      {"search main x --user u", "!--user does not apply to search"},
      {"--help", "help "},
      {"", "!no command given"},
      {"frob main", "!unknown command 'frob'"},
      {"add", "!add needs an index name"},
      {"add main", "!add needs at least one file"},
      {"add '' a.log", "!the index name is empty"},
      {"roll main extra", "!roll takes only an index name, not 'extra'"},
      {"add main a.log --count 3", "!--count does not apply to add"},
      {"search main x --host h", "!--host does not apply to search"},
      {"search main x --color red", "!unknown option --color"},
      {"search main x --count", "!--count needs a value"},
      {"search main x --count 0", "!--count needs a positive number, not '0'"},
      {"search main x --count -3", "!--count needs a positive number, not '-3'"},
      {"add main a.log --sync-every 1e3", "!--sync-every needs a positive number, not '1e3'"},
      {"search main x --earliest soon",
       "!--earliest needs seconds since 1970 or a date like 2026-11-23 or 2026-11-23T10:00:00Z, not 'soon'"},
      {"search main x --earliest 99999999999",
       "!--earliest needs seconds since 1970 or a date like 2026-11-23 or 2026-11-23T10:00:00Z, not "
       "'99999999999'"},
      {"search main x --earliest 200 --latest 100", "!--earliest is after --latest"},
      {"add main a.log --host=", "!--host needs a value"},
  };
  for (const Row& r : rows) {
    std::string got;
    try {
      got = render(parseWords(r.words));
    } catch (const IndexToolArgs::UsageError& e) {
      got = std::string("!") + e.what();
    }
    EXPECT_EQ(got, r.expected) << r.words;
  }
}

}  // namespace
