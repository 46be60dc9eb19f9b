// VelmordHttp: the service's HTTP side: the server on the management port
// (and the SSL port, when one is set), the REST dispatcher behind it, the
// logins it serves through the configured authentication back end, the
// timer that drops idle sessions, and the search side that answers over it:
// the search commands, search jobs (/services/search/jobs, their reaper),
// saved searches and event types (/services/saved/..., and the scheduler of
// saved searches) and the streamed searches that peers ask for
// (/services/streams/search).
//
// DESIGN. start() runs on the main thread before the main loop turns: it
// reads server.conf (the -p option overrides the management port), loads the
// authentication back end (which seeds the first user from user-seed.conf on
// a first start), reads restmap.conf, binds the ports and starts accepting on
// the main loop. The search commands are registered here, before the
// pipelines build their indexes, so that the index processor registers the
// commands that read it. The shutdown level "APIs" stops it:
// signalShutdown() starts a thread that stops the scheduler of saved
// searches (its running runs are asked to stop), the streamed searches, stops
// accepting, waits for the request threads, closes every connection, stops
// the running jobs (each writes its status as stopped) and the reaper, then
// reports completion, all before the indexes close; join() (after the loop
// ended) waits for that thread.
//
// Ownership: Velmord owns it; the server, dispatcher and session manager are
// the process's singletons. Threads: start() and join() on the main thread;
// signalShutdown() on the main loop's thread.
#pragma once

#include <memory>

#include "framework/MShutdownHandler.h"
#include "util/Str.h"

class EventLoop;
class HTTPSessionSweeper;
class Thread;
class LoaderInfo;
class ServerInfoHandler;
class DispatchSearch;
class DispatchReaper;
class StreamedSearch;
class LiveTailStream;
class AuthorizationManagerVelmor;
class UsersHandler;
class StaticFileHandler;
class SavedSearchesHandler;
class SavedSearchScheduler;

class VelmordHttp : public MShutdownHandler {
 public:
  VelmordHttp(EventLoop& loop, LoaderInfo& loaderInfo);
  ~VelmordHttp() override;
  VelmordHttp(const VelmordHttp&) = delete;
  VelmordHttp& operator=(const VelmordHttp&) = delete;

  // False with the reason in `failure` when the server cannot listen.
  bool start(Str& failure);
  // Stops everything start() started; what the stopping thread runs.
  void stopAll();
  bool signalShutdown() override;
  // Waits for a shutdown started by signalShutdown() to finish.
  void join();

 private:
  EventLoop& _loop;
  LoaderInfo& _loaderInfo;
  std::unique_ptr<HTTPSessionSweeper> _sweeper;
  std::unique_ptr<ServerInfoHandler> _serverInfo;
  std::shared_ptr<AuthorizationManagerVelmor> _authz;
  std::unique_ptr<UsersHandler> _users;
  std::unique_ptr<DispatchSearch> _jobs;
  std::unique_ptr<StreamedSearch> _streamed;
  std::unique_ptr<LiveTailStream> _tail;  // the live tail of new events
  std::unique_ptr<StaticFileHandler> _static;  // the web page; hands /services on to the REST dispatcher
  std::unique_ptr<DispatchReaper> _reaper;
  std::unique_ptr<SavedSearchesHandler> _saved;        // /services/saved/searches and eventtypes
  std::unique_ptr<SavedSearchScheduler> _scheduler;    // stopped first at shutdown, before the jobs
  std::unique_ptr<Thread> _stopper;
  bool _started = false;
};
