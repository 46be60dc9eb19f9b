// MetricsManager: the process-wide list of named metric callbacks. Each
// callback fills a `metric` (key/value pairs) when asked; collect() asks
// every callback in name order and gives one line per callback,
// "name: key=value, key=value", which the service logs every 30 seconds.
//
// TFunctor is the callback interface; Functor<T> binds an object and one of
// its member functions (void T::fn(metric*)).
//
// Ownership: the manager owns the functors it is given. The object a
// Functor points at must unregister its callback before it goes.
//
// Threads: any thread may register, unregister and collect. The callbacks
// run under the manager's mutex, so once unregisterCallback() has returned
// the callback is not running and never runs again. Lock order: the
// manager's mutex before any lock a callback takes.
#pragma once

#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "util/Mutex.h"
#include "util/Str.h"

// The key/value pairs one callback reports, in the order added.
struct metric {
  std::vector<std::pair<Str, Str>> pairs;

  void add(const Str& key, const Str& value) { pairs.emplace_back(key, value); }
  void add(const Str& key, unsigned long long value);
};

class TFunctor {
 public:
  virtual ~TFunctor() = default;
  virtual void operator()(metric* m) = 0;
};

template <class T>
class Functor : public TFunctor {
 public:
  using Method = void (T::*)(metric*);
  Functor(T* object, Method method) : _object(object), _method(method) {}
  void operator()(metric* m) override { (_object->*_method)(m); }

 private:
  T* _object;
  Method _method;
};

class MetricsManager {
 public:
  static MetricsManager& instance();

  // Takes ownership; replaces a callback already registered under name.
  // Returns the registered functor, which stays valid until it is
  // unregistered or replaced.
  TFunctor* registerCallback(const Str& name, std::unique_ptr<TFunctor> functor);
  // Removes name's callback if it is `which` (any callback when null).
  // True when something was removed.
  bool unregisterCallback(const Str& name, const TFunctor* which = nullptr);
  bool isRegistered(const Str& name) const;

  // One line per callback, in name order: "name: key=value, key=value".
  std::vector<Str> collect();

 private:
  MetricsManager() = default;

  mutable Mutex _mutex;
  std::map<Str, std::unique_ptr<TFunctor>> _callbacks;
};
