#include "search/dispatch/DispatchSearch.h"

#include <sys/time.h>

#include <algorithm>
#include <climits>
#include <ctime>
#include <memory>
#include <vector>

#include "framework/UserManager.h"
#include "framework/http/AtomEntry.h"
#include "framework/http/AtomFeed.h"
#include "framework/http/FdConnectionData.h"
#include "framework/http/HTTPReply.h"
#include "framework/http/HTTPRequest.h"
#include "libbundle/StringMgr.h"
#include "search/IdProvider.h"
#include "search/SL.h"
#include "search/SLLimits.h"
#include "search/SearchResults.h"
#include "search/dispatch/DispatchDirs.h"
#include "search/dispatch/DispatchThread.h"
#include "search/dispatch/JobDocuments.h"
#include "search/dispatch/JobResultsFormatter.h"
#include "search/dispatch/JobsFeed.h"
#include "search/dispatch/Timeliner.h"
#include "util/Logger.h"

static Logger gLogger("DispatchSearch");

const char* const DispatchSearch::kAdminCapability = "admin_all_objects";

namespace {

const char* const kHelp =
    "sample forms (below /services):\n"
    "  GET    search/jobs\n"
    "  POST   search/jobs                search=<search> [max_count=<n>] [status_buckets=<n>] [timeout=<seconds>]\n"
    "                                    [time_format=<format>] [start_time=<time>] [end_time=<time>]\n"
    "                                    [with_event_types=0|1]\n"
    "  GET    search/jobs/<sid>\n"
    "  DELETE search/jobs/<sid>\n"
    "  GET    search/jobs/<sid>/events   [offset=<n>] [count=<n>] [field_list=<a,b>] [output_mode=xml|json|csv|raw]\n"
    "                                    [segmentation=none|raw|inner|outer|full] [time_format=<format>]\n"
    "                                    [start_time=<time>] [end_time=<time>]\n"
    "  GET    search/jobs/<sid>/results  (the parameters of events)\n"
    "  GET    search/jobs/<sid>/timeline [time_format=<format>]\n"
    "  GET    search/jobs/<sid>/summary  [top_count=<n>]\n"
    "  POST   search/jobs/<sid>/control  action=pause|unpause|finalize|cancel|save|unsave|touch\n";

HTTPReply* failure(int status, const char* key) {
  return HTTPReply::createErrorXMLReply(status, "ERROR", StringMgr::str(key));
}
HTTPReply* badRequest(const char* key) { return failure(400, key); }
HTTPReply* message(const char* key) { return HTTPReply::createErrorXMLReply(200, "INFO", StringMgr::str(key)); }

bool isGet(const HTTPRequest* req) { return req->method() == "GET" || req->method() == "HEAD"; }

void splitPath(const Str& path, std::vector<Str>& out) {
  size_t pos = 0;
  while (pos <= path.size()) {
    size_t slash = path.find('/', pos);
    if (slash == Str::npos) slash = path.size();
    if (slash > pos) out.push_back(Str(std::string(path, pos, slash - pos)));
    pos = slash + 1;
  }
}

// An optional integer parameter: absent keeps `value`; false when present
// but not an integer of at least `min`.
bool intParam(const HTTPRequest* req, const char* key, long min, long& value) {
  const Str* p = req->param(key);
  if (p == nullptr) return true;
  long v = 0;
  if (!p->trim().tryToLong(v) || v < min) return false;
  value = v;
  return true;
}

long limitOf(const char* stanza, const char* key, unsigned long dflt) {
  unsigned long v = dflt;
  SL::getLimit(stanza, key, v);
  return static_cast<long>(v);
}

Str urlBaseOf(const FdConnectionData& conn, const HTTPRequest* req) {
  return Str(conn._ssl ? "https://" : "http://") + req->getHost();
}

// Keeps rows [offset, offset + count) of `all` (a negative offset counts
// from the end) in `out`.
void slice(const SearchResults& all, long offset, long count, SearchResults& out) {
  long size = static_cast<long>(all.size());
  long first = offset < 0 ? std::max(0L, size + offset) : offset;
  if (first >= size) return;
  out.append(all, static_cast<size_t>(first), static_cast<size_t>(std::min(count, size - first)));
}

}  // namespace

DispatchSearch::DispatchSearch(const Pathname& root, JobStarter starter) : _root(root), _starter(std::move(starter)) {
  UserManager::registerCapability("search jobs", kAdminCapability);
}

DispatchSearch::DispatchSearch() : DispatchSearch(DispatchDirs::dispatchRoot(), threadStarter()) {}

DispatchSearch::JobStarter DispatchSearch::threadStarter() {
  return [](const JobRequest& job, Str& err) {
    DispatchOptions o;
    o.user = job.user;
    o.statusBuckets = job.statusBuckets;
    o.ttl = job.ttl;
    o.maxCount = job.maxCount;
    o.setStart = job.setStart;
    o.setEnd = job.setEnd;
    o.eventTyping = job.eventTyping;
    auto thread = std::make_unique<DispatchThread>(job.dir, job.sid, job.search, o);
    if (!thread->evaluate()) {
      err = thread->error();
      return false;
    }
    thread.release()->start();  // the thread deletes itself at its end
    return true;
  };
}

HTTPReply* DispatchSearch::handleRequest(const FdConnectionData& conn, const HTTPRequest* req, const Str& path,
                                         const RestMapData& /*stanza*/) {
  std::vector<Str> parts;
  splitPath(path, parts);
  if (parts.size() < 2) return HTTPReply::createReply(200, kHelp, "text/plain", false);
  if (parts[1] != "jobs" || parts.size() > 4) return failure(404, "REST_SEARCH_UNKNOWN_ENDPOINT");
  if (parts.size() == 2) {
    if (isGet(req) || (req->method() == "POST" && req->param("search") == nullptr)) return listJobs(conn, req);
    if (req->method() == "POST") return createJob(req);
    return failure(404, "REST_SEARCH_UNKNOWN_ENDPOINT");
  }
  return jobRequest(conn, req, parts[2], parts.size() == 4 ? parts[3] : Str());
}

HTTPReply* DispatchSearch::listJobs(const FdConnectionData& conn, const HTTPRequest* req) const {
  AtomFeed feed;
  bool seeAll = UserManager::checkUserPerms(kAdminCapability, req->user()) == 1;
  JobsFeed::build(_root, req->user(), seeAll, urlBaseOf(conn, req), time(nullptr), feed);
  return HTTPReply::createAtomReply(feed);
}

HTTPReply* DispatchSearch::createJob(const HTTPRequest* req) const {
  JobRequest job;
  job.search = *req->param("search");
  job.user = req->user();
  Str timeFormat = "%s";
  if (const Str* f = req->param("time_format")) timeFormat = *f;
  if (!JobDocuments::isTimeFormat(timeFormat)) return badRequest("REST_SEARCH_INVALID_TIME_FORMAT");
  double t = 0;
  if (const Str* s = req->param("start_time")) {
    if (!JobDocuments::parseTime(*s, timeFormat, t)) return badRequest("REST_SEARCH_INVALID_START_TIME");
    job.setStart = JobDocuments::formatTime(t, "%s");
  }
  if (const Str* s = req->param("end_time")) {
    if (!JobDocuments::parseTime(*s, timeFormat, t)) return badRequest("REST_SEARCH_INVALID_END_TIME");
    job.setEnd = JobDocuments::formatTime(t, "%s");
  }
  job.statusBuckets = limitOf("search", "status_buckets", 300);
  job.ttl = limitOf("search", "ttl", 600);
  job.maxCount = limitOf("search", "max_count", 10000);
  if (!intParam(req, "status_buckets", 0, job.statusBuckets)) return badRequest("REST_SEARCH_INVALID_STATUS_BUCKETS");
  if (!intParam(req, "timeout", 0, job.ttl)) return badRequest("REST_SEARCH_INVALID_TIMEOUT");
  if (!intParam(req, "max_count", 1, job.maxCount)) return badRequest("REST_SEARCH_INVALID_MAX_COUNT");
  if (const Str* e = req->param("with_event_types")) {
    Str v = e->trim();
    if (v != "0" && v != "1") return badRequest("REST_SEARCH_INVALID_WITH_EVENT_TYPES");
    job.eventTyping = v == "1";
  }
  job.sid = IdProvider::getNextId();
  job.dir = _root / job.sid;
  if (job.dir.exists()) job.dir.removeRecursive();
  if (!job.dir.mkdir_p()) {
    gLogger.error("Cannot make the job directory %s", job.dir.c_str());
    return failure(500, "REST_SEARCH_INTERNAL_SERVER_ERROR");
  }
  Str err;
  bool started = false;
  try {
    started = _starter(job, err);
  } catch (const std::exception& e) {
    err = e.what();
  }
  if (!started) {
    job.dir.removeRecursive();
    return HTTPReply::createErrorXMLReply(400, "ERROR", err);
  }
  HTTPReply* reply = HTTPReply::createReply(
      201, "<?xml version='1.0'?>\n<response><sid>" + HTTPReply::xmlEscape(job.sid) + "</sid></response>", "text/xml",
      false);
  reply->addHeader("Location", "/services/search/jobs/" + job.sid);
  return reply;
}

HTTPReply* DispatchSearch::jobRequest(const FdConnectionData& conn, const HTTPRequest* req, const Str& sid,
                                      const Str& what) const {
  if (sid.startswith('.') || sid.find('/') != Str::npos) return failure(404, "REST_SEARCH_UNKNOWN_SID");
  Pathname dir = _root / sid;
  JobStatus st;
  if (!dir.isDir() || !JobDocuments::readStatus(dir, sid, st)) return failure(404, "REST_SEARCH_UNKNOWN_SID");
  if (st.user != req->user() && UserManager::checkUserPerms(kAdminCapability, req->user()) != 1)
    return failure(401, "REST_SEARCH_PERMISSION_DENIED");

  if (what.empty()) {
    if (isGet(req)) {
      AtomEntry entry;
      JobDocuments::statusEntry(st, urlBaseOf(conn, req), time(nullptr), entry);
      return HTTPReply::createAtomReply(entry);
    }
    if (req->method() == "DELETE") {
      Pathname marker = dir / "cancel";
      if (!marker.exists() && !marker.openCreateOrReplace().isValid())
        return failure(500, "REST_SEARCH_INTERNAL_SERVER_ERROR");
      return message("REST_SEARCH_JOB_CANCELLED");
    }
    return failure(404, "REST_SEARCH_UNKNOWN_ENDPOINT");
  }
  if ((what == "events" || what == "results") && isGet(req)) return rows(req, dir, what == "events");
  if (what == "timeline" && isGet(req)) {
    Str timeFormat = "%s";
    if (const Str* f = req->param("time_format")) timeFormat = *f;
    if (!JobDocuments::isTimeFormat(timeFormat)) return badRequest("REST_SEARCH_INVALID_TIME_FORMAT");
    SearchResults buckets;
    Timeliner::readTimeline(dir, buckets);
    Str body;
    JobDocuments::timelineXML(buckets, st, timeFormat, body);
    return HTTPReply::createReply(200, body, "text/xml", false);
  }
  if (what == "summary" && isGet(req)) {
    long topCount = 10;
    if (!intParam(req, "top_count", 1, topCount)) return badRequest("REST_SEARCH_INVALID_TOP_COUNT");
    SearchResults summary;
    Timeliner::readSummary(dir, summary);
    Str body;
    JobDocuments::summaryXML(summary, st, topCount, body);
    return HTTPReply::createReply(200, body, "text/xml", false);
  }
  if (what == "control" && req->method() == "POST") return control(req, dir);
  return failure(404, "REST_SEARCH_UNKNOWN_ENDPOINT");
}

HTTPReply* DispatchSearch::rows(const HTTPRequest* req, const Pathname& dir, bool events) const {
  Str mode = "xml";
  if (const Str* m = req->param("output_mode")) mode = *m;
  if (!JobResultsFormatter::isOutputMode(mode)) return badRequest("REST_SEARCH_INVALID_OUTPUT_MODE");
  long maxRows = limitOf("restapi", "maxresultrows", 50000);
  long offset = 0, count = std::min(100L, maxRows);
  if (!intParam(req, "offset", LONG_MIN, offset)) return badRequest("REST_SEARCH_INVALID_OFFSET");
  if (!intParam(req, "count", 0, count)) return badRequest("REST_SEARCH_INVALID_COUNT");
  if (count > maxRows)
    return HTTPReply::createErrorXMLReply(
        400, "ERROR", Str::fromFormat("Requested count (%ld) exceeds limit specified in limits.conf (%ld)", count, maxRows));
  if (count == 0) count = maxRows;
  std::vector<Str> fields;
  if (const Str* f = req->param("field_list")) {
    size_t pos = 0;
    while (true) {
      size_t comma = f->find(',', pos);
      Str name = Str(std::string(*f, pos, comma == Str::npos ? Str::npos : comma - pos)).trim();
      if (name.empty()) return badRequest("REST_SEARCH_INVALID_FIELD_LIST");
      fields.push_back(name);
      if (comma == Str::npos) break;
      pos = comma + 1;
    }
  }
  Str segmentation = "raw";
  if (const Str* s = req->param("segmentation")) segmentation = *s;
  if (!JobResultsFormatter::isSegmentation(segmentation)) return badRequest("REST_SEARCH_INVALID_SEGMENTATION");
  Str timeFormat = "%s";
  if (const Str* f = req->param("time_format")) timeFormat = *f;
  if (!JobDocuments::isTimeFormat(timeFormat)) return badRequest("REST_SEARCH_INVALID_TIME_FORMAT");
  double et = 0, lt = 0;
  bool hasEt = false, hasLt = false;
  if (const Str* s = req->param("start_time")) {
    if (!JobDocuments::parseTime(*s, timeFormat, et)) return badRequest("REST_SEARCH_INVALID_START_TIME");
    hasEt = true;
  }
  if (const Str* s = req->param("end_time")) {
    if (!JobDocuments::parseTime(*s, timeFormat, lt)) return badRequest("REST_SEARCH_INVALID_END_TIME");
    hasLt = true;
  }

  SearchResults out;
  if (!events) {
    Pathname file = dir / "results.csv";
    if (offset >= 0) {
      out.fromCSV(file, static_cast<size_t>(offset), static_cast<size_t>(count));
    } else {
      SearchResults all;
      all.fromCSV(file);
      slice(all, offset, count, out);
    }
  } else {
    // Events in the order they were read, within [start_time, end_time).
    double from = hasEt ? et : 0, to = hasLt ? lt : 0;
    if (offset >= 0) {
      Timeliner::readEvents(dir, from, to, static_cast<size_t>(offset), static_cast<size_t>(count), out);
    } else {
      SearchResults all;
      Timeliner::readEvents(dir, from, to, 0, 0, all);
      slice(all, offset, count, out);
    }
  }
  if (out.empty()) return HTTPReply::createReplyNoData();
  Str body;
  JobResultsFormatter::format(out, mode, fields, segmentation, body);
  return HTTPReply::createReply(200, body, JobResultsFormatter::contentType(mode), false);
}

HTTPReply* DispatchSearch::control(const HTTPRequest* req, const Pathname& dir) const {
  std::vector<Str> actions;
  for (const HTTPRequest::Params* params : {&req->postParams(), &req->getParams()}) {
    auto it = params->find("action");
    if (it != params->end()) actions.insert(actions.end(), it->second.begin(), it->second.end());
  }
  if (actions.empty()) return badRequest("REST_SEARCH_MISSING_ACTION");
  if (actions.size() > 1) return badRequest("REST_SEARCH_ONLY_ONE_ACTION");
  const Str& action = actions.front();
  auto mark = [&dir](const char* name) {
    Pathname p = dir / name;
    return p.exists() || p.openCreateOrReplace().isValid();
  };
  auto unmark = [&dir](const char* name) {
    Pathname p = dir / name;
    return !p.exists() || p.unlink();
  };
  struct Action {
    const char* name;
    bool set;          // creates the marker, else removes it
    const char* marker;
    const char* key;
  };
  static const Action kActions[] = {
      {"pause", true, "pause", "REST_SEARCH_JOB_PAUSED"},
      {"unpause", false, "pause", "REST_SEARCH_JOB_UNPAUSED"},
      {"finalize", true, "finalize", "REST_SEARCH_JOB_FINALIZED"},
      {"cancel", true, "cancel", "REST_SEARCH_JOB_CANCELLED"},
      {"save", true, "save", "REST_SEARCH_JOB_SAVED"},
      {"unsave", false, "save", "REST_SEARCH_JOB_UNSAVED"},
  };
  for (const Action& a : kActions) {
    if (action != a.name) continue;
    if (!(a.set ? mark(a.marker) : unmark(a.marker))) return failure(500, "REST_SEARCH_INTERNAL_SERVER_ERROR");
    return message(a.key);
  }
  if (action == "touch") {
    if (utimes((dir / "status.csv").c_str(), nullptr) != 0) return failure(500, "REST_SEARCH_INTERNAL_SERVER_ERROR");
    return message("REST_SEARCH_JOB_TOUCHED");
  }
  return badRequest("REST_SEARCH_UNKNOWN_ACTION");
}
