// SearchResultsInfo: the context that travels beside the rows through a
// search pipeline: ids, time bounds, messages to the user by type, the event
// window and a few flags. A plain copyable value; one thread at a time.
#pragma once

#include <map>
#include <set>
#include <vector>

#include "util/Str.h"
#include "util/Timeval.h"

class Logger;

class SearchResultsInfo {
 public:
  static const Str MSG_ERROR;  // "ERROR"
  static const Str MSG_WARN;   // "WARN"
  static const Str MSG_INFO;   // "INFO"

  SearchResultsInfo();

  // Appends a message under `type`.
  void addMessage(const Str& type, const Str& text) { messages[type].push_back(text); }
  void addError(const Str& text) { addMessage(MSG_ERROR, text); }
  void addWarning(const Str& text) { addMessage(MSG_WARN, text); }
  void addInfo(const Str& text) { addMessage(MSG_INFO, text); }
  bool hasMessages(const Str& type) const;
  // Logs and appends under MSG_WARN: "Specified field(s) missing from
  // results: 'a', 'b'". Nothing for an empty set.
  void warnMissingFields(Logger& log, const std::set<Str>& fields);

  Timeval startTime;           // when the info was made
  Timeval workTime1;           // dispatcher scratch
  Timeval workTime2;           // dispatcher scratch
  Timeval earliestTime;        // lower time bound of the search (0: none)
  Timeval latestTime;          // upper time bound (0: none)
  std::map<Str, std::vector<Str>> messages;
  std::vector<Str> columnOrder;
  std::set<Str> keywords;
  Str searchText;
  Str cancelId;
  Str queryId;
  bool resultsComplete = true;
  bool firstInPipeline = true;
  bool streamingSearch = false;
  int firstEvent = -1;
  int lastEvent = -1;
  int maxEvents = -1;
  std::vector<Str> roleList;
  Str userContext;
};
