// Processors for the pipeline tests, resolved by name through testLookup():
//
//   source     createPipelineData gives records "1".."<count>" in _raw
//   tag        appends its processor name to the key "trail"
//   recorder   copies "<_raw>|<trail>" into the sink named by <sink>
//   drop / exit / throwruntime / throwother
//              act on the record whose _raw equals <on> (eDrop, eExit,
//              std::runtime_error, std::logic_error); pass the rest
//   soap       answers invokeSOAPCall with "soap:<params text>"
//   skipproc / skippipe / badinit / fatal
//              init throws SkipThisProcessorException /
//              SkipThisPipelineException / PluginException / a fatal one
//   echo       init keeps the text of its config and global config
//
// Sinks are process-wide, by name, under a mutex; waitFor() waits (bounded)
// for a count. Header only.
#pragma once

#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "framework/PluginFactory.h"
#include "framework/Processor.h"
#include "loaderinfo/XMLAndStringUtil.h"
#include "util/MainThread.h"

namespace testproc {

inline void ensureMainThread() {
  if (MainThread::instance() == nullptr) new MainThread();
}

class Sink {
 public:
  static Sink& get(const std::string& name) {
    static std::mutex m;
    static std::map<std::string, std::unique_ptr<Sink>> all;
    std::lock_guard<std::mutex> l(m);
    std::unique_ptr<Sink>& s = all[name];
    if (!s) s = std::make_unique<Sink>();
    return *s;
  }
  void add(const std::string& v) {
    std::lock_guard<std::mutex> l(_m);
    _items.push_back(v);
    _cv.notify_all();
  }
  std::vector<std::string> items() {
    std::lock_guard<std::mutex> l(_m);
    return _items;
  }
  void clear() {
    std::lock_guard<std::mutex> l(_m);
    _items.clear();
  }
  // Waits, at most a generous bound, until `n` items arrived.
  bool waitFor(size_t n) {
    std::unique_lock<std::mutex> l(_m);
    return _cv.wait_for(l, std::chrono::seconds(30), [&] { return _items.size() >= n; });
  }

 private:
  std::mutex _m;
  std::condition_variable _cv;
  std::vector<std::string> _items;
};

// Polls `cond` until true or a generous bound passes.
template <class F>
bool eventually(F cond) {
  for (int i = 0; i < 3000; ++i) {
    if (cond()) return true;
    usleep(10000);
  }
  return cond();
}

inline std::string setting(const xml::node& config, const char* name) {
  Str v;
  XMLAndStringUtil::fetchValue(config, name, v);
  return v;
}

inline std::string raw(const std::shared_ptr<PipelineData>& r) { return r->getStr(PipelineData::rawKey); }

class Source : public Processor {
 public:
  void init(const xml::node& config, const xml::node&) override {
    _count = std::stoi(setting(config, "count"));
  }
  std::shared_ptr<PipelineData> createPipelineData() override {
    if (_next > _count) return nullptr;
    auto r = std::make_shared<PipelineData>();
    r->put(PipelineData::rawKey, Str(std::to_string(_next++)));
    return r;
  }
  int execute(std::shared_ptr<PipelineData>&) override { return eOk; }

 private:
  int _count = 0;
  int _next = 1;
};

class Tag : public Processor {
 public:
  void init(const xml::node&, const xml::node&) override {}
  int execute(std::shared_ptr<PipelineData>& r) override {
    r->append("trail", getName());
    return eOk;
  }
};

class Recorder : public Processor {
 public:
  void init(const xml::node& config, const xml::node&) override { _sink = setting(config, "sink"); }
  int execute(std::shared_ptr<PipelineData>& r) override {
    Sink::get(_sink).add(raw(r) + "|" + r->getStr("trail"));
    return eOk;
  }

 private:
  std::string _sink;
};

// Acts on the record whose _raw equals <on>.
class OnValue : public Processor {
 public:
  void init(const xml::node& config, const xml::node&) override { _on = setting(config, "on"); }
  int execute(std::shared_ptr<PipelineData>& r) override {
    if (raw(r) != _on) return eOk;
    return act();
  }
  virtual int act() = 0;

 private:
  std::string _on;
};
class Drop : public OnValue {
 public:
  int act() override { return eDrop; }
};
class Exit : public OnValue {
 public:
  int act() override { return eExit; }
};
class ThrowRuntime : public OnValue {
 public:
  int act() override { throw std::runtime_error("broken record"); }
};
class ThrowOther : public OnValue {
 public:
  int act() override { throw std::logic_error("odd record"); }
};

class Soap : public Processor {
 public:
  void init(const xml::node&, const xml::node&) override {}
  int execute(std::shared_ptr<PipelineData>&) override { return eOk; }
  void invokeSOAPCall(const xml::node& params, Str& out) override {
    std::string arg;
    params.child_content("arg", arg);
    out = "soap:" + arg;
  }
};

class SkipProc : public Processor {
 public:
  void init(const xml::node&, const xml::node&) override { throw SkipThisProcessorException("not here"); }
  int execute(std::shared_ptr<PipelineData>&) override { return eOk; }
};
class SkipPipe : public Processor {
 public:
  void init(const xml::node&, const xml::node&) override { throw SkipThisPipelineException("not this pipeline"); }
  int execute(std::shared_ptr<PipelineData>&) override { return eOk; }
};
class BadInit : public Processor {
 public:
  void init(const xml::node&, const xml::node&) override { throw PluginException("bad settings"); }
  int execute(std::shared_ptr<PipelineData>&) override { return eOk; }
};
class Fatal : public Processor {
 public:
  void init(const xml::node&, const xml::node&) override { throw PluginException("cannot go on", true); }
  int execute(std::shared_ptr<PipelineData>&) override { return eOk; }
};

// Remembers what init() saw, for the last instance made.
struct EchoSeen {
  std::string name, config, global;
};
inline EchoSeen& echoSeen() {
  static EchoSeen s;
  return s;
}
class Echo : public Processor {
 public:
  void init(const xml::node& config, const xml::node& global) override {
    echoSeen().name = getName();
    echoSeen().config = setting(config, "value");
    echoSeen().global = global.empty() ? "<none>" : setting(global, "value");
  }
  int execute(std::shared_ptr<PipelineData>&) override { return eOk; }
};

inline const PluginFactory* testLookup(const char* name) {
  static SimplePluginFactory<Source> source("source");
  static SimplePluginFactory<Tag> tag("tag");
  static SimplePluginFactory<Recorder> recorder("recorder");
  static SimplePluginFactory<Drop> drop("drop");
  static SimplePluginFactory<Exit> exit("exit");
  static SimplePluginFactory<ThrowRuntime> throwRuntime("throwruntime");
  static SimplePluginFactory<ThrowOther> throwOther("throwother");
  static SimplePluginFactory<Soap> soap("soap");
  static SimplePluginFactory<SkipProc> skipProc("skipproc");
  static SimplePluginFactory<SkipPipe> skipPipe("skippipe");
  static SimplePluginFactory<BadInit> badInit("badinit");
  static SimplePluginFactory<Fatal> fatal("fatal");
  static SimplePluginFactory<Echo> echo("echo");
  static const PluginFactory* all[] = {&source, &tag,     &recorder, &drop,    &exit,  &throwRuntime, &throwOther,
                                       &soap,   &skipProc, &skipPipe, &badInit, &fatal, &echo};
  for (const PluginFactory* f : all) {
    if (f->matchName(name)) return f;
  }
  return nullptr;
}

}  // namespace testproc
