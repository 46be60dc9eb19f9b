// WritableEvent: one event as DatabasePartitionPolicy::write takes it, as
// non-owning views. It is the write-side form of an ingestion record: a
// later write(PipelineData) reads the record's keys into one of these and
// calls write(const WritableEvent&), so the policy's write path stays one.
//
// Fields, each empty when the record has no such key:
//   raw        the event text; empty or all white space is dropped
//   time       the time key's text, decimal seconds with an optional sign;
//              empty or unreadable: the last time the policy saw, else now
//   host, source, sourceType
//              plain values or already prefixed ("host::web1"); empty values
//              become "host::localhost", "source::unknown" and
//              "sourcetype::unknown1"
//   meta       further blank-separated meta tokens the pipeline set
//              ("tag::x ..."); the policy puts host, source and source type
//              in front of them
//   signature  the event's signature key; appended to the stored meta text
//              with "::", and used as the event's hash when blocks are signed
//   fields     other non-internal keys and values, indexed by value
//   indexTerms extra text segmented like the raw text
//   cleaner    the segmenter of the event's SEGMENTATION; null uses the
//              policy's default segmenter
//   progress   for an event of a followed file, how far into the file it
//              reaches (see FileProgress.h); null for any other event
//
// The caller owns every byte viewed here and keeps it alive for the call.
#pragma once

#include <span>
#include <utility>

#include "util/StrSegment.h"

class GenericCleaner;
struct FileProgress;

struct WritableEvent {
  StrSegment raw;
  StrSegment time;
  StrSegment host;
  StrSegment source;
  StrSegment sourceType;
  StrSegment meta;
  StrSegment signature;
  std::span<const std::pair<StrSegment, StrSegment>> fields;
  StrSegment indexTerms;
  GenericCleaner* cleaner = nullptr;
  const FileProgress* progress = nullptr;
};
