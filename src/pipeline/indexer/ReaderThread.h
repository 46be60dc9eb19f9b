// ReaderThread: one thread named "readerthread" that reads a slice of a list
// of events back from their buckets, with read contexts of its own (one per
// bucket), so a slice in address order reads each raw file once.
//
// DESIGN. The caller splits the list into contiguous slices, holds the
// policy's reader lock while all threads run, and joins them; each thread
// writes only to the output slots of its own slice.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>

#include "framework/ReadContext.h"
#include "util/Thread.h"

class ReaderThread : public Thread {
 public:
  using Contexts = std::map<uint32_t, std::unique_ptr<ReadContext>>;
  // work(i, contexts) is called for each i in [from, to).
  ReaderThread(std::function<void(size_t, Contexts&)> work, size_t from, size_t to)
      : Thread("readerthread"), _work(std::move(work)), _from(from), _to(to) {}
  ~ReaderThread() override { joinEvenIfUnstarted(); }
  void main() override {
    for (size_t i = _from; i < _to; ++i) _work(i, _contexts);
  }

 private:
  std::function<void(size_t, Contexts&)> _work;
  size_t _from;
  size_t _to;
  Contexts _contexts;
};
