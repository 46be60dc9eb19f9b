// StreamWorkers: the threads of a stream handler that gives each streamed
// request a worker of its own (a search streamed out, a live tail). The
// list owns its workers; a finished worker is joined and freed at the next
// add(), and stopAll() asks every worker to stop and joins it.
//
// DESIGN: the server's loop thread calls add() from handleStream; workers
// end on their own thread and only say so through finished(), so reaping
// happens on the next request rather than from the worker itself (a thread
// cannot join itself). stopAll() takes the whole list out under the mutex
// and stops and joins outside it, so a worker that is ending never waits
// for the list.
//
// W must offer: bool finished() const; void join(); and the stop action
// passed to stopAll().
// Threads: any thread; one mutex guards the list.
#pragma once

#include <list>
#include <memory>

#include "util/Mutex.h"

template <class W>
class StreamWorkers {
 public:
  ~StreamWorkers() = default;

  // Joins the finished workers, then takes `w` in. Answers `w`, owned here.
  W* add(std::unique_ptr<W> w) {
    reapFinished();
    W* raw = w.get();
    ScopedLock l(_mutex);
    _workers.push_back(std::move(w));
    return raw;
  }

  // Calls `stop` on every worker, then joins them all; the list is empty after.
  template <class Stop>
  void stopAll(Stop stop) {
    std::list<std::unique_ptr<W>> all;
    {
      ScopedLock l(_mutex);
      all.swap(_workers);
    }
    for (auto& w : all) stop(*w);
    for (auto& w : all) w->join();
  }

  // Workers held (finished ones not yet reaped included).
  size_t size() const {
    ScopedLock l(_mutex);
    return _workers.size();
  }

  // Workers still at work.
  size_t running() const {
    ScopedLock l(_mutex);
    size_t n = 0;
    for (const auto& w : _workers) n += w->finished() ? 0 : 1;
    return n;
  }

 private:
  void reapFinished() {
    std::list<std::unique_ptr<W>> done;
    {
      ScopedLock l(_mutex);
      for (auto it = _workers.begin(); it != _workers.end();) {
        if ((*it)->finished()) {
          done.push_back(std::move(*it));
          it = _workers.erase(it);
        } else {
          ++it;
        }
      }
    }
    for (auto& w : done) w->join();
  }

  mutable Mutex _mutex;
  std::list<std::unique_ptr<W>> _workers;
};
