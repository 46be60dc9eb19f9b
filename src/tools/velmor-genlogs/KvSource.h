// KvSource: an application log of key=value pairs after an ISO-8601 time:
//   2026-11-16T08:12:03.123Z level=INFO component=orders user=alice action=create
//     order_id=48213 status=ok duration_ms=87 request_id=5f2a9c1e
// (one line). Warnings and errors carry a quoted, human-readable `error`.
#pragma once

#include "EventSource.h"

class KvSource : public EventSource {
 public:
  explicit KvSource(const SourceContext& context) : EventSource(context) {}
  void emit(int64_t millis, LineBuffer& out, Rng& rng) override;
  double typicalBytes() const override { return 170; }
};
