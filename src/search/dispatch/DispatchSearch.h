// DispatchSearch: the REST handler of search jobs (restmap.conf stanzas of
// type "search"; the path behind /services starts with "/search"):
//
//   GET  search/jobs                   feed of the caller's jobs (all jobs for
//                                      a caller with "admin_all_objects");
//                                      also POST without "search"
//   POST search/jobs                   search, max_count, status_buckets,
//                                      timeout, time_format, start_time,
//                                      end_time, with_event_types -> 201, the
//                                      sid, and "Location: /services/search/jobs/SID"
//   GET  search/jobs/SID               the job's status entry
//   DELETE search/jobs/SID             writes the "cancel" marker
//   GET  search/jobs/SID/events        offset, count, field_list, output_mode,
//   GET  search/jobs/SID/results       segmentation, time_format, start_time,
//                                      end_time; 204 when there are no rows
//   GET  search/jobs/SID/timeline      time_format
//   GET  search/jobs/SID/summary       top_count
//   POST search/jobs/SID/control       action = pause | unpause | finalize |
//                                      cancel | save | unsave | touch
// Rows: "count" defaults to 100 and 0 means as many as [restapi]
// maxresultrows of limits.conf allows; a larger count is refused. A negative
// "offset" counts from the last row. Events are those with _time in
// [start_time, end_time) (each side open when not given), read with
// Timeliner::readEvents; results are the rows of "results.csv" (the time
// parameters are checked but do not filter them).
// Fewer than two path components get the plain-text help of these forms.
// Errors are XML messages with the texts of the REST_SEARCH keys of the
// strings catalogue: 404 unknown endpoint or sid, 401 permission denied, 500
// internal error, 400 every bad parameter.
//
// The job itself is started by a JobStarter, given the job's directory
// (made empty for it) and the validated settings; the service's starter runs
// a DispatchThread, tests may give their own. The handler and the running
// job share only the job's directory: the handler writes marker files and
// reads whole files.
//
// Ownership: the service owns the handler. Threads: handleRequest runs on
// many request threads at once; the handler has no mutable state.
#pragma once

#include <functional>

#include "framework/rest/MRestHandler.h"
#include "util/Pathname.h"
#include "util/Str.h"

class HTTPReply;
class HTTPRequest;

class DispatchSearch : public MRestHandler {
 public:
  // The settings of a new job after validation. The limits start from the
  // [search] stanza of limits.conf and the request's parameters replace them.
  struct JobRequest {
    Pathname dir;
    Str sid;
    Str search;
    Str user;
    long statusBuckets = 0;
    long ttl = 0;
    long maxCount = 0;
    Str setStart, setEnd;  // epoch seconds, "" when open
    bool eventTyping = false;
  };
  // Starts the job; false with the reason in `err` when the search is at
  // fault (answered 400; the directory is removed).
  using JobStarter = std::function<bool(const JobRequest& job, Str& err)>;

  // Jobs live below `root` (DispatchDirs::dispatchRoot() in the service).
  // REQUIRES: starter is callable.
  DispatchSearch(const Pathname& root, JobStarter starter);
  // The service's: jobs below DispatchDirs::dispatchRoot(), run by
  // threadStarter().
  DispatchSearch();

  // Evaluates the search on the calling thread (argument faults come back
  // at once) and runs the job on a DispatchThread of its own.
  static JobStarter threadStarter();

  HTTPReply* handleRequest(const FdConnectionData& conn, const HTTPRequest* req, const Str& path,
                           const RestMapData& stanza) override;

  // The capability that lets a user read and steer every user's jobs.
  static const char* const kAdminCapability;

 private:
  HTTPReply* listJobs(const FdConnectionData& conn, const HTTPRequest* req) const;
  HTTPReply* createJob(const HTTPRequest* req) const;
  HTTPReply* jobRequest(const FdConnectionData& conn, const HTTPRequest* req, const Str& sid,
                        const Str& what) const;
  HTTPReply* rows(const HTTPRequest* req, const Pathname& dir, bool events) const;
  HTTPReply* control(const HTTPRequest* req, const Pathname& dir) const;

  Pathname _root;
  JobStarter _starter;
};
