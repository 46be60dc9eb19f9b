// SearchFactory: makes the command object for a command name.
//
// Two tables, both keyed by lower-case name:
//  - the registered table, filled at start-up by whoever brings commands
//    (the index side, admin handlers) through registerProcessor(); tried
//    first, so a registration can override a built-in name;
//  - the built-in table, filled by registerBuiltin() (the search commands
//    library does it in SearchCommands::registerAll()).
// An entry marked internal-only is invisible unless allowInternal is true.
// A later registration of a name replaces the earlier one.
//
// All members are static; one mutex guards both tables, so registration at
// start-up and lookups on search threads may overlap.
#pragma once

#include "util/Str.h"

class SearchProcessor;

class SearchFactory {
 public:
  typedef SearchProcessor* (*Factory)(const Str& name);

  // A new command object (owned by the caller). Throws
  // SearchProcessorException "Unknown search operation: '<name>'".
  static SearchProcessor* getProcessor(const Str& name, bool allowInternal);

  static void registerProcessor(const Str& name, Factory factory, bool internalOnly);
  static void registerBuiltin(const Str& name, Factory factory, bool internalOnly);
  // Removes a name from both tables (tests, unloading).
  static void unregister(const Str& name);

  static bool isProcessorRegistered(const Str& name, bool allowInternal);
  // The factory for the name, or null.
  static Factory getMappedProcessor(const Str& name, bool allowInternal);

  // The last resort for a name neither table knows (and for "script:<name>",
  // with the prefix removed): answers a new command or null. The command
  // library installs the external-script lookup here; null removes it.
  typedef SearchProcessor* (*Fallback)(const Str& name);
  static void setFallback(Fallback fallback);
};
