// QueryRunner: one thread of a query over several buckets. It runs the
// function it was given (which takes buckets off a shared list and queries
// each, keeping its own answers) and ends.
//
// DESIGN. The caller makes the runners, go()es them and joins them all
// before it merges their answers; it holds the policy's reader lock
// throughout, so the buckets stay listed and open while the runners work.
// The runners themselves take no policy lock.
#pragma once

#include <functional>

#include "util/Thread.h"

class QueryRunner : public Thread {
 public:
  explicit QueryRunner(std::function<void()> work) : Thread("queryrunner"), _work(std::move(work)) {}
  ~QueryRunner() override { joinEvenIfUnstarted(); }
  void main() override { _work(); }

 private:
  std::function<void()> _work;
};
