// OutputVelmorUI22: the result document of "velmorui::2.2" (see
// OutputVelmorUI for the arguments, segments and document order).
//
//   <results type="events" c="<events written>" tc="<ids found>">
//   \t<r cd="<bucket>:<address>"[ rel="<score>"] lines="<line count>">TEXT<meta>META</meta></r>
//   \t<r cd="...">Unable to find this event<meta></meta></r>      (an event that could not be read)
//   </results>
//   (a blank line)
// TEXT is the event text with its <sg> segments; META the <sg> elements of
// time, host, source and source type, each followed by a blank.
//
// A list (hosts, sources, ...):
//   <results type="hosts" c="<rows written>" tc="<rows in the whole list>">
//   \t<cols c="<event count>" cd="<code>">WORD</cols>
//   </results>
//   (a blank line)
//
// Threads: the thread running the query.
#pragma once

#include "pipeline/indexer/OutputVelmorUI.h"

class OutputVelmorUI22 : public OutputVelmorUI {
 public:
  using OutputVelmorUI::OutputVelmorUI;
  // Writes the 2.2 document whatever "velmorui" says.
  void runModule() override { write(); }

 protected:
  void writeEvents(const std::vector<std::shared_ptr<PipelineData>>& events) override;
  void writeList(const Str& kind, const std::vector<std::shared_ptr<PipelineData>>& rows) override;
};
