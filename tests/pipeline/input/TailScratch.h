// TailScratch: a scratch VELMOR_HOME for tests of the file input: a fresh
// directory under /tmp with etc/bundles/default/inputs.conf written by the
// test, var/run/velmor, and a "logs" directory for the followed files. It
// sets VELMOR_HOME, the host name "testhost", and a fresh file tracker. The
// directory goes with the object.
//
// Also: a bounded driver that calls createPipelineData() until a condition
// holds, and helpers that pick records apart. Header only; one thread.
#pragma once

#include <stdlib.h>
#include <zlib.h>

#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "framework/FileInputTracker.h"
#include "framework/PipelineData.h"
#include "loaderinfo/LoaderInfo.h"
#include "pipeline/input/TailingProcessor.h"

class TailScratch {
 public:
  using Record = std::shared_ptr<PipelineData>;

  TailScratch() {
    std::string tmpl = "/tmp/velmor-tail-XXXXXX";
    if (!mkdtemp(tmpl.data())) return;
    dir = tmpl;
    home = dir + "/home";
    logs = dir + "/logs";
    std::string cmd = "mkdir -p " + home + "/etc/bundles/default " + home + "/var/run/velmor " + logs;
    if (system(cmd.c_str()) != 0) return;
    setenv("VELMOR_HOME", home.c_str(), 1);
    LoaderInfo::getInstance().populateFromEnvironment();
    LoaderInfo::getInstance().setHost("testhost");
    FileInputTracker::resetForTest();
    _ok = true;
  }
  ~TailScratch() {
    if (!dir.empty() && system(("rm -rf " + dir).c_str()) != 0) {
    }
  }
  TailScratch(const TailScratch&) = delete;
  TailScratch& operator=(const TailScratch&) = delete;

  bool ok() const { return _ok; }

  // Writes inputs.conf; "@LOGS@" in the text stands for the logs directory.
  void inputs(std::string text) const {
    for (size_t p; (p = text.find("@LOGS@")) != std::string::npos;) text.replace(p, 6, logs);
    write(home + "/etc/bundles/default/inputs.conf", text);
  }

  static void write(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
  }
  static void append(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::app) << text;
  }
  static void gzip(const std::string& path, const std::string& text) {
    gzFile gz = gzopen(path.c_str(), "wb");
    gzwrite(gz, text.data(), unsigned(text.size()));
    gzclose(gz);
  }
  // "<prefix>0\n<prefix>1\n..." with n lines starting at `from`.
  static std::string lines(const std::string& prefix, int n, int from = 0) {
    std::string s;
    for (int i = from; i < from + n; ++i) s += prefix + std::to_string(i) + "\n";
    return s;
  }

  // Calls createPipelineData() until `done(records)` holds, or `maxIdle`
  // calls gave nothing (each waits at most about 100 ms), or far more
  // records than any test writes came out.
  static void run(TailingProcessor& p, std::vector<Record>& records,
                  const std::function<bool(const std::vector<Record>&)>& done, int maxIdle = 100) {
    for (int idle = 0, calls = 0; idle < maxIdle && calls < 1000000 && !done(records); ++calls) {
      if (Record r = p.createPipelineData()) {
        records.push_back(std::move(r));
      } else {
        ++idle;
      }
    }
  }
  // Keeps calling until `calls` calls gave nothing, to see that nothing else comes.
  static void settle(TailingProcessor& p, std::vector<Record>& records, int calls = 30) {
    run(p, records, [](const std::vector<Record>&) { return false; }, calls);
  }

  static std::string str(const Record& r, const Str& key) {
    auto v = r->getIfAvail(key);
    return v ? std::string(*v) : std::string();
  }
  static bool isSeek(const Record& r) { return str(r, PipelineData::sourceKey) == "source::fileTracker"; }
  static bool isDone(const Record& r) { return r->contains(PipelineData::doneKey); }
  static bool isLine(const Record& r) { return !isSeek(r) && !isDone(r) && r->contains(PipelineData::rawKey); }

  // The `_raw` of the line records of `path` (every path when empty), in order.
  static std::vector<std::string> rawOf(const std::vector<Record>& rs, const std::string& path = "") {
    std::vector<std::string> out;
    for (const auto& r : rs)
      if (isLine(r) && (path.empty() || str(r, PipelineData::pathKey) == path)) out.push_back(str(r, PipelineData::rawKey));
    return out;
  }
  static size_t countLines(const std::vector<Record>& rs, const std::string& path = "") {
    return rawOf(rs, path).size();
  }
  static size_t countDone(const std::vector<Record>& rs, const std::string& path) {
    size_t n = 0;
    for (const auto& r : rs)
      if (isDone(r) && str(r, PipelineData::sourceKey) == "source::" + path) ++n;
    return n;
  }

  std::string dir, home, logs;

 private:
  bool _ok = false;
};
