// OutputVelmorUI21: the result document of "velmorui::2.1" (see
// OutputVelmorUI for the arguments, segments and document order). Unlike
// 2.2 its <results> carry no counts and an event's parts are elements:
//
//   <results type="events">
//   \t<result cd="<bucket>:<address>"[ rel="<score>"] lines="<line count>">
//   \t\t<timestamp>TIME</timestamp>
//   \t\t<host>HOST</host>
//   \t\t<source>SOURCE</source>
//   \t\t<sourcetype>SOURCETYPE</sourcetype>
//   \t\t<text>TEXT</text>
//   \t</result>
//   \t<result cd="...">Unable to find this event</result>   (an event that could not be read)
//   </results>
//   (a blank line)
//
// Lists, one element per row, the event count as its text:
//   \t\t<host cd="<code>" name="WORD" >COUNT</host>
//   \t\t<source cd="<code>" name="WORD" >COUNT</source>
//   \t\t<sourcetype cd="<code>" base="WORD" >COUNT</sourcetype>
//   \t\t<type cd="<code>" wob="WORD" >COUNT</type>
//   \t\t<item name="WORD" >COUNT</item>                     (any other list)
// inside <results type="KIND"> ... </results> and a blank line.
//
// Threads: the thread running the query.
#pragma once

#include "pipeline/indexer/OutputVelmorUI.h"

class OutputVelmorUI21 : public OutputVelmorUI {
 public:
  using OutputVelmorUI::OutputVelmorUI;
  // Writes the 2.1 document whatever "velmorui" says.
  void runModule() override { write(); }

 protected:
  void writeEvents(const std::vector<std::shared_ptr<PipelineData>>& events) override;
  void writeList(const Str& kind, const std::vector<std::shared_ptr<PipelineData>>& rows) override;

 private:
  void element(const char* name, const Str& text);
};
