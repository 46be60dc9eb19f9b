#include "search/dispatch/StreamedSearch.h"

#include <stdlib.h>

#include <atomic>
#include <set>
#include <vector>

#include "framework/UserManager.h"
#include "framework/http/FdConnectionData.h"
#include "framework/http/HTTPReply.h"
#include "framework/http/HTTPRequest.h"
#include "framework/http/HTTPServer.h"
#include "framework/rest/HTTPAuthManager.h"
#include "search/SearchCancel.h"
#include "search/SearchParser.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "search/dispatch/PipelineSplit.h"
#include "util/Exceptions.h"
#include "util/Logger.h"
#include "util/Thread.h"

static Logger gLogger("StreamedSearch");

const char* const StreamedSearch::kPath = "/services/streams/search";

namespace {

std::atomic<unsigned long> gStreamCount{0};

const Str* firstParam(const HTTPRequest& req, const char* key) {
  for (const HTTPRequest::Params* p : {&req.getParams(), &req.postParams()}) {
    auto it = p->find(key);
    if (it != p->end() && !it->second.empty()) return &it->second.front();
  }
  return nullptr;
}

// Epoch seconds; empty is open (0). False on anything else.
bool parseTime(const Str* text, Timeval& out) {
  out = Timeval();
  if (!text || text->empty()) return true;
  char* end = nullptr;
  double d = strtod(text->c_str(), &end);
  if (!end || *end != '\0' || d < 0) return false;
  int64_t sec = static_cast<int64_t>(d);
  out = Timeval(sec, static_cast<int32_t>((d - static_cast<double>(sec)) * 1e6));
  return true;
}

}  // namespace

// One request: authenticates, runs the search, writes its rows.
class StreamedSearch::Worker : public Thread {
 public:
  Worker(HTTPAuthManager& auth, HTTPServer* server, TcpPolledFd* fd, const FdConnectionData& conn)
      : Thread("StreamedSearch-%lu", ++gStreamCount), _auth(auth), _server(server), _fd(fd), _conn(conn) {
    _cancelId = Str::fromFormat("streamed_%lu_%p", static_cast<unsigned long>(gStreamCount), static_cast<void*>(this));
  }
  ~Worker() override { joinEvenIfUnstarted(); }

  void main() override {
    SearchCancel::instance()->start(_cancelId);
    if (_cancelled) SearchCancel::instance()->stop(_cancelId);
    try {
      serve();
    } catch (const std::exception& e) {
      gLogger.warn("streamed search failed: %s", e.what());
      if (!_headersSent) reply(HTTPReply::createErrorXMLReply(400, "FATAL", e.what()));
    }
    SearchCancel::instance()->stop(_cancelId);
    _server->releaseStream(_fd);
    _finished = true;
  }
  void cancel() {
    _cancelled = true;
    SearchCancel::instance()->stop(_cancelId);
  }
  bool finished() const { return _finished; }

 private:
  void reply(HTTPReply* r) {
    std::unique_ptr<HTTPReply> owned(r);
    Str text;
    owned->toString(text);
    _server->writeToStream(_fd, text.data(), text.size());
  }

  bool writeChunk(const Str& data) {
    if (data.empty()) return true;
    Str out = Str::fromFormat("%zx\r\n", data.size());
    out += data;
    out += "\r\n";
    if (_server->writeToStream(_fd, out.data(), out.size())) return true;
    gLogger.info("client of streamed search %s went away; cancelling it", _cancelId.c_str());
    cancel();
    return false;
  }

  // Writes the rows as CSV; a new header block when the fields grow.
  bool writeRows(SearchResults& rows) {
    if (rows.empty()) return true;
    std::vector<Str> fields;
    std::vector<sr_index_t> inds;
    rows.genFieldList(fields, inds, false, true);
    bool grew = false;
    for (const Str& f : fields)
      if (_known.insert(f).second) {
        _header.push_back(f);
        grew = true;
      }
    Str csv;
    if (!rows.toCSV(csv, _header, true, true)) throw SearchProcessorException("Could not write rows as CSV");
    if (!grew) {
      size_t nl = csv.find('\n');
      csv = nl == Str::npos ? Str() : csv.substr(nl + 1);
    } else if (_blocks++ > 0) {
      csv = "\n" + csv;
    }
    _rows += rows.size();
    return writeChunk(csv);
  }

  void serve() {
    const HTTPRequest* req = _conn._pRequest;
    Str user;
    HTTPReply* refusal = nullptr;
    if (!_auth.authenticate(req, user, refusal)) {
      reply(refusal ? refusal : HTTPReply::createErrorXMLReply(401, "WARN", "Authentication required"));
      return;
    }
    const Str* pipeline = firstParam(*req, "pipeline");
    const Str* output = firstParam(*req, "output");
    if (!pipeline || pipeline->empty()) {
      reply(HTTPReply::createErrorXMLReply(400, "FATAL", "The parameter 'pipeline' is required"));
      return;
    }
    if (output && *output != "csv") {
      reply(HTTPReply::createErrorXMLReply(400, "FATAL", "Only output=csv is served here"));
      return;
    }
    SearchResultsInfo info;
    if (!parseTime(firstParam(*req, "start_time"), info.earliestTime) ||
        !parseTime(firstParam(*req, "end_time"), info.latestTime)) {
      reply(HTTPReply::createErrorXMLReply(400, "FATAL", "Invalid start_time or end_time"));
      return;
    }
    size_t maxCount = 10000;
    if (const Str* mc = firstParam(*req, "max_count")) maxCount = strtoul(mc->c_str(), nullptr, 10);
    const Str* qid = firstParam(*req, "queryid");
    info.queryId = qid ? *qid : _cancelId;
    info.cancelId = _cancelId;
    info.searchText = *pipeline;
    info.userContext = user;
    gLogger.info("user %s streams search '%s' (query id %s)", user.c_str(), pipeline->c_str(), info.queryId.c_str());

    // The head's user's role filters ("srch_filter", repeated) narrow what
    // this server's user may see; they never widen it.
    UserContext ctx;
    ctx.user = user;
    std::vector<Str> forwarded;
    auto fw = req->getParams().find("srch_filter");
    if (fw != req->getParams().end()) forwarded = fw->second;
    ctx.searchFilters = UserContext::combineFilters(UserManager::getSearchFilters(user), forwarded);
    UserContext::Scope scope(ctx);
    PipelineSplit split(SearchParser::parse(*pipeline, true), info);
    Str head = "HTTP/1.1 200 OK\r\nContent-Type: text/csv; charset=utf-8\r\nTransfer-Encoding: chunked\r\n"
               "Cache-Control: no-cache\r\nConnection: close\r\n\r\n";
    if (!_server->writeToStream(_fd, head.data(), head.size())) return;
    _headersSent = true;

    SearchResults batch, gathered;
    bool limitEvents = !split.needsAllRows() && maxCount > 0;
    if (split.hasPrefix()) {
      bool more = true;
      while (more && SearchCancel::instance()->cont(_cancelId)) {
        more = split.fetch(batch, info);
        if (!split.map(batch, info)) more = false;
        if (split.rest().empty()) {
          if (limitEvents && _rows + batch.size() >= maxCount) {
            while (_rows + batch.size() > maxCount) {
              delete batch.back();
              batch.pop_back();
            }
            more = false;
          }
          if (!writeRows(batch)) return;
        } else {
          gathered.takeRows(batch);
        }
      }
    }
    if (!split.rest().empty() && SearchCancel::instance()->cont(_cancelId)) {
      split.reduce(gathered, info);
      if (!writeRows(gathered)) return;
    }
    if (!SearchCancel::instance()->cont(_cancelId)) return;  // cut short
    static const char kEnd[] = "0\r\n\r\n";
    _server->writeToStream(_fd, kEnd, sizeof kEnd - 1);
  }

  HTTPAuthManager& _auth;
  HTTPServer* _server;
  TcpPolledFd* _fd;
  const FdConnectionData& _conn;
  Str _cancelId;
  bool _headersSent = false;
  std::atomic<bool> _finished{false};
  std::atomic<bool> _cancelled{false};
  std::vector<Str> _header;
  std::set<Str> _known;
  size_t _blocks = 0, _rows = 0;
};

StreamedSearch::StreamedSearch(HTTPAuthManager* auth) : _auth(auth ? auth : &HTTPAuthManager::instance()) {}

StreamedSearch::~StreamedSearch() { stopAll(); }

void StreamedSearch::handleStream(HTTPServer* server, TcpPolledFd* fd, const FdConnectionData& conn) {
  _workers.add(std::make_unique<Worker>(*_auth, server, fd, conn))->go();
}

void StreamedSearch::stopAll() {
  _workers.stopAll([](Worker& w) { w.cancel(); });
}

size_t StreamedSearch::workers() const { return _workers.size(); }

size_t StreamedSearch::running() const { return _workers.running(); }
