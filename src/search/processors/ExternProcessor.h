// ExternProcessor: runs a search script, an external program that reads rows
// as CSV on its standard input and writes rows as CSV on its standard output.
//
//   script <language> <script> [maxinputs=<n>] [<argument>...]   (also `run`)
//   <script> [maxinputs=<n>] [<argument>...]     a name no command has, or
//   script:<script> ...                          the same, explicitly
//
// Scripts live in the script directories, searched in order:
// <VELMOR_HOME>/etc/bundles/local/searchscripts, then
// <VELMOR_HOME>/etc/searchscripts. The language comes from the suffix:
// ".py" is python (run with python3), ".pl" perl. The script name may not
// contain "/" or "..". Arguments other than maxinputs are handed to the
// script as they were written.
//
// Each call sends at most `maxinputs` rows (default 10000; counted over all
// calls, so over every chunk of a spilled set) as CSV, without "__" fields,
// and the rows read back from the script replace the rows of the call. The
// process starts through the process runner with its standard input, output
// and error on temporary files "run_script_<n>_in.csv", "..._out.csv" and
// "..._err.txt" of <VELMOR_HOME>/var/run/velmor, removed afterwards. A
// script that does not exit with 0 fails the search with the last line it
// wrote to its standard error.
//
// Streamable: each chunk is handled on its own. One thread at a time.
#pragma once

#include <vector>

#include "search/SearchProcessor.h"
#include "util/Pathname.h"

class ExternProcessor : public SearchProcessor {
 public:
  static constexpr unsigned long kDefaultMaxInputs = 10000;

  // `scriptName` empty: the name and language come from the arguments
  // (`script` and `run`).
  ExternProcessor(const Str& name, const Str& scriptName, const Str& lang, unsigned long maxInputs);
  static SearchProcessor* create(const Str& name);
  // For a name that no command has: an ExternProcessor named
  // "script:<name>" when a script of that name exists, else null.
  static SearchProcessor* createForScriptName(const Str& name);

  // Is there a script of that name? Sets lang ("python" or "perl").
  static bool isExternProcessor(const Str& name, Str& lang);
  // The script's path and language; false when it is not found.
  static bool findScript(const Str& name, Pathname& path, Str& lang);
  static std::vector<Pathname> scriptDirs();

  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

 private:
  // Runs the script over `in` (a CSV file) into `out`; throws on failure.
  void runScript(const Pathname& in, const Pathname& out, const Pathname& err);

  Str _scriptName;
  Str _lang;
  Pathname _path;
  std::vector<Str> _scriptArgs;
  unsigned long _maxInputs;
  unsigned long _sent = 0;
};
