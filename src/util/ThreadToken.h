// ThreadToken: the identity of a system thread, comparable between threads.
//
// A token is either unset or names one thread. self() gives the caller's.
// Tokens are plain values; any thread may copy and compare them.
#pragma once

#include <pthread.h>

class ThreadToken {
 public:
  ThreadToken() = default;
  static ThreadToken self() {
    ThreadToken t;
    t._tid = pthread_self();
    t._set = true;
    return t;
  }
  bool isSet() const { return _set; }
  void clear() { _set = false; }
  bool operator==(const ThreadToken& o) const {
    if (_set != o._set) return false;
    return !_set || pthread_equal(_tid, o._tid) != 0;
  }
  bool operator!=(const ThreadToken& o) const { return !(*this == o); }

 private:
  pthread_t _tid{};
  bool _set = false;
};
