// JavaSource: the log of a Java service in the usual pattern-layout form,
//   2026-11-16 08:12:03,123 INFO  [http-nio-8080-exec-3] com.example.shop.orders.OrderService - message
// where some errors are followed by a multi-line stack trace: the exception
// line, "\tat ..." frames, optionally "Caused by: ..." with frames of its own
// and a closing "\t... N more".
#pragma once

#include "EventSource.h"

class JavaSource : public EventSource {
 public:
  explicit JavaSource(const SourceContext& context) : EventSource(context) {}
  void emit(int64_t millis, LineBuffer& out, Rng& rng) override;
  double typicalBytes() const override { return 190; }

 private:
  void stackTrace(LineBuffer& out, Rng& rng, uint64_t id);
};
