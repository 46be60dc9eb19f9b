// LinePassThroughProcessor: makes one event of every line, and gives it the
// time its text starts with. It stands where line merging will stand, so
// that followed files become searchable now: a line with a stamp that
// LeadingTime knows takes that time; a line without one (a stack trace
// line, a wrapped message) takes the time of the stamped line above it on
// the same channel, and before any stamp, the time it arrived.
//
// Records that already carry a time (the file tracker's seek records, events
// injected by management calls) pass untouched. A `_done` record ends its
// channel: the remembered stamp is forgotten and the record is dropped, as
// nothing after this step reads it.
//
// Threads: its pipeline's thread only.
#pragma once

#include <cstdint>
#include <unordered_map>

#include "framework/PluginFactory.h"
#include "framework/Processor.h"
#include "pipeline/analysis/LeadingTime.h"

class LinePassThroughProcessor : public Processor {
 public:
  LinePassThroughProcessor();
  static const PluginFactory& factory();

  void init(const xml::node& config, const xml::node& global) override;
  int execute(std::shared_ptr<PipelineData>& record) override;

  // Channels remembered at most; past it the table starts again empty.
  static constexpr size_t kMaxChannels = 100000;

 private:
  LeadingTime _stamps;
  int64_t _referenceSet;  // when _stamps' reference year was fixed
  std::unordered_map<Str, int64_t> _lastStamp;  // channel -> last stamp
  char _timeText[24];
};
