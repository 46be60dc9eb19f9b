// CliOptions: the command line of `velmor` read into a plain value (main.cc
// fills it through CLI11; each subcommand reads what concerns it).
//
// One thread.
#pragma once

#include <string>
#include <vector>

#include "util/Str.h"

struct CliOptions {
  // Where: in this process over VELMOR_HOME, or a velmord over REST.
  std::string server;
  std::string user;
  std::string password;
  bool insecure = false;  // https without checking the certificate

  // search and tail
  std::vector<std::string> words;  // the search, joined by blanks
  std::string earliest;
  std::string latest;
  long count = -1;  // -n; -1: 100 events, or every row of a report
  std::string output = "table";

  // tail
  long maxEvents = 0;         // stop after this many events (0: never)
  double interval = 0.5;      // seconds between polls of the index
  std::string window = "-1h";  // how far back a poll looks (in process)

  // add
  std::vector<std::string> files;
  std::string index;
  std::string sourceType;
  std::string host;

  Str searchText() const {
    Str t;
    for (const std::string& w : words) {
      if (!t.empty()) t += ' ';
      t += w;
    }
    return t;
  }
};
