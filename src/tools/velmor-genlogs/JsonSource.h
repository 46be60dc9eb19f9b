// JsonSource: structured application events, one JSON object per line:
//   {"time":"2026-11-16T08:12:03.123Z","level":"info","service":"payments",
//    "event":"payment_authorized","user":"carol","order_id":48213,
//    "amount":42.5,"latency_ms":87,"trace_id":"...","msg":"..."}
// Messages may contain escaped quotes and backslashes, as real ones do.
#pragma once

#include "EventSource.h"

class JsonSource : public EventSource {
 public:
  explicit JsonSource(const SourceContext& context) : EventSource(context) {}
  void emit(int64_t millis, LineBuffer& out, Rng& rng) override;
  double typicalBytes() const override { return 260; }
};
