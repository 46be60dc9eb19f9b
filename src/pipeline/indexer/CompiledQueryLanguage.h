// CompiledQueryLanguage: the inner query language of this process ("SEARCH
// ... GET ... OUTPUT ..."): the tables read from the language definition
// file, the compiler that turns a query text into the modules of a Query,
// and the settings every query starts from.
//
// Definition file (XML; element names are literal):
//   <options><useAdvancedQueryNode>bool</useAdvancedQueryNode></options>   optional
//   <controls>                                                             required
//     <control><token>SEARCH|GET|OUTPUT</token>
//       <modules><module>
//         <name>factory name</name>  <helptext>...</helptext>
//         <requiredArgs><arg>kw</arg>...</requiredArgs>
//         <optionalArgs><arg>kw</arg>...</optionalArgs>
//         <defaults><kw>value</kw>...</defaults>
//       </module>...</modules></control>...
//   </controls>
// Each defining keyword of a module (ModuleDefinition) reaches it from the
// query text; every required and optional keyword of a control is accepted
// as "keyword::value" under that control. Defaults serve the typeahead
// (getDefaultForArg) only; the compiler does not apply them.
//
// Compiling a query (compile): the text passes of QueryLanguageParser, then
// tokens are grouped under their control and turned into modules in order:
// every search term is a "_term" module of its own; any other keyword builds
// its module, which takes its further required and optional arguments from
// the first unused pairs of the same control; a "domainFinder" goes to the
// front of "SEARCH", and a default one is added when the query names no
// index. Identical keyword::value pairs within one parenthesis build one
// module. A keyword that only some module takes as an argument, given
// without that module, is "Unrecognized argument". Parse errors are
// QueryParseException with the texts the user sees.
//
// The language is also the DatabaseContainer and QueryCancelChecker of
// every Query: it forwards to the container set by setContainer (the
// IndexProcessor), or to the process container when none was set, and asks
// SearchCancel whether a search was cancelled.
//
// Threads: a process-wide singleton (getInstance, under a class mutex). The
// tables are replaced whole by compileLanguage and read through a snapshot,
// so compile may run in any number of threads at once; the settings are
// guarded by the object's mutex.
#pragma once

#include <memory>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "pipeline/indexer/DatabaseContainer.h"
#include "pipeline/indexer/Module.h"
#include "pipeline/indexer/ModuleDefinition.h"
#include "pipeline/indexer/QueryCancelChecker.h"
#include "util/Mutex.h"
#include "util/Str.h"
#include "util/StrSegment.h"

class Query;

class CompiledQueryLanguage : public DatabaseContainer, public QueryCancelChecker {
 public:
  static CompiledQueryLanguage& getInstance();
  ~CompiledQueryLanguage() override;
  CompiledQueryLanguage(const CompiledQueryLanguage&) = delete;
  CompiledQueryLanguage& operator=(const CompiledQueryLanguage&) = delete;

  // --- DatabaseContainer, forwarded ---------------------------------------------------
  // Null / "main" / nothing when no container is known.
  IPartitionPolicy* getPolicyByDomain(const Str& name) override;
  Str getDefaultDomain() override;
  void enumerateDomains(std::vector<Str>& out) override;
  // 1 - SearchCancel::cont(cancelId).
  int isQueryCancelled(const Str& cancelId) override;

  // The owning container (the IndexProcessor); null falls back to
  // DatabaseContainer::getProcessContainer(). REQUIRES: it outlives its use.
  void setContainer(DatabaseContainer* c);
  DatabaseContainer* getContainer();

  // --- the definition ---------------------------------------------------------------
  // Reads the definition file and replaces the tables. Throws
  // LanguageParseException ("Could not find search language definition at
  // <path>", "Unable to find required <controls> in <path>", "Unknown
  // control '<token>' found", "Unable to find required <x> in <parent>", ...);
  // the old tables stay on failure. Also applies useAdvancedQueryNode.
  void compileLanguage(const Str& path);
  // The same from text; `where` names it in messages.
  void compileLanguageText(const Str& text, const Str& where);
  bool isLoaded();

  // Compiles the query's text into its modules (replacing any it had).
  // expandSavedSearches runs the saved-search pass over the text; without
  // it "savedsearch::" tokens reach their module. wholeStringIsSearch: the
  // text has no control words and is all "SEARCH". Throws QueryParseException.
  void compile(const std::shared_ptr<Query>& query, bool expandSavedSearches, bool wholeStringIsSearch);

  // The default the definition file gives arg under control, or empty.
  Str getDefaultForArg(const Str& control, const Str& arg);
  // The definitions of the modules that take keyword, with their control,
  // in the order "SEARCH", "GET", "OUTPUT" (each control at most once).
  std::vector<std::pair<Str, std::shared_ptr<const ModuleDefinition>>> getHelp(const Str& keyword);
  // Every keyword the control accepts, sorted.
  std::vector<Str> getKeywords(const Str& control);
  // Every factory name the definition file uses, sorted.
  std::vector<Str> getModuleNames();
  static bool isControl(const Str& word);
  bool hasFactory(const Str& name) const { return _factories.count(name) != 0; }

  // --- settings ---------------------------------------------------------------------
  bool getUseAdvancedQuery();
  void setUseAdvancedQuery(bool on);
  // The maxQueryIds setting given to each new query's state machine; 0: off.
  unsigned long getMaxQueryIds();
  void setMaxQueryIds(unsigned long n);

  // Text with & < > " escaped, for the result document.
  static Str xmlEscape(const StrSegment& text);

  // The factory table: every factory name the language may use, with its
  // module class (QueryModuleFactories.cc).
  static const std::vector<std::pair<const char*, ModuleFactory>>& factoryTable();

 private:
  struct ControlTable {
    // Defining keyword -> its module.
    std::unordered_map<Str, std::shared_ptr<const ModuleDefinition>> byKeyword{100};
    // Every required or optional keyword of the control's modules.
    std::unordered_set<Str> known{100};
    std::vector<std::shared_ptr<const ModuleDefinition>> modules;
  };
  struct Tables {
    std::unordered_map<Str, ControlTable> controls{100};
    // "<control>::<arg>" -> default value.
    std::unordered_map<Str, Str> defaults{100};
  };
  using Pair = std::pair<Str, Str>;

  CompiledQueryLanguage();
  std::shared_ptr<const Tables> tables();
  void closeControl(const std::shared_ptr<Query>& query, const Tables& tables, const Str& control,
                    const std::vector<Pair>& pairs);
  std::shared_ptr<Module> makeModule(Query* query, const Str& control, const Str& name,
                                     std::shared_ptr<ModuleArgs> args);

  Mutex _mutex;
  std::shared_ptr<const Tables> _tables;
  std::unordered_map<Str, ModuleFactory> _factories{100};
  DatabaseContainer* _container = nullptr;
  unsigned long _maxQueryIds = 0;
  bool _useAdvancedQuery = true;
};

// Runs one inner query: takes it from the query cache (same query id and
// user, used within 180 seconds: the ids are kept, "GET" and "OUTPUT" run
// again) or makes a new one, compiles and runs it, and writes the result
// document <VELMOR_DB>/searches/<queryId>.xml through a temporary file that
// is renamed into place, so a reader never sees half a document:
//   "<queryResult>\n" <OUTPUT modules> "<performance>..</performance>\n"
//   "<query>..</query>\n" ["<error>..</error>"] "</queryResult>"
// Never throws: a failure is the query's error text (and the document's
// <error>); what the modules wrote before it is dropped, and a failed query
// is not cached. Returns null only when no Query could be made at all (out
// of memory). Any thread may call it.
std::shared_ptr<Query> executeQuery(const Str& text, const Str& user, const Str& queryId, const Str& cancelId,
                                    bool wholeStringIsSearch);
