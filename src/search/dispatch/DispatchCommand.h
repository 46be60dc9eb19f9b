// DispatchCommand: the `dispatch` search command, which runs a streaming
// search on this server and on remote servers at once and gives the union
// of their rows:
//
//   dispatch [id=<id>] [maxtime=<secs>] [maxresults=<n>] [ttl=<secs>]
//            [<server URL> ...] [ <subpipeline> ]
//
// The subpipeline runs in-process over the local indexes and on every
// listed server through its streamed search (ResultProvider); rows come in
// the order they arrive (ProviderQueue). A server that cannot be reached or
// fails gives a WARN message and the others' rows are kept. The account and
// time-outs for the servers come from server.conf (PeerList) unless set
// with setPeerAccess. Input rows are dropped. Not streamable: the command
// is a producer at the head of the search's rest.
//
// Usually written by PeerSearch::rewrite, not by users. One search thread.
#pragma once

#include <vector>

#include "search/SearchProcessor.h"
#include "search/dispatch/PeerList.h"

class DispatchCommand : public SearchProcessor {
 public:
  static SearchProcessor* create(const Str& name);
  explicit DispatchCommand(const Str& name = "dispatch");

  bool isStreamable() const override { return false; }
  // Takes the bracketed subpipeline as text (it is not run as a subsearch).
  void evalArgs(SearchResultsInfo& info) override;
  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

  // The account and time-outs used for the servers (servers ignored).
  void setPeerAccess(const PeerList& access);

  const Str& subsearch() const { return _sub; }
  const std::vector<Str>& servers() const { return _servers; }
  const Str& id() const { return _id; }
  long maxTime() const { return _maxTime; }
  long maxResults() const { return _maxResults; }
  long ttl() const { return _ttl; }

 private:
  Str _sub;
  bool _haveSub = false;
  std::vector<Str> _servers;
  Str _id;
  long _maxTime = 0, _maxResults = 0, _ttl = 0;
  PeerList _access;
  bool _accessSet = false;
};
