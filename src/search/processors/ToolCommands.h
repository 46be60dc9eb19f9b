// ToolCommands: puts the search-management commands (cancelps, searchps,
// nopartial, showargs) and the saved-search commands (savedsearch,
// savedvelmor, macro) into the factory's built-in table. Call registerAll()
// once at start-up, beside SearchCommands::registerAll(); repeating it is
// harmless.
#pragma once

class ToolCommands {
 public:
  static void registerAll();
};
