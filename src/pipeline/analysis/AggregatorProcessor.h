// AggregatorProcessor: the pipeline step that turns lines into events. It
// keeps one Aggregator per stream (keyed by the record's `_conf` path),
// feeds it each line, and gives each finished event its time and date
// terms. A record without a source passes through untouched.
//
// Results of execute(): 10000 with `record` replaced by a finished event;
// 10001 while an event is still growing (the line was taken in) or when a
// record could not be handled. A `_done` record flushes and forgets its
// stream; the flushed event carries `_done` on.
//
// Time of an event: the stamp in its text; else the parser's last stamp of
// the stream; else the `_time` its input gave; else the clock.
//
// Ownership: owns its Aggregators. Threads: its pipeline's thread only.
#pragma once

#include <map>
#include <memory>

#include "framework/PluginFactory.h"
#include "framework/Processor.h"
#include "pipeline/analysis/Aggregator.h"

class AggregatorProcessor : public Processor {
 public:
  AggregatorProcessor();
  ~AggregatorProcessor() override;
  static const PluginFactory& factory();

  // Reads nothing: every setting comes per stream from props.
  void init(const xml::node& config, const xml::node& global) override;
  int execute(std::shared_ptr<PipelineData>& record) override;

  // Gives `record` its time (`_time`) and, when the stream indexes date
  // elements, its date terms in `_meta`.
  static void putTimestamp(Aggregator& aggregator, PipelineData& record);
  // The time putTimestamp finds for an event's text `raw`, given the text of
  // the time its input gave (`given`, decimal seconds; null when none):
  // true with the stated time in `seconds`, false when the text states none
  // the index can hold. When the stream indexes date elements, the date
  // terms (or "timestamp::none") are appended to `meta`.
  static bool eventTime(Aggregator& aggregator, const StrSegment& raw, const char* given, int64_t& seconds,
                        Str& meta);

  size_t streamCount() const { return _aggregators.size(); }

 private:
  std::map<Str, std::unique_ptr<Aggregator>> _aggregators;
};
