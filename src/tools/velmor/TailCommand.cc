#include "tools/velmor/TailCommand.h"
#include "util/StrSegment.h"

#include <signal.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <thread>

#include "framework/http/HTTPStream.h"
#include "search/SearchCancel.h"
#include "search/SearchParser.h"
#include "search/SearchProcessor.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "search/dispatch/StreamingSearch.h"
#include "tools/velmor/EventPrinter.h"
#include "tools/velmor/JsonRows.h"
#include "tools/velmor/LocalRuntime.h"
#include "tools/velmor/SearchText.h"
#include "tools/velmor/ServerLogin.h"
#include "tools/velmor/TailCursor.h"
#include "tools/velmor/Terminal.h"
#include "util/Exceptions.h"

namespace {

volatile sig_atomic_t gStop = 0;
volatile sig_atomic_t gExitAtOnce = 0;

void onSignal(int) {
  // A tail blocked on the service's stream has nothing to tidy: every event
  // printed was flushed.
  if (gExitAtOnce) _exit(0);
  gStop = 1;
}

void catchSignals(bool exitAtOnce) {
  gExitAtOnce = exitAtOnce ? 1 : 0;
  struct sigaction sa{};
  sa.sa_handler = onSignal;
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = 0;  // no restart: a sleep ends at once
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);
}

// The rows a poll keeps at most.
const size_t kPollRows = 10000;

bool startsWithSearch(const Str& text) {
  Str t = text.trim();
  size_t end = 0;
  while (end < t.size() && !std::isspace(static_cast<unsigned char>(t[end]))) ++end;
  return lowercase(StrSegment(t.data(), end)) == "search";
}

// One poll: the rows of the search over [earliest, now], newest first.
void poll(const Str& text, int64_t earliest, SearchResults& rows) {
  SearchResultsInfo info;
  info.cancelId = "velmor-tail";
  info.queryId = "velmor-tail";
  info.earliestTime = Timeval(static_cast<time_t>(earliest), 0);
  SearchCancel::instance()->start(info.cancelId);
  struct Stop {
    Str id;
    ~Stop() { SearchCancel::instance()->stop(id); }
  } stop{info.cancelId};
  StreamingSearch::Options options;
  options.maxEvents = kPollRows;
  StreamingSearch search(SearchParser::parse(text, false), info, std::move(options));
  if (search.split().needsAllRows())
    throw SearchProcessorException(
        "tail takes a search that works event by event (search, where, eval, rex, fields, rename, kv, regex); '" +
        text + "' needs every row first");
  search.run(rows, info);
  for (const Str& e : info.messages[SearchResultsInfo::MSG_ERROR]) throw SearchProcessorException(e);
}

}  // namespace

int TailCommand::run() {
  if (!RowsPrinter::parseMode(_o.output, _mode) || _mode == RowsPrinter::kCsv) {
    fprintf(stderr, "velmor: tail -o takes table, raw or json, not '%s'\n", _o.output.c_str());
    return 2;
  }
  if (!_o.earliest.empty() && !SearchText::parseTime(_o.earliest, time(nullptr), _earliest)) {
    fprintf(stderr, "velmor: --earliest: '%s' is no time (try -15m, -1d@d, 2026-11-24T10:00:00, or seconds since 1970)\n",
            _o.earliest.c_str());
    return 2;
  }
  if (_o.searchText().trim().empty()) {
    fprintf(stderr, "velmor: the search is empty\n");
    return 2;
  }
  return _o.server.empty() ? runLocal() : runServer();
}

bool TailCommand::printedOne() {
  ++_printed;
  return _o.maxEvents > 0 && _printed >= _o.maxEvents;
}

int TailCommand::runLocal() {
  Str err;
  if (!LocalRuntime::checkHome(err)) {
    fprintf(stderr, "velmor: %s\n", err.c_str());
    return 1;
  }
  int64_t windowStart = 0;
  time_t now = time(nullptr);
  if (!SearchText::parseTime(_o.window, now, windowStart) || windowStart > now) {
    fprintf(stderr, "velmor: --window: '%s' is no time before now (try -1h, -1d)\n", _o.window.c_str());
    return 2;
  }
  const int64_t window = now - windowStart;
  ProcessScope scope;
  catchSignals(false);
  try {
    LocalRuntime runtime;
    _text = SearchText::normalize(_o.searchText(), LocalRuntime::isCommand);
    if (!startsWithSearch(_text)) {
      fprintf(stderr, "velmor: tail takes a search that starts with terms or with `search`, not '%s'\n",
              _text.c_str());
      return 1;
    }
    EventPrinter events(SearchText::highlightTerms(_text), Terminal::colourOnStdout());
    TailCursor cursor;
    bool first = true;
    bool warned = false;
    while (!gStop) {
      if (!first) {
        // Sleeps in short steps so that a signal is seen at once.
        auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(_o.interval);
        while (!gStop && std::chrono::steady_clock::now() < until)
          std::this_thread::sleep_for(std::chrono::milliseconds(20));
        if (gStop) break;
      }
      if (!first) runtime.reopenIndexes();
      int64_t from = int64_t(time(nullptr)) - window;
      if (first && _earliest) from = _earliest;
      SearchResults rows;
      poll(_text, from, rows);
      if (first && !_earliest) {
        cursor.mark(rows);
        first = false;
        continue;
      }
      first = false;
      size_t unaddressed = 0;
      std::vector<const SearchResult*> fresh = cursor.take(rows, unaddressed);
      if (unaddressed && !warned) {
        warned = true;
        fprintf(stderr, "velmor: %zu events without _cd were passed over: keep _cd in `fields`\n", unaddressed);
      }
      Str out;
      bool enough = false;
      for (const SearchResult* r : fresh) {
        out += RowsPrinter::line(rows, *r, _mode, events);
        if ((enough = printedOne())) break;
      }
      fwrite(out.data(), 1, out.size(), stdout);
      if (fflush(stdout) != 0) return 1;
      if (enough) break;
    }
  } catch (const std::exception& e) {
    fprintf(stderr, "velmor: %s\n", e.what());
    return 1;
  }
  return 0;
}

int TailCommand::runServer() {
  LocalRuntime::registerCommands(true);
  _text = SearchText::normalize(_o.searchText(), LocalRuntime::isCommand);
  ServerClient client(_o.server, !_o.insecure);
  Str err;
  if (!ServerLogin::login(_o, client, err)) {
    fprintf(stderr, "velmor: %s\n", err.c_str());
    return 1;
  }
  std::vector<std::pair<Str, Str>> params{{"search", _text}};
  if (_earliest) params.emplace_back("earliest_time", Str::fromFormat("%lld", static_cast<long long>(_earliest)));
  if (_o.maxEvents > 0) params.emplace_back("max_count", Str::fromFormat("%ld", _o.maxEvents));
  catchSignals(true);
  // Keep-alives come every 10 s; three missed mean the service is gone.
  std::unique_ptr<HTTPStream> stream = client.openTail(params, 35000, err);
  if (!stream) {
    fprintf(stderr, "velmor: %s\n", err.c_str());
    return 1;
  }
  EventPrinter events(SearchText::highlightTerms(_text), Terminal::colourOnStdout());
  try {
    Str line;
    while (stream->readLine(line)) {
      if (line.trim().empty()) continue;  // keep-alive
      SearchResults rows;
      if (!JsonRows::parse(line, rows, err) || rows.empty()) {
        fprintf(stderr, "velmor: an unreadable line in the tail: %s\n", err.c_str());
        continue;
      }
      Str out = RowsPrinter::line(rows, *rows.front(), _mode, events);
      fwrite(out.data(), 1, out.size(), stdout);
      if (fflush(stdout) != 0) return 1;
      if (printedOne()) break;
    }
  } catch (const HTTPStreamException& e) {
    fprintf(stderr, "velmor: the tail from %s broke off: %s\n", client.base().c_str(), e.what());
    return 1;
  }
  return 0;
}
