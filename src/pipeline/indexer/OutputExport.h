// OutputExport: the "OUTPUT" module "exportto::<file>": writes the fetched
// events (Query::resultMap()["events"], in their order) to a text file, one
// line per event:
//
//   "\t<time>\t<text>\n"
//
// <time> is the event time in decimal seconds; in <text> a backslash is
// written "\\", a newline "\n", a return "\r" and a tab "\t", so that every
// event is one line and the text can be restored. Events that could not be
// read are left out. The file is replaced; its path is taken as given
// (relative to the working directory of the process). A file that cannot be
// written fails with "Cannot open for writing <path>".
//
// Threads: the thread running the query.
#pragma once

#include "pipeline/indexer/Module.h"

class OutputExport : public Module {
 public:
  using Module::Module;
  // Throws QueryException.
  void runModule() override;
};
