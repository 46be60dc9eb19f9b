// FileCommands: registers the commands that read and write files, render
// rows for output and run external scripts (inputcsv, outputcsv, the
// output renderers, script/run, load/save), and installs the lookup of
// unknown command names among the search scripts.
//
// Called at start-up (through SearchCommands::registerAll); repeated calls
// are harmless.
#pragma once

class FileCommands {
 public:
  static void registerAll();
};
