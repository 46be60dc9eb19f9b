#include "tools/velmor/AddCommand.h"

#include <stdio.h>

#include <cstdlib>

#include "libbundle/PropertiesMap.h"
#include "libbundle/PropertyPages.h"
#include "pipeline/indexer/EngineRunnerScope.h"
#include "tools/velmor-index/IndexTool.h"
#include "tools/velmor-index/IndexToolArgs.h"
#include "tools/velmor/LocalRuntime.h"
#include "tools/velmor/Terminal.h"

namespace {

const char kIndexerPrefix[] = "velmor-index: ";

// The standard error handed to the indexer: whole lines are relabelled and,
// on a terminal, progress lines fold into one line kept up to date.
struct ErrFilter {
  ProgressLine progress;
  Str pending;

  void line(const Str& l) {
    Str file;
    uint64_t done = 0, size = 0, events = 0;
    if (progress.active() && AddCommand::parseProgress(l, file, done, size, events)) {
      progress.update(Str::fromFormat("%s: %.0f%% (%llu/%llu bytes), %llu events", file.c_str(),
                                      size ? 100.0 * double(done) / double(size) : 100.0, (unsigned long long)done,
                                      (unsigned long long)size, (unsigned long long)events),
                      true);
      return;
    }
    progress.done();
    Str out = AddCommand::relabel(l);
    fprintf(stderr, "%s\n", out.c_str());
    fflush(stderr);
  }
  static ssize_t write(void* cookie, const char* buf, size_t size) {
    ErrFilter* f = static_cast<ErrFilter*>(cookie);
    f->pending.append(buf, size);
    size_t nl;
    while ((nl = f->pending.find('\n')) != Str::npos) {
      f->line(Str(f->pending.substr(0, nl)));
      f->pending.erase(0, nl + 1);
    }
    return static_cast<ssize_t>(size);
  }
  static int close(void* cookie) {
    ErrFilter* f = static_cast<ErrFilter*>(cookie);
    if (!f->pending.empty()) f->line(f->pending);
    f->pending.clear();
    f->progress.done();
    return 0;
  }
};

bool number(const Str& text, uint64_t& out) {
  if (text.empty() || text.size() > 19) return false;
  for (char c : text)
    if (c < '0' || c > '9') return false;
  out = std::strtoull(text.c_str(), nullptr, 10);
  return true;
}

}  // namespace

bool AddCommand::parseProgress(const Str& line, Str& file, uint64_t& done, uint64_t& size, uint64_t& events) {
  if (!line.startswith(kIndexerPrefix)) return false;
  Str rest = line.substr(sizeof kIndexerPrefix - 1);
  const Str tail = " events";
  if (rest.size() <= tail.size() || rest.compare(rest.size() - tail.size(), tail.size(), tail) != 0) return false;
  size_t bytes = rest.rfind(" bytes, ");
  if (bytes == Str::npos) return false;
  size_t colon = rest.rfind(": ", bytes);
  if (colon == Str::npos) return false;
  Str counts = rest.substr(colon + 2, bytes - colon - 2);
  size_t slash = counts.find('/');
  if (slash == Str::npos) return false;
  Str ev = rest.substr(bytes + 8, rest.size() - tail.size() - bytes - 8);
  if (!number(counts.substr(0, slash), done) || !number(counts.substr(slash + 1), size) || !number(ev, events))
    return false;
  file = rest.substr(0, colon);
  return true;
}

Str AddCommand::relabel(const Str& line) {
  if (line.startswith(kIndexerPrefix)) return "velmor: " + line.substr(sizeof kIndexerPrefix - 1);
  return line;
}

int AddCommand::run() {
  if (!_o.server.empty()) {
    fprintf(stderr,
            "velmor: add works on the indexes of VELMOR_HOME in this process, not over --server; run it on the "
            "server's machine, or let the service follow the files (inputs.conf)\n");
    return 2;
  }
  if (_o.files.empty()) {
    fprintf(stderr, "velmor: add needs at least one file\n");
    return 2;
  }
  Str err;
  if (!LocalRuntime::checkHome(err)) {
    fprintf(stderr, "velmor: %s\n", err.c_str());
    return 1;
  }
  ProcessScope scope;
  IndexToolArgs args;
  args.command = IndexToolArgs::kAdd;
  args.index = _o.index;
  if (args.index.empty()) {
    PropertiesMap defaults;
    PropertyPages::instance("indexes").fillLayers(defaults, "default", false);
    if (!PropertyPages::layeredFind("defaultDatabase", defaults, args.index) || args.index.empty()) {
      fprintf(stderr, "velmor: no --index given and no defaultDatabase in the indexes configuration\n");
      return 1;
    }
  }
  for (const std::string& f : _o.files) args.files.push_back(f);
  args.sourceType = _o.sourceType;
  args.host = _o.host;

  ErrFilter filter;
  cookie_io_functions_t io{nullptr, &ErrFilter::write, nullptr, &ErrFilter::close};
  FILE* err2 = fopencookie(&filter, "w", io);
  if (err2)
    setvbuf(err2, nullptr, _IOLBF, 0);
  else
    err2 = stderr;
  int status;
  {
    EngineRunnerScope runner;  // background work forks through it
    IndexTool tool(args, stdout, err2);
    status = tool.run();
  }
  if (err2 != stderr) fclose(err2);
  if (fflush(stdout) != 0 && status == 0) status = 1;
  return status;
}
