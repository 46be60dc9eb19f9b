#include "tools/velmor/SearchCommand.h"

#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "pipeline/indexer/IndexProcessor.h"
#include "search/SearchCancel.h"
#include "search/SearchParser.h"
#include "search/SearchProcessor.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "search/dispatch/StreamingSearch.h"
#include "tools/velmor/EventPrinter.h"
#include "tools/velmor/LocalRuntime.h"
#include "tools/velmor/SearchText.h"
#include "tools/velmor/ServerLogin.h"
#include "tools/velmor/Terminal.h"
#include "util/PortableRand.h"

namespace {

const char* const kCapNotice = "The search returned its first ";

// The search's messages on standard error; the streaming driver's notice
// that more events match is said in the command's own words.
void printMessages(const std::map<Str, std::vector<Str>>& messages, long shown) {
  for (const auto& [type, texts] : messages)
    for (const Str& t : texts) {
      if (t.startswith(kCapNotice)) {
        fprintf(stderr, "velmor: showing the newest %ld events; more match (-n N shows more)\n", shown);
        continue;
      }
      fprintf(stderr, "%s: %s\n", type.c_str(), t.c_str());
    }
}

Str rateText(size_t events, std::chrono::steady_clock::time_point start) {
  double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  double rate = secs > 0 ? events / secs : 0;
  return Str::fromFormat("%zu events read, %.0f events/s, %.1f s", events, rate, secs);
}

}  // namespace

int SearchCommand::run() {
  if (!RowsPrinter::parseMode(_o.output, _mode)) {
    fprintf(stderr, "velmor: -o takes table, raw, json or csv, not '%s'\n", _o.output.c_str());
    return 2;
  }
  time_t now = time(nullptr);
  for (auto [text, name, out] : {std::make_tuple(&_o.earliest, "--earliest", &_earliest),
                                 std::make_tuple(&_o.latest, "--latest", &_latest)}) {
    if (text->empty()) continue;
    if (!SearchText::parseTime(*text, now, *out)) {
      fprintf(stderr,
              "velmor: %s: '%s' is no time (try -15m, -1d@d, 2026-11-24T10:00:00, or seconds since 1970)\n", name,
              text->c_str());
      return 2;
    }
  }
  if (_o.searchText().trim().empty()) {
    fprintf(stderr, "velmor: the search is empty\n");
    return 2;
  }
  return _o.server.empty() ? runLocal() : runServer();
}

int SearchCommand::print(SearchResults& rows, bool report) {
  long cap = _o.count >= 0 ? _o.count : (report ? 0 : kDefaultEvents);
  if (cap > 0)
    while (rows.size() > static_cast<size_t>(cap)) {
      delete rows.back();
      rows.pop_back();
    }
  EventPrinter events(SearchText::highlightTerms(_text), Terminal::colourOnStdout());
  Str out = RowsPrinter::format(rows, _mode, events);
  fwrite(out.data(), 1, out.size(), stdout);
  return fflush(stdout) == 0 ? 0 : 1;
}

int SearchCommand::runLocal() {
  Str err;
  if (!LocalRuntime::checkHome(err)) {
    fprintf(stderr, "velmor: %s\n", err.c_str());
    return 1;
  }
  ProcessScope scope;
  int status = 0;
  try {
    LocalRuntime runtime;
    _text = SearchText::normalize(_o.searchText(), LocalRuntime::isCommand);
    SearchResultsInfo info;
    info.cancelId = "velmor";
    info.queryId = "velmor_" + ToString(static_cast<unsigned long>(portable_rand()));
    if (_earliest) info.earliestTime = Timeval(static_cast<time_t>(_earliest), 0);
    if (_latest) info.latestTime = Timeval(static_cast<time_t>(_latest), 0);
    SearchCancel::instance()->start(info.cancelId);
    SearchResults rows;
    bool report = false;
    ProgressLine progress;
    auto start = std::chrono::steady_clock::now();
    try {
      StreamingSearch::Options options;
      options.maxEvents = _o.count > 0 ? size_t(_o.count) : (_o.count == 0 ? 0 : size_t(kDefaultEvents));
      if (progress.active())
        options.progress = [&](size_t events, size_t) { progress.update(rateText(events, start)); };
      StreamingSearch search(SearchParser::parse(_text, false), info, std::move(options));
      report = search.split().needsAllRows();
      search.run(rows, info);
      progress.done();
      SearchCancel::instance()->stop(info.cancelId);
    } catch (const SearchProcessorException& e) {
      progress.done();
      SearchCancel::instance()->stop(info.cancelId);
      printMessages(info.messages, 0);
      fprintf(stderr, "velmor: %s\n", e.what());
      return 1;
    }
    printMessages(info.messages, _o.count >= 0 ? _o.count : kDefaultEvents);
    if (info.hasMessages(SearchResultsInfo::MSG_ERROR)) status = 1;
    if (print(rows, report) != 0) status = 1;
  } catch (const std::exception& e) {
    // Indexes that cannot be opened, an index failing under the search.
    fprintf(stderr, "velmor: %s\n", e.what());
    return 1;
  }
  return status;
}

int SearchCommand::runServer() {
  LocalRuntime::registerCommands(true);
  _text = SearchText::normalize(_o.searchText(), LocalRuntime::isCommand);
  ServerClient client(_o.server, !_o.insecure);
  Str err;
  if (!ServerLogin::login(_o, client, err)) {
    fprintf(stderr, "velmor: %s\n", err.c_str());
    return 1;
  }
  std::vector<std::pair<Str, Str>> params;
  if (_earliest) params.emplace_back("start_time", Str::fromFormat("%lld", static_cast<long long>(_earliest)));
  if (_latest) params.emplace_back("end_time", Str::fromFormat("%lld", static_cast<long long>(_latest)));
  long maxCount = _o.count > 0 ? _o.count : (_o.count == 0 ? 0 : kDefaultEvents);
  if (maxCount > 0) params.emplace_back("max_count", Str::fromFormat("%ld", maxCount));
  Str sid;
  if (!client.postJob(_text, params, sid, err)) {
    fprintf(stderr, "velmor: %s\n", err.c_str());
    return 1;
  }
  ProgressLine progress;
  auto start = std::chrono::steady_clock::now();
  ServerClient::JobState st;
  int waitMs = 20;
  for (;;) {
    if (!client.jobStatus(sid, st, err)) {
      progress.done();
      fprintf(stderr, "velmor: %s\n", err.c_str());
      return 1;
    }
    if (st.done || !st.error.empty()) break;
    progress.update(Str::fromFormat("job %s: %ld results, %.1f s", sid.c_str(), st.count,
                                    std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count()));
    std::this_thread::sleep_for(std::chrono::milliseconds(waitMs));
    waitMs = std::min(waitMs * 2, 500);
  }
  progress.done();
  for (const Str& m : st.messages) fprintf(stderr, "%s\n", m.c_str());
  if (!st.error.empty()) {
    fprintf(stderr, "velmor: %s\n", st.error.c_str());
    return 1;
  }
  // The rows, a page at a time.
  const size_t kPage = 5000;
  SearchResults rows;
  for (size_t offset = 0;;) {
    size_t got = 0;
    if (!client.fetchRows(sid, offset, kPage, rows, got, err)) {
      fprintf(stderr, "velmor: %s\n", err.c_str());
      return 1;
    }
    offset += got;
    if (got < kPage) break;
  }
  // A report's rows have no _raw; the job already kept the newest
  // max_count events of a search for events.
  return print(rows, !RowsPrinter::areEvents(rows));
}
