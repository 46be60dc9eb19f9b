#include "search/dispatch/LiveTailStream.h"

#include <stdlib.h>
#include <sys/time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <map>

#include "framework/UserManager.h"
#include "framework/http/FdConnectionData.h"
#include "framework/http/HTTPReply.h"
#include "framework/http/HTTPRequest.h"
#include "framework/http/HTTPServer.h"
#include "framework/rest/HTTPAuthManager.h"
#include "pipeline/indexer/DataWrapper.h"
#include "pipeline/indexer/DatabaseContainer.h"
#include "pipeline/indexer/TimeParser.h"
#include "pipeline/indexer/search/EventRowWriter.h"
#include "pipeline/indexer/search/SearchOperator.h"
#include "search/SL.h"
#include "search/SearchCancel.h"
#include "search/SearchParser.h"
#include "search/SearchPipeline.h"
#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "search/StringArg.h"
#include "search/dispatch/JobResultsFormatter.h"
#include "search/dispatch/StreamingSearch.h"
#include "util/Exceptions.h"
#include "util/Logger.h"
#include "util/Thread.h"

static Logger gLogger("LiveTailStream");

const char* const LiveTailStream::kPath = "/services/streams/tail";

namespace {

std::atomic<unsigned long> gTailCount{0};

// The fields every event has, first in each object, in this order.
const char* const kFixedFields[] = {"_time", "index", "host", "source", "sourcetype", "_raw"};

const Str* firstParam(const HTTPRequest& req, const char* key) {
  for (const HTTPRequest::Params* p : {&req.getParams(), &req.postParams()}) {
    auto it = p->find(key);
    if (it != p->end() && !it->second.empty()) return &it->second.front();
  }
  return nullptr;
}

// A non-negative whole number; absent is 0. False on anything else.
bool parseCount(const Str* text, unsigned long& out) {
  out = 0;
  if (!text || text->empty()) return true;
  char* end = nullptr;
  out = strtoul(text->c_str(), &end, 10);
  return end && *end == '\0' && (*text)[0] != '-';
}

void appendJsonPair(const Str& key, const Str& value, bool& first, Str& out) {
  out += first ? "{\"" : ",\"";
  first = false;
  JobResultsFormatter::jsonEscape(key, out);
  out += "\":\"";
  JobResultsFormatter::jsonEscape(value, out);
  out += '"';
}

Str nowText() {
  timeval tv;
  gettimeofday(&tv, nullptr);
  return Str::fromFormat("%ld.%03ld", static_cast<long>(tv.tv_sec), static_cast<long>(tv.tv_usec / 1000));
}

// The text of a command's unconsumed string arguments, blank-separated.
Str argumentText(const SearchProcessor& p) {
  Str text;
  for (Arg* a : p.getArguments()) {
    if (!a || a->type != Arg::STRING || a->isConsumed()) continue;
    if (!text.empty()) text += ' ';
    text += static_cast<StringArg*>(a)->getText();
  }
  return text;
}

}  // namespace

// --- Matcher ----------------------------------------------------------------------------

bool LiveTailStream::isEventCommand(const Str& name) {
  static const char* const kAllowed[] = {"search", "where", "eval",    "rex",  "fields",
                                         "rename", "kv",    "extract", "regex"};
  for (const char* a : kAllowed)
    if (name == a) return true;
  return false;
}

LiveTailStream::Matcher::Matcher(const Str& search, const Str& user) : _info(std::make_unique<SearchResultsInfo>()) {
  std::unique_ptr<SearchProcessor> parsed(SearchParser::parse(search, false));
  auto* pipeline = dynamic_cast<SearchPipeline*>(parsed.get());
  if (!pipeline || pipeline->getProcessors().empty())
    throw SearchProcessorException("A live tail needs a search, such as 'search error'");
  std::list<SearchProcessor*> procs = pipeline->releaseProcessors();
  std::list<std::unique_ptr<SearchProcessor>> owned;
  for (SearchProcessor* p : procs) owned.emplace_back(p);
  if (owned.front()->getName() != "search")
    throw SearchProcessorException("A live tail starts with the 'search' command, not '" + owned.front()->getName() +
                                   "'");
  for (const auto& p : owned)
    if (!isEventCommand(p->getName()))
      throw SearchProcessorException("The command '" + p->getName() +
                                     "' cannot be used in a live tail: after 'search' only search, where, eval, "
                                     "rex, fields, rename, kv, extract and regex, which work event by event");

  // The first command: its index option names the index followed; the
  // rest of its text filters the events, under the user's role filters.
  Str text = argumentText(*owned.front());
  std::vector<Str> warnings;
  int readLevel = 2;
  Str index;
  text = SearchOperator::stripLocalOptions(text, index, readLevel, warnings);
  if (index.empty() || index == "default") {
    DatabaseContainer* container = DatabaseContainer::getProcessContainer();
    index = container ? container->getDefaultDomain() : Str("main");
  }
  if ((index.startswith('_') || index == "velmorlogger") && UserManager::checkUserPerms("search_admin_index", user) != 1)
    throw SearchProcessorException("Only admins may search the index " + index);
  if (UserManager::checkIndexAccess(user, index) != 1) throw SearchProcessorException(UserManager::indexRefusal(index));
  Str filter = SearchOperator::getAccessFilter(user);
  if (!filter.empty()) text = "( " + text + " ) " + filter;
  _index = index;
  _filterText = text;

  std::unique_ptr<SearchProcessor> first(SearchParser::parse("search " + text, false));
  std::list<SearchProcessor*> firstProcs = static_cast<SearchPipeline*>(first.get())->releaseProcessors();
  _pipeline = std::make_unique<SearchPipeline>();
  for (SearchProcessor* p : firstProcs) _pipeline->addProcessor(p);
  owned.pop_front();
  for (auto& p : owned) _pipeline->addProcessor(p.release());

  // Every command filters rows it is given: none reads an index.
  _info->userContext = user;
  for (SearchProcessor* p : _pipeline->getProcessors()) SearchPipeline::evaluateMember(p, *_info, false);
  _info->firstInPipeline = false;
  _rows = std::make_unique<EventRowWriter>(_index, readLevel > 0);
}

LiveTailStream::Matcher::~Matcher() = default;

bool LiveTailStream::Matcher::match(const LiveTailHub::Event& e, Str& json) {
  if (e.index != _index) return false;
  Str time = e.time;
  char* end = nullptr;
  double t = time.empty() ? 0 : strtod(time.c_str(), &end);
  if (time.empty() || !end || *end != '\0') {
    time = nowText();
    t = strtod(time.c_str(), nullptr);
  }
  DataWrapper event;
  event.raw = e.raw;
  event.time = static_cast<int32_t>(t);
  event.host = e.host;
  event.source = e.source;
  event.sourceType = e.sourceType;

  SearchResults rows;
  _rows->bind(rows);
  SearchResult* row = _rows->append(rows, event, 0);
  row->setValue(SL::Timestamp, time);
  _info->firstInPipeline = false;
  _info->messages.clear();
  for (SearchProcessor* p : _pipeline->getProcessors()) {
    p->execute_dispatch(rows, *_info);
    if (rows.empty()) return false;
  }

  // The row as one object: the fixed fields first, then the others by name.
  const SearchResult* r = rows.front();
  std::vector<Str> names;
  std::vector<sr_index_t> inds;
  rows.genFieldList(names, inds, false, true);
  std::map<Str, const Str*> values;
  for (size_t i = 0; i < names.size(); ++i) {
    const Str* v = r->getValuePtr(inds[i]);
    if (v) values[names[i]] = v;
  }
  json.clear();
  bool firstPair = true;
  for (const char* f : kFixedFields) {
    auto it = values.find(f);
    if (it == values.end()) continue;
    appendJsonPair(it->first, *it->second, firstPair, json);
    values.erase(it);
  }
  for (const auto& [name, v] : values)
    if (!name.startswith('_')) appendJsonPair(name, *v, firstPair, json);
  json += firstPair ? "{}" : "}";
  return true;
}

// --- Worker -----------------------------------------------------------------------------

// One request: authenticates, subscribes, writes the kept events.
class LiveTailStream::Worker : public Thread {
 public:
  Worker(HTTPAuthManager& auth, LiveTailHub& hub, size_t capacity, HTTPServer* server, TcpPolledFd* fd,
         const FdConnectionData& conn)
      : Thread("LiveTail-%lu", ++gTailCount),
        _auth(auth),
        _hub(hub),
        _capacity(capacity),
        _server(server),
        _fd(fd),
        _conn(conn) {}
  ~Worker() override { joinEvenIfUnstarted(); }

  void main() override {
    try {
      serve();
    } catch (const std::exception& e) {
      gLogger.warn("live tail failed: %s", e.what());
      if (!_headersSent) refuse(400, e.what());
    }
    if (_sub) _hub.unsubscribe(_sub);
    _server->releaseStream(_fd);
    _finished = true;
  }
  void stop() {
    _stopped = true;
    ScopedLock l(_subMutex);
    if (_sub) _sub->close();
  }
  bool finished() const { return _finished; }

 private:
  void reply(HTTPReply* r) {
    std::unique_ptr<HTTPReply> owned(r);
    Str text;
    owned->toString(text);
    _server->writeToStream(_fd, text.data(), text.size());
  }

  void refuse(int status, const Str& text) {
    Str body = "{\"messages\":[{\"type\":\"FATAL\",\"text\":\"";
    JobResultsFormatter::jsonEscape(text, body);
    body += "\"}]}\n";
    reply(HTTPReply::createReply(status, body, "application/json", false));
  }

  bool writeChunk(const Str& data) {
    if (data.empty()) return true;
    Str out = Str::fromFormat("%zx\r\n", data.size());
    out += data;
    out += "\r\n";
    if (_server->writeToStream(_fd, out.data(), out.size())) {
      _lastWrite = std::chrono::steady_clock::now();
      return true;
    }
    gLogger.info("client of live tail %s went away", getName());
    _stopped = true;
    return false;
  }

  void frameEvent(const Str& json, Str& out) const {
    if (_sse) {
      out += "event: result\ndata: ";
      out += json;
      out += "\n\n";
    } else {
      out += json;
      out += '\n';
    }
  }

  void frameDropped(size_t n, Str& out) const {
    Str obj = Str::fromFormat("{\"dropped\":%zu,\"message\":\"dropped %zu events\"}", n, n);
    if (_sse) {
      out += "event: dropped\ndata: ";
      out += obj;
      out += "\n\n";
    } else {
      out += obj;
      out += '\n';
    }
  }

  // Whether the reply may go on after `sent` events.
  bool underLimits() const {
    if (_stopped) return false;
    if (_maxCount > 0 && _sent >= _maxCount) return false;
    if (_maxTime > 0 && std::chrono::steady_clock::now() >= _deadline) return false;
    return true;
  }

  // Runs the events through the search and writes the kept ones (at most
  // up to max_count). False when the client went away.
  bool writeEvents(const std::vector<LiveTailHub::EventPtr>& events, LiveTailStream::Matcher& m) {
    Str out, json;
    for (const auto& e : events) {
      if (_maxCount > 0 && _sent >= _maxCount) break;
      bool kept = false;
      try {
        kept = m.match(*e, json);
      } catch (const std::exception& ex) {
        gLogger.debug("live tail %s passes over an event: %s", getName(), ex.what());
      }
      if (!kept) continue;
      frameEvent(json, out);
      ++_sent;
    }
    return writeChunk(out);
  }

  // The matching events already indexed since `earliest`, oldest first.
  void history(int64_t earliest, const Str& user, LiveTailStream::Matcher& m) {
    SearchResultsInfo info;
    info.userContext = user;
    info.cancelId = getName();
    info.earliestTime = Timeval(static_cast<time_t>(earliest), 0);
    Str text = "search index=" + SearchParser::quoteWord(m.index());
    if (!m.filterText().empty()) text += " " + m.filterText();
    SearchResults rows;
    SearchCancel::instance()->start(info.cancelId);
    try {
      StreamingSearch s(SearchParser::parse(text, false), info);
      s.run(rows, info);
    } catch (...) {
      SearchCancel::instance()->stop(info.cancelId);
      throw;
    }
    SearchCancel::instance()->stop(info.cancelId);
    std::vector<LiveTailHub::EventPtr> events;
    for (auto it = rows.rbegin(); it != rows.rend(); ++it) {
      auto e = std::make_shared<LiveTailHub::Event>();
      e->index = m.index();
      (*it)->getValue(SL::Timestamp, e->time);
      (*it)->getValue(SL::Host, e->host);
      (*it)->getValue(SL::Source, e->source);
      (*it)->getValue(SL::SourceType, e->sourceType);
      (*it)->getValue(SL::Raw, e->raw);
      events.push_back(std::move(e));
    }
    writeEvents(events, m);
  }

  void serve() {
    const HTTPRequest* req = _conn._pRequest;
    Str user;
    HTTPReply* refusal = nullptr;
    if (!_auth.authenticate(req, user, refusal)) {
      if (refusal) {
        reply(refusal);
      } else {
        refuse(401, "Authentication required");
      }
      return;
    }
    const Str* search = firstParam(*req, "search");
    if (!search || search->empty()) return refuse(400, "The parameter 'search' is required");
    const Str* mode = firstParam(*req, "output_mode");
    if (mode) {
      if (*mode != "sse" && *mode != "json") return refuse(400, "output_mode must be sse or json, not '" + *mode + "'");
      _sse = *mode == "sse";
    } else {
      const Str* accept = req->header("accept");
      _sse = accept && accept->find("text/event-stream") != Str::npos;
    }
    unsigned long maxTime = 0;
    if (!parseCount(firstParam(*req, "max_count"), _maxCount))
      return refuse(400, "max_count must be a whole number of events");
    if (!parseCount(firstParam(*req, "max_time"), maxTime))
      return refuse(400, "max_time must be a whole number of seconds");
    _maxTime = maxTime;
    _deadline = std::chrono::steady_clock::now() + std::chrono::seconds(maxTime);
    const Str* earliestText = firstParam(*req, "earliest_time");
    int64_t earliest = 0;
    if (earliestText && !TimeParser::parseTime(*earliestText, Str(), time(nullptr), earliest))
      return refuse(400, "Invalid earliest_time: '" + *earliestText + "'");

    LiveTailStream::Matcher matcher(*search, user);
    gLogger.info("user %s follows '%s' in the index %s", user.c_str(), search->c_str(), matcher.index().c_str());
    // Subscribed before the history is read, so no event falls between.
    {
      ScopedLock l(_subMutex);
      _sub = _hub.subscribe(_capacity);
      if (_stopped) _sub->close();
    }

    Str head = Str("HTTP/1.1 200 OK\r\nContent-Type: ") +
               (_sse ? "text/event-stream" : "application/json") +
               "; charset=utf-8\r\nTransfer-Encoding: chunked\r\nCache-Control: no-cache\r\n"
               "X-Accel-Buffering: no\r\nConnection: close\r\n\r\n";
    if (!_server->writeToStream(_fd, head.data(), head.size())) return;
    _headersSent = true;
    _lastWrite = std::chrono::steady_clock::now();

    if (earliestText) {
      try {
        history(earliest, user, matcher);
      } catch (const std::exception& e) {
        gLogger.warn("live tail %s could not read the events since %s: %s", getName(), earliestText->c_str(),
                     e.what());
      }
    }

    std::vector<LiveTailHub::EventPtr> events;
    while (underLimits()) {
      events.clear();
      size_t dropped = _sub->take(events, 1.0);
      if (_stopped) break;
      if (dropped > 0) {
        Str notice;
        frameDropped(dropped, notice);
        if (!writeChunk(notice)) return;
      }
      if (!events.empty() && !writeEvents(events, matcher)) return;
      auto idle = std::chrono::steady_clock::now() - _lastWrite;
      if (idle >= std::chrono::duration<double>(kKeepaliveSeconds) && !writeChunk(_sse ? ": keepalive\n\n" : "\n"))
        return;
    }
    static const char kEnd[] = "0\r\n\r\n";
    _server->writeToStream(_fd, kEnd, sizeof kEnd - 1);
  }

  HTTPAuthManager& _auth;
  LiveTailHub& _hub;
  size_t _capacity;
  HTTPServer* _server;
  TcpPolledFd* _fd;
  const FdConnectionData& _conn;
  std::shared_ptr<LiveTailHub::Subscriber> _sub;
  Mutex _subMutex;  // guards the setting of _sub against stop()
  bool _sse = true;
  bool _headersSent = false;
  unsigned long _maxCount = 0, _maxTime = 0, _sent = 0;
  std::chrono::steady_clock::time_point _deadline, _lastWrite;
  std::atomic<bool> _finished{false};
  std::atomic<bool> _stopped{false};
};

// --- LiveTailStream ---------------------------------------------------------------------

LiveTailStream::LiveTailStream(HTTPAuthManager* auth, LiveTailHub* hub, size_t queueCapacity)
    : _auth(auth ? auth : &HTTPAuthManager::instance()),
      _hub(hub ? hub : &LiveTailHub::instance()),
      _queueCapacity(queueCapacity) {}

LiveTailStream::~LiveTailStream() { stopAll(); }

void LiveTailStream::handleStream(HTTPServer* server, TcpPolledFd* fd, const FdConnectionData& conn) {
  _workers.add(std::make_unique<Worker>(*_auth, *_hub, _queueCapacity, server, fd, conn))->go();
}

void LiveTailStream::stopAll() {
  _workers.stopAll([](Worker& w) { w.stop(); });
}

size_t LiveTailStream::workers() const { return _workers.size(); }

size_t LiveTailStream::running() const { return _workers.running(); }
