// OutputMagicGraph: the "OUTPUT" module "magicgraph::<n>": writes into the
// result document an HTML colour strip of the event types of the first n
// ids found (default and for a value that is not a positive number:
// kDefaultCells), in result order, so that a page can show at a glance
// where the kinds of events change:
//
//   <magicgraph c="<ids drawn>"><div class="magicgraph">
//   <span style="display:inline-block;width:<2 x run>px;height:16px;background-color:#RRGGBB"
//    title="eventtype <code>: <run> events"></span>...
//   </div></magicgraph>
//
// Neighbouring ids of one type make one run (one span). The colour of a
// type is fixed by its code: code 0 (no type) is grey "#cccccc", any other
// a hue of (code x 47) mod 360 at 65% saturation and 50% lightness. The
// markup is XHTML, so the document stays well-formed XML.
//
// Threads: the thread running the query.
#pragma once

#include <cstdint>

#include "pipeline/indexer/Module.h"

class OutputMagicGraph : public Module {
 public:
  static constexpr unsigned long kDefaultCells = 1000;

  using Module::Module;
  void runModule() override;

  // "#rrggbb" of a type code (see above).
  static Str colourOf(uint32_t type);
};
