// SearchCommands: puts the commands of this library into the factory's
// built-in table. Call registerAll() once at start-up (tests call it too);
// calling it again is harmless, since a later registration replaces the
// earlier one. Any thread, but normally the main thread before searches.
#pragma once

class SearchCommands {
 public:
  static void registerAll();
};
