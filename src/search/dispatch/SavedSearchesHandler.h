// SavedSearchesHandler: the REST handler of saved searches and event types
// (restmap.conf stanzas of type "saved"; the path behind /services starts
// with "/saved"). Both live in the saved search store (SavedVelmorManager);
// "searches" and "eventtypes" name its two sides:
//
//   GET    saved/searches              list of what the caller may see
//   POST   saved/searches              name, query (or search), description,
//                                      schedule, enableSched, tags, isGlobal
//                                      and the other stored fields -> 201,
//                                      the new entry, "Location: .../<name>"
//   GET    saved/searches/NAME         one
//   POST   saved/searches/NAME         the fields to change -> 200, the entry
//   DELETE saved/searches/NAME         200 with a message
//   POST   saved/searches/NAME/rename  newName -> 200, the entry under it
//   POST   saved/searches/NAME/dispatch
//                                      runs the query as a search job of the
//                                      caller, as POST search/jobs does (the
//                                      same handler object answers: 201 with
//                                      the sid); optional dispatch.earliest_time,
//                                      dispatch.latest_time, dispatch.time_format,
//                                      dispatch.max_count, dispatch.status_buckets,
//                                      dispatch.ttl
//   GET    saved/searches/NAME/history the scheduled runs still on disk
//                                      (SavedSearchScheduler), newest first
//   the same below saved/eventtypes, without dispatch and history.
//
// Output: a list or an entry is Atom by default (like the jobs feed; the
// content holds "key=value" lines); output_mode=xml|json|csv gives rows with
// the fields name, query, description, schedule, enableSched, nextrun (epoch
// seconds of the next scheduled run, "" when not scheduled), owner, tags,
// isGlobal (event types: name, query, description, owner, tags, isGlobal);
// history rows are sid, time, done, count.
//
// Statuses: the store's refusals come with its own texts and map as
//   "No name specified", "No isEventType specified"          400
//   "You don't have permission  to ...", "You do not have sufficient
//    privileges to change search schedules."                   401 (WARN), as
//                                     the dispatcher refuses a capability
//   "... already exists ..."                                  409
//   "Could not find ..."                                      404
//   "Unable to save ...", "Unable to delete ..."              500
//   anything else                                             400
// A name the caller cannot see is 404, an unknown parameter 400.
//
// Ownership: the service owns the handler; it points at the jobs handler,
// which must outlive it. Threads: handleRequest runs on many request threads
// at once; the handler has no mutable state (the store locks itself).
#pragma once

#include <ctime>
#include <vector>

#include "framework/rest/MRestHandler.h"
#include "util/Pathname.h"
#include "util/Str.h"

class DispatchSearch;
class HTTPReply;
class HTTPRequest;
class SearchResults;
struct SavedVelmor;

class SavedSearchesHandler : public MRestHandler {
 public:
  // Jobs of "dispatch" are posted to `jobs`; the runs of "history" are
  // looked for below `dispatchRoot`.
  SavedSearchesHandler(DispatchSearch& jobs, const Pathname& dispatchRoot);

  HTTPReply* handleRequest(const FdConnectionData& conn, const HTTPRequest* req, const Str& path,
                           const RestMapData& stanza) override;

  // The status a refusal of the store answers with (table above).
  static int statusOfError(const Str& err);
  // The rows of searches as the list gives them at time `now`.
  static void toRows(const std::vector<SavedVelmor>& list, bool isEventType, time_t now, SearchResults& out);

 private:
  HTTPReply* list(const FdConnectionData& conn, const HTTPRequest* req, bool isEventType) const;
  HTTPReply* one(const FdConnectionData& conn, const HTTPRequest* req, const Str& name, bool isEventType,
                 int status) const;
  HTTPReply* create(const FdConnectionData& conn, const HTTPRequest* req, bool isEventType) const;
  HTTPReply* edit(const FdConnectionData& conn, const HTTPRequest* req, const Str& name, bool isEventType) const;
  HTTPReply* remove(const HTTPRequest* req, const Str& name, bool isEventType) const;
  HTTPReply* rename(const FdConnectionData& conn, const HTTPRequest* req, const Str& name, bool isEventType) const;
  HTTPReply* dispatch(const FdConnectionData& conn, const HTTPRequest* req, const Str& name,
                      const RestMapData& stanza) const;
  HTTPReply* history(const FdConnectionData& conn, const HTTPRequest* req, const Str& name) const;

  // Copies the request's fields onto `s`; false with the reply in `bad`.
  bool applyFields(const HTTPRequest* req, SavedVelmor& s, bool creating, HTTPReply*& bad) const;
  HTTPReply* save(const FdConnectionData& conn, const HTTPRequest* req, SavedVelmor& s, int status) const;
  // `rows` in the requested output mode: Atom entries titled by `fields[0]`,
  // or rows of `fields`.
  HTTPReply* rows(const FdConnectionData& conn, const HTTPRequest* req, const Str& title, const Str& selfPath,
                  const SearchResults& rows, const std::vector<Str>& fields, bool single, int status) const;

  DispatchSearch& _jobs;
  Pathname _root;
};
