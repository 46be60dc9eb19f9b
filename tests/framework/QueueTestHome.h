// Shared by the queue tests: a scratch VELMOR_HOME for LoaderInfo (removed
// afterwards), the MainThread every Thread needs, small record helpers, and
// a guard that always ends and joins a helper thread.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>

#include "framework/PipelineData.h"
#include "framework/ProducerConsumerQueue.h"
#include "loaderinfo/LoaderInfo.h"
#include "util/MainThread.h"

namespace queuetest {

class TempHome {
 public:
  TempHome() {
    char tmpl[] = "/tmp/velmor-queue-test-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) abort();
    _path = tmpl;
    LoaderInfo::getInstance().setHomePath(_path);
    if (MainThread::instance() == nullptr) new MainThread();  // lives until exit
  }
  ~TempHome() {
    LoaderInfo::getInstance().setHomePath("");
    if (system(("rm -rf '" + _path + "'").c_str()) != 0) perror("rm");
  }
  const std::string& path() const { return _path; }
  std::string flushFile(const std::string& queue) const { return _path + "/var/lib/velmor/queues/" + queue; }

 private:
  std::string _path;
};

inline ProducerConsumerQueue::Record rec(int n) {
  auto r = std::make_shared<PipelineData>();
  r->put("_raw", "event number " + std::to_string(n));
  r->put("n", std::to_string(n));
  return r;
}

inline int num(const ProducerConsumerQueue::Record& r) { return r ? std::stoi(r->getStr("n")) : -1; }

inline bool fileExists(const std::string& p) { return access(p.c_str(), F_OK) == 0; }

inline std::string readFile(const std::string& p) {
  std::ifstream in(p, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

inline void writeFile(const std::string& p, const std::string& text) {
  std::ofstream out(p, std::ios::binary | std::ios::trunc);
  out << text;
}

// Joins its thread on scope exit; calls `unblock` first so that a thread
// left waiting by a failed expectation still ends (unblock should do
// nothing when the thread has finished).
template <class Unblock>
class JoinGuard {
 public:
  JoinGuard(std::thread t, Unblock unblock) : _t(std::move(t)), _unblock(unblock) {}
  ~JoinGuard() { join(); }
  void join() {
    if (!_t.joinable()) return;
    _unblock();
    _t.join();
  }

 private:
  std::thread _t;
  Unblock _unblock;
};

}  // namespace queuetest
