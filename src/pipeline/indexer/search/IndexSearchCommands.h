// IndexSearchCommands: the search commands that read the indexes, "search"
// (SearchReplacementProcessor), "newsearch" (SearchOperator), "file"
// (FileOperator), "surrounding" (SurroundingDataOperator) and "typer"
// (TyperOperator).
//
// install() hands registerAll to IndexProcessor, which registers them with
// SearchFactory during IndexProcessor::init, after the metadata commands.
// Call install() on the main thread before init.
#pragma once

class IndexSearchCommands {
 public:
  static void install();
  static void registerAll();
};
