// GetHelp ("helpGetter"): "GET help::<keyword>" writes the help of the
// modules that keyword reaches into the result document, one element per
// control that knows it:
//   <help keyword="starttime" control="SEARCH" module="time"
//         required="starttime" optional="timeformat">text</help>
// "help::all" (or an empty keyword) writes one for every keyword of every
// control. A keyword no control knows writes <help keyword="x"></help> and
// adds "Unable to find help for x" to the INFO messages.
//
// Runs in "GET", on the thread running the query, while the document is open.
#pragma once

#include "pipeline/indexer/Module.h"

class GetHelp : public Module {
 public:
  using Module::Module;
  void runModule() override;
};
