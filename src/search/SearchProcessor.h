// SearchProcessor: the base of every search command.
//
// A command's life within a pipeline:
//   1. made by SearchFactory; the parser adds raw StringArgs and ProcessorArgs;
//   2. evalArgs(info), once: runs subsearches, then parseArguments() cuts the
//      argument text into words;
//   3. processArguments(), once: the command reads its options with the
//      getOption / getNext* readers and refuses leftovers (refuseLeftovers());
//   4. execute_dispatch(results, info) once per run of the pipeline; it picks
//      the calling convention from isStreamable() / isTransforming():
//        streamable=F transforming=F : execute() once
//        streamable=T transforming=F : execute() once per spill file (or once)
//        streamable=F transforming=T : execute_transform(results, results)
//        streamable=T transforming=T : as the second row (the pre... forms)
//      execute_transform feeds every chunk to execute_input() and then calls
//      execute_output() once, so a transforming command keeps its state in
//      its own members between the two.
//   5. destroyed with its pipeline.
//
// Capability answers for the dispatcher (all const, no side effects):
//   isStreamable()              true  : works on any slice of the rows
//   isTransforming()            false : reduces all rows into new ones
//   isStreamingOpRequired()     false : puts getStreamingOp() into the
//                                       streaming part even after the split
//   getStreamingOp()            ""    : search text of the map half
//   handlesSearchResultsArguments() false : subsearch rows come as ResultsArg
//   acceptsPartialResults()     true
//
// Ownership: the command owns its ArgList members. The caller owns the
// SearchResults passed to execute*; SearchResultsInfo is shared by all the
// commands of a pipeline. A command and its pipeline belong to one thread.
#pragma once

#include <list>
#include <set>
#include <vector>

#include "search/Arg.h"
#include "search/StringArg.h"
#include "util/Exceptions.h"
#include "util/Str.h"

class Logger;
class SearchResults;
class SearchResultsInfo;

class SearchProcessor {
 public:
  // REQUIRES: name in lower case.
  explicit SearchProcessor(const Str& name);
  virtual ~SearchProcessor();
  SearchProcessor(const SearchProcessor&) = delete;
  SearchProcessor& operator=(const SearchProcessor&) = delete;

  virtual const Str& getName() const { return name; }
  // Replaces the list; the old members are not deleted (the caller decides).
  virtual void setArguments(const ArgList& a) { args = a; }
  // Takes ownership of the argument.
  virtual void addArgument(Arg* a) { args.push_back(a); }
  virtual const ArgList& getArguments() const { return args; }

  virtual bool isStreamable() const { return true; }
  virtual bool isTransforming() const { return false; }
  virtual bool isStreamingOpRequired() const { return false; }
  virtual bool handlesSearchResultsArguments() const { return false; }
  virtual Str getStreamingOp() const { return Str(); }

  // Replaces each unparsed StringArg by one StringArg per token (blanks and
  // commas separate; quotes group). Commands that need their text whole
  // override this to do nothing.
  virtual void parseArguments();
  // Runs the subsearches among the arguments, once, then parseArguments().
  virtual void evalArgs(SearchResultsInfo& info);
  // Reads the options; throws SearchProcessorException on bad ones.
  virtual void processArguments() {}

  // Option readers: each finds the option `optName` (compared in lower case)
  // among unconsumed StringArgs, consumes it and stores the parsed value.
  // Returns false (out untouched) if absent. Throws on a repeat ("Option '%s'
  // specified more than once") or a bad value ("Invalid <kind> value for
  // option '%s'"). All reader failures are SearchProcessorException texts
  // prefixed "Error in '<name>' command: " (see searchError below).
  virtual bool getOption(const Str& optName, Str& out);
  virtual bool getOption(const Str& optName, double& out);
  virtual bool getOption(const Str& optName, unsigned long& out);  // non-negative
  virtual bool getOption(const Str& optName, long& out);
  virtual bool getOption(const Str& optName, int& out);
  virtual bool getOption(const Str& optName, bool& out);

  // The next unconsumed StringArg's text, option or not. Returns its
  // position, or the argument count if there is none.
  virtual size_t getNextArg(Str& out, bool consume);
  // Position of the next unconsumed StringArg, or the argument count.
  virtual size_t nextArgIndex();
  // As getNextArg, but an option there fails with "Invalid option '%s'".
  virtual size_t getNextNonOpt(Str& out, bool consume);
  // True (and consumed) if the next unconsumed argument is the non-option
  // word `word`, ignoring case.
  virtual bool isNextKeyword(const Str& word);
  // Field names up to the stop word; empty or repeated names fail.
  virtual bool getFieldSet(std::set<Str>& out, Str stopWord = Str(), bool ignoreCase = false);
  // Collects and consumes the remaining string arguments up to (not
  // including) stopWord. Options are left unless allowOptions. Answers true
  // when the stop word was reached, else whether options were skipped.
  virtual bool getNextArgs(std::vector<Str>& out, bool allowOptions, Str stopWord = Str(),
                           bool ignoreCase = false);
  virtual bool hasUnusedArg() const;

  virtual void execute_dispatch(SearchResults& results, SearchResultsInfo& info);
  // REQUIRES: isTransforming().
  virtual void execute_transform(SearchResults& in, SearchResults& out, SearchResultsInfo& info);
  // A command overrides the forms it uses; the base forms assert.
  virtual void execute(SearchResults& results, SearchResultsInfo& info);
  virtual void execute_input(SearchResults& results, SearchResultsInfo& info);
  virtual void execute_output(SearchResults& results, SearchResultsInfo& info);

  // How many rows of its input, from the first, this command looks at; -1
  // when it may look at all of them. A command that keeps only the first N
  // rows in order (`head N`) answers N, which lets the pipeline ask the
  // command before it for no more than that.
  // REQUIRES: processArguments() has run.
  virtual long inputRowLimit() const { return -1; }

  // A producer (the first command of a search) that can give the output of
  // the map commands `ops` by itself, without a row per event, answers true
  // and from then on gives that output from execute() in their place; the
  // caller then runs none of them. `ops` stay owned by the caller and must
  // outlive this command's use of them.
  // REQUIRES: evalArgs() and processArguments() have run on all.
  virtual bool absorbMap(const std::list<SearchProcessor*>& ops) {
    (void)ops;
    return false;
  }

  virtual const Str& getSearchString() const { return searchString; }
  virtual bool acceptsPartialResults() const { return true; }
  // "Processor: <name>[ (no partial results)]\n" then the arguments at
  // indent + 1.
  virtual Str toString(unsigned int indent) const;
  virtual const Str& getSearch() const { return search; }
  virtual void appendSearch(const Str& s) { search += s; }
  virtual const Str& getLitSearch() const { return litSearch; }
  virtual void setLitSearch(const Str& s) { litSearch = s; }

  // Throws "Invalid argument: '%s'" naming the first unconsumed string
  // argument, if any. The usual last line of processArguments().
  void refuseLeftovers();

  // Cuts text into tokens at any of `delimiters` outside double quotes.
  // quoted[i] tells whether token i was entirely quoted. Returns false if a
  // quote is still open at the end.
  static bool tokenizeString(const Str& text, std::vector<Str>& tokens, std::vector<bool>& quoted,
                             const char* delimiters);

 protected:
  // The StringArg at position i if it is one and not consumed, else null.
  StringArg* unconsumedString(size_t i) const;

  Str name;
  ArgList args;
  bool mapHalf = false;  // run as the map half of a split command
  Str searchString;
  bool argsEvaluated = false;
  Str search;
  Str litSearch;
};

// The exception forms that log. `fmt` is a printf format.
//  - searchError(logger, ...): "Error in '<logger name>': <text>" (the text
//    alone for a logger without a name); logged at error level.
//  - searchError(proc, logger, ...): "Error in '<name>' command: <text>" (the
//    text alone for a null processor); logged at error level.
// Use: throw searchError(this, gLogger, "Invalid argument: '%s'", a.c_str());
SearchProcessorException searchError(Logger& logger, const char* fmt, ...)
    __attribute__((format(printf, 2, 3)));
SearchProcessorException searchError(const SearchProcessor* proc, Logger& logger, const char* fmt,
                                     ...) __attribute__((format(printf, 3, 4)));
