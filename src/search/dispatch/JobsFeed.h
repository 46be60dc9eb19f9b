// JobsFeed: the feed of search jobs a caller may see: one status entry per
// job directory below the dispatch root (names starting with "." are not
// jobs; a directory without a readable status row is left out), newest
// job first. A caller sees its own jobs, or every job when `seeAll`.
//
// Stateless; any thread (reads whole files only).
#pragma once

#include <ctime>

#include "util/Pathname.h"
#include "util/Str.h"

class AtomFeed;

class JobsFeed {
 public:
  static void build(const Pathname& root, const Str& caller, bool seeAll, const Str& urlBase, time_t now,
                    AtomFeed& out);
  // Job ids newest first: "<secs>.<n>" by both numbers, other names after,
  // by name.
  static bool newerFirst(const Str& a, const Str& b);
};
