#include "search/dispatch/SavedSearchesHandler.h"

#include <memory>
#include <set>
#include <vector>

#include "framework/CronInterval.h"
#include "framework/SavedVelmor.h"
#include "framework/SavedVelmorManager.h"
#include "framework/http/AtomEntry.h"
#include "framework/http/AtomFeed.h"
#include "framework/http/FdConnectionData.h"
#include "framework/http/HTTPReply.h"
#include "framework/http/HTTPRequest.h"
#include "libbundle/StringMgr.h"
#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "search/dispatch/DispatchSearch.h"
#include "search/dispatch/JobDocuments.h"
#include "search/dispatch/JobResultsFormatter.h"
#include "search/dispatch/SavedSearchScheduler.h"
#include "util/Logger.h"

static Logger gLogger("SavedSearchesHandler");

namespace {

const char* const kHelp =
    "sample forms (below /services):\n"
    "  GET    saved/searches                  [output_mode=atom|xml|json|csv]\n"
    "  POST   saved/searches                  name=<name> query=<search> [description=<text>] [schedule=<cron>]\n"
    "                                         [enableSched=true|false] [tags=<a b>] [isGlobal=true|false]\n"
    "  GET    saved/searches/<name>\n"
    "  POST   saved/searches/<name>           <fields to change>\n"
    "  DELETE saved/searches/<name>\n"
    "  POST   saved/searches/<name>/rename    newName=<name>\n"
    "  POST   saved/searches/<name>/dispatch  [dispatch.earliest_time=<t>] [dispatch.latest_time=<t>]\n"
    "  GET    saved/searches/<name>/history\n"
    "  and the same below saved/eventtypes (without dispatch and history)\n";

// The job parameter each "dispatch.<x>" stands for.
const std::pair<const char*, const char*> kDispatchParams[] = {
    {"dispatch.earliest_time", "start_time"},   {"dispatch.latest_time", "end_time"},
    {"dispatch.time_format", "time_format"},    {"dispatch.max_count", "max_count"},
    {"dispatch.status_buckets", "status_buckets"}, {"dispatch.ttl", "timeout"},
};

// Fields the store keeps for itself.
const std::set<Str> kReadOnlyFields = {"isEventType", "userid", "nextrun"};

const std::vector<Str>& searchFields() {
  static const std::vector<Str> f = {"name",    "query", "description", "schedule", "enableSched",
                                     "nextrun", "owner", "tags",        "isGlobal"};
  return f;
}
const std::vector<Str>& eventTypeFields() {
  static const std::vector<Str> f = {"name", "query", "description", "owner", "tags", "isGlobal"};
  return f;
}
const std::vector<Str>& historyFields() {
  static const std::vector<Str> f = {"sid", "time", "done", "count"};
  return f;
}

const Str& text(const char* key) { return StringMgr::str(key); }

HTTPReply* failure(int status, const Str& message) {
  return HTTPReply::createErrorXMLReply(status, status == 401 ? "WARN" : "ERROR", message);
}
HTTPReply* failureKey(int status, const char* key) { return failure(status, text(key)); }
HTTPReply* failureKeyS(int status, const char* key, const Str& arg) {
  return failure(status, Str::fromFormat(text(key).c_str(), arg.c_str()));
}

void splitPath(const Str& path, std::vector<Str>& out) {
  size_t pos = 0;
  while (pos <= path.size()) {
    size_t slash = path.find('/', pos);
    if (slash == Str::npos) slash = path.size();
    if (slash > pos) out.push_back(Str(std::string(path, pos, slash - pos)));
    pos = slash + 1;
  }
}

bool isGet(const HTTPRequest* req) { return req->method() == "GET" || req->method() == "HEAD"; }

Str urlBaseOf(const FdConnectionData& conn, const HTTPRequest* req) {
  return Str(conn._ssl ? "https://" : "http://") + req->getHost();
}

const char* typeOf(bool isEventType) { return isEventType ? "eventtype" : "savedsearch"; }
Str collectionPath(bool isEventType) {
  return isEventType ? "/services/saved/eventtypes" : "/services/saved/searches";
}
const char* notFoundKey(bool isEventType) {
  return isEventType ? "REST_SAVED_EVENTTYPE_NOT_FOUND__S" : "REST_SAVED_NOT_FOUND__S";
}

// Every parameter once, the body's value before the query's.
std::vector<std::pair<Str, Str>> paramsOf(const HTTPRequest* req) {
  std::vector<std::pair<Str, Str>> out;
  std::set<Str> seen;
  for (const HTTPRequest::Params* params : {&req->postParams(), &req->getParams()})
    for (const auto& kv : *params)
      if (!kv.second.empty() && seen.insert(kv.first).second) out.emplace_back(kv.first, kv.second.front());
  return out;
}

// "true"/"false" for the forms of a flag; false when it is none of them.
bool normalFlag(const Str& v, Str& out) {
  Str l = lowercase(v.trim());
  if (l == "true" || l == "1" || l == "yes") {
    out = "true";
    return true;
  }
  if (l == "false" || l == "0" || l == "no" || l.empty()) {
    out = "false";
    return true;
  }
  return false;
}

void setField(SearchResults& rows, SearchResult* row, const char* key, const Str& value) {
  row->setValue(rows.keyIndex(key, true), value);
}

}  // namespace

SavedSearchesHandler::SavedSearchesHandler(DispatchSearch& jobs, const Pathname& dispatchRoot)
    : _jobs(jobs), _root(dispatchRoot) {}

int SavedSearchesHandler::statusOfError(const Str& err) {
  static const std::pair<const char*, int> kTable[] = {
      {"No name specified", 400},
      {"No isEventType specified", 400},
      {"You don't have permission", 401},
      {"You do not have sufficient privileges", 401},
      {"already exists", 409},
      {"Could not find", 404},
      {"Unable to save", 500},
      {"Unable to delete", 500},
  };
  for (const auto& [fragment, status] : kTable)
    if (err.find(fragment) != Str::npos) return status;
  return 400;
}

void SavedSearchesHandler::toRows(const std::vector<SavedVelmor>& list, bool isEventType, time_t now,
                                  SearchResults& out) {
  for (const SavedVelmor& s : list) {
    SearchResult* r = out.addNewResult();
    setField(out, r, "name", s.name);
    setField(out, r, "query", s.query);
    setField(out, r, "description", s.description);
    if (!isEventType) {
      setField(out, r, "schedule", s.schedule);
      setField(out, r, "enableSched", s.scheduled() ? "true" : "false");
      time_t next = s.scheduled() ? SavedVelmorManager::instance().getNextRun(s, now) : 0;
      setField(out, r, "nextrun", next > 0 ? Str::fromFormat("%lld", static_cast<long long>(next)) : Str());
    }
    setField(out, r, "owner", s.userid);
    setField(out, r, "tags", s.tags);
    setField(out, r, "isGlobal", s.global() ? "true" : "false");
  }
}

HTTPReply* SavedSearchesHandler::handleRequest(const FdConnectionData& conn, const HTTPRequest* req,
                                               const Str& path, const RestMapData& stanza) {
  std::vector<Str> parts;
  splitPath(path, parts);
  if (parts.size() < 2) return HTTPReply::createReply(200, kHelp, "text/plain", false);
  bool isEventType = parts[1] == "eventtypes";
  if ((parts[1] != "searches" && !isEventType) || parts.size() > 4)
    return failureKey(404, "REST_SEARCH_UNKNOWN_ENDPOINT");
  const Str& method = req->method();
  if (parts.size() == 2) {
    if (isGet(req)) return list(conn, req, isEventType);
    if (method == "POST") return create(conn, req, isEventType);
    return failureKey(404, "REST_SEARCH_UNKNOWN_ENDPOINT");
  }
  const Str& name = parts[2];
  if (parts.size() == 3) {
    if (isGet(req)) return one(conn, req, name, isEventType, 200);
    if (method == "POST") return edit(conn, req, name, isEventType);
    if (method == "DELETE") return remove(req, name, isEventType);
    return failureKey(404, "REST_SEARCH_UNKNOWN_ENDPOINT");
  }
  const Str& what = parts[3];
  if (what == "rename" && method == "POST") return rename(conn, req, name, isEventType);
  if (!isEventType && what == "dispatch" && method == "POST") return dispatch(conn, req, name, stanza);
  if (!isEventType && what == "history" && isGet(req)) return history(conn, req, name);
  return failureKey(404, "REST_SEARCH_UNKNOWN_ENDPOINT");
}

HTTPReply* SavedSearchesHandler::rows(const FdConnectionData& conn, const HTTPRequest* req, const Str& title,
                                      const Str& selfPath, const SearchResults& rows,
                                      const std::vector<Str>& fields, bool single, int status) const {
  Str mode = "atom";
  if (const Str* m = req->param("output_mode")) mode = *m;
  if (mode != "atom") {
    if (mode == "raw" || !JobResultsFormatter::isOutputMode(mode))
      return failureKey(400, "REST_SAVED_INVALID_OUTPUT_MODE");
    Str body;
    JobResultsFormatter::format(rows, mode, fields, "raw", body);
    return HTTPReply::createReply(status, body, JobResultsFormatter::contentType(mode), false);
  }
  const Str urlBase = urlBaseOf(conn, req);
  const Str updated = JobDocuments::rfc3339(time(nullptr));
  // History entries point at the jobs; the others at themselves.
  const bool isHistory = fields.front() == "sid";
  auto entryOf = [&](const SearchResult* r, AtomEntry& e) {
    Str key;
    r->getValue(fields.front(), key);
    e.title = key;
    e.id = urlBase + (isHistory ? Str("/services/search/jobs") : selfPath) + "/" + HTTPRequest::urlEncode(key);
    e.updated = updated;
    if (!isHistory) r->getValue("owner", e.author);
    e.links.push_back(AtomLink{e.id, "alternate", ""});
    for (const Str& f : fields) {
      Str v;
      r->getValue(f, v);
      Str flat;
      for (char c : v) flat += c == '\n' ? Str("\\n") : Str(1, c);
      e.content += f + "=" + flat + "\n";
    }
  };
  HTTPReply* reply = nullptr;
  if (single) {
    AtomEntry e;
    entryOf(rows.front(), e);
    reply = HTTPReply::createAtomReply(e);
  } else {
    AtomFeed feed;
    feed.title = title;
    feed.id = urlBase + selfPath;
    feed.updated = updated;
    feed.links.push_back(AtomLink{selfPath, "self", ""});
    for (const SearchResult* r : rows) {
      feed.entries.emplace_back();
      entryOf(r, feed.entries.back());
    }
    reply = HTTPReply::createAtomReply(feed);
  }
  reply->setStatus(status);
  return reply;
}

HTTPReply* SavedSearchesHandler::list(const FdConnectionData& conn, const HTTPRequest* req, bool isEventType) const {
  std::vector<SavedVelmor> all;
  SavedVelmorManager::instance().getAllVelmors(typeOf(isEventType), all, req->user());
  SearchResults out;
  toRows(all, isEventType, time(nullptr), out);
  // The columns exist even when the list is empty.
  for (const Str& f : isEventType ? eventTypeFields() : searchFields()) out.keyIndex(f, true);
  return rows(conn, req, isEventType ? "Event types" : "Saved searches", collectionPath(isEventType), out,
              isEventType ? eventTypeFields() : searchFields(), false, 200);
}

HTTPReply* SavedSearchesHandler::one(const FdConnectionData& conn, const HTTPRequest* req, const Str& name,
                                     bool isEventType, int status) const {
  SavedVelmor s;
  if (!SavedVelmorManager::instance().getVelmorByKey(name, typeOf(isEventType), s, req->user()))
    return failureKeyS(404, notFoundKey(isEventType), name);
  SearchResults out;
  toRows({s}, isEventType, time(nullptr), out);
  HTTPReply* reply = rows(conn, req, s.name, collectionPath(isEventType), out,
                          isEventType ? eventTypeFields() : searchFields(), true, status);
  if (status == 201) reply->addHeader("Location", collectionPath(isEventType) + "/" + HTTPRequest::urlEncode(s.name));
  return reply;
}

bool SavedSearchesHandler::applyFields(const HTTPRequest* req, SavedVelmor& s, bool creating, HTTPReply*& bad) const {
  for (const auto& [rawKey, value] : paramsOf(req)) {
    Str key = rawKey == "search" ? Str("query") : rawKey;
    if (key == "output_mode" || (key == "name" && creating)) continue;
    Str* field = key == "name" ? nullptr : s.field(key);
    if (field == nullptr) {
      bad = failureKeyS(400, "REST_SAVED_UNKNOWN_PARAMETER__S", rawKey);
      return false;
    }
    if (kReadOnlyFields.count(key)) {
      bad = failureKeyS(400, "REST_SAVED_READ_ONLY_FIELD__S", rawKey);
      return false;
    }
    if (key == "isGlobal" || key == "enableSched") {
      if (!normalFlag(value, *field)) {
        bad = failureKeyS(400, "REST_SAVED_INVALID_FLAG__S", rawKey);
        return false;
      }
      continue;
    }
    *field = value;
  }
  if (!s.eventType() && s.scheduled()) {
    CronInterval cron(s.schedule.trim());
    if (!cron.isValid() || s.schedule.trim().empty()) {
      Str why = s.schedule.trim().empty() ? Str("it is empty") : cron.error();
      bad = failure(400, Str::fromFormat(text("REST_SAVED_INVALID_SCHEDULE__S_S").c_str(), s.schedule.c_str(),
                                         why.c_str()));
      return false;
    }
  }
  return true;
}

HTTPReply* SavedSearchesHandler::save(const FdConnectionData& conn, const HTTPRequest* req, SavedVelmor& s,
                                      int status) const {
  Str err;
  BundleType where = s.global() ? BundleType::global : BundleType::user;
  if (!SavedVelmorManager::instance().save(s, where, req->user(), err)) {
    if (err.empty()) err = "Unable to save velmor";
    gLogger.info("Saving '%s' for '%s' refused: %s", s.name.c_str(), req->user().c_str(), err.c_str());
    return failure(statusOfError(err), err);
  }
  return one(conn, req, s.name, s.eventType(), status);
}

HTTPReply* SavedSearchesHandler::create(const FdConnectionData& conn, const HTTPRequest* req, bool isEventType) const {
  SavedVelmor s;
  s.isEventType = isEventType ? "true" : "false";
  if (const Str* n = req->param("name")) s.name = n->trim();
  HTTPReply* bad = nullptr;
  if (!applyFields(req, s, true, bad)) return bad;
  // The store words a missing name itself.
  if (!s.name.empty()) {
    if (SavedVelmorManager::instance().gotVelmorByKey(s.name, typeOf(isEventType), Str()))
      return failureKeyS(409, isEventType ? "REST_SAVED_EVENTTYPE_EXISTS__S" : "REST_SAVED_EXISTS__S", s.name);
    if (s.query.trim().empty()) return failureKey(400, "REST_SAVED_NO_QUERY");
  }
  return save(conn, req, s, 201);
}

HTTPReply* SavedSearchesHandler::edit(const FdConnectionData& conn, const HTTPRequest* req, const Str& name,
                                      bool isEventType) const {
  SavedVelmor s;
  if (!SavedVelmorManager::instance().getVelmorByKey(name, typeOf(isEventType), s, req->user()))
    return failureKeyS(404, notFoundKey(isEventType), name);
  s.isEventType = isEventType ? "true" : "false";
  HTTPReply* bad = nullptr;
  if (!applyFields(req, s, false, bad)) return bad;
  if (s.query.trim().empty()) return failureKey(400, "REST_SAVED_NO_QUERY");
  return save(conn, req, s, 200);
}

HTTPReply* SavedSearchesHandler::remove(const HTTPRequest* req, const Str& name, bool isEventType) const {
  SavedVelmorManager& store = SavedVelmorManager::instance();
  if (!store.gotVelmorByKey(name, typeOf(isEventType), req->user()))
    return failureKeyS(404, notFoundKey(isEventType), name);
  Str err;
  if (!store.remove(name, isEventType, req->user(), err)) return failure(statusOfError(err), err);
  gLogger.info("'%s' removed %s '%s'", req->user().c_str(), typeOf(isEventType), name.c_str());
  return HTTPReply::createErrorXMLReply(
      200, "INFO",
      Str::fromFormat(text(isEventType ? "REST_SAVED_EVENTTYPE_DELETED__S" : "REST_SAVED_DELETED__S").c_str(),
                      name.c_str()));
}

HTTPReply* SavedSearchesHandler::rename(const FdConnectionData& conn, const HTTPRequest* req, const Str& name,
                                        bool isEventType) const {
  const Str* newName = req->param("newName");
  if (newName == nullptr || newName->trim().empty()) return failureKey(400, "REST_SAVED_NO_NEW_NAME");
  SavedVelmorManager& store = SavedVelmorManager::instance();
  if (!store.gotVelmorByKey(name, typeOf(isEventType), req->user()))
    return failureKeyS(404, notFoundKey(isEventType), name);
  Str err;
  Str target = newName->trim();
  if (!store.rename(name, target, isEventType, req->user(), err)) return failure(statusOfError(err), err);
  return one(conn, req, target, isEventType, 200);
}

HTTPReply* SavedSearchesHandler::dispatch(const FdConnectionData& conn, const HTTPRequest* req, const Str& name,
                                          const RestMapData& stanza) const {
  SavedVelmor s;
  if (!SavedVelmorManager::instance().getVelmorByKey(name, "savedsearch", s, req->user()))
    return failureKeyS(404, "REST_SAVED_NOT_FOUND__S", name);
  Str body = "search=" + HTTPRequest::urlEncode(SavedSearchScheduler::jobText(s.query));
  for (const auto& [key, value] : paramsOf(req)) {
    const char* jobKey = nullptr;
    for (const auto& [ours, theirs] : kDispatchParams)
      if (key == ours) jobKey = theirs;
    if (jobKey == nullptr) return failureKeyS(400, "REST_SAVED_UNKNOWN_PARAMETER__S", key);
    body += Str("&") + jobKey + "=" + HTTPRequest::urlEncode(value);
  }
  // The job is posted as the caller would post it to search/jobs, to the
  // same handler object.
  Str head = "POST /services/search/jobs HTTP/1.1\r\nHost: " + req->getHost() +
             "\r\nContent-Type: application/x-www-form-urlencoded\r\n" +
             Str::fromFormat("Content-Length: %zu\r\n\r\n", body.size());
  HTTPRequest jobReq;
  Str err;
  if (!jobReq.parse(head, body, err)) {
    gLogger.error("Could not build the job request of saved search '%s': %s", name.c_str(), err.c_str());
    return failureKey(500, "REST_SEARCH_INTERNAL_SERVER_ERROR");
  }
  jobReq.setUser(req->user());
  gLogger.info("'%s' dispatches saved search '%s'", req->user().c_str(), name.c_str());
  return _jobs.handleRequest(conn, &jobReq, "/search/jobs", stanza);
}

HTTPReply* SavedSearchesHandler::history(const FdConnectionData& conn, const HTTPRequest* req, const Str& name) const {
  SavedVelmor s;
  if (!SavedVelmorManager::instance().getVelmorByKey(name, "savedsearch", s, req->user()))
    return failureKeyS(404, "REST_SAVED_NOT_FOUND__S", name);
  SearchResults out;
  for (const Str& f : historyFields()) out.keyIndex(f, true);
  for (const SavedSearchScheduler::Run& run : SavedSearchScheduler::history(_root, s.userid, s.name)) {
    JobStatus st;
    bool known = JobDocuments::readStatus(_root / run.sid, run.sid, st);
    SearchResult* r = out.addNewResult();
    setField(out, r, "sid", run.sid);
    setField(out, r, "time", Str::fromFormat("%lld", static_cast<long long>(run.time)));
    setField(out, r, "done", known && st.done ? "1" : "0");
    setField(out, r, "count", known ? Str::fromFormat("%ld", st.count) : Str());
  }
  return rows(conn, req, "Scheduled runs of " + s.name,
              "/services/saved/searches/" + HTTPRequest::urlEncode(s.name) + "/history", out, historyFields(), false,
              200);
}
