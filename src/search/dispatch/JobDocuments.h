// JobDocuments: the documents a search job's directory is read into for REST
// clients: the job's status (JobStatus, read from "status.csv" and the
// marker files), its status entry, its timeline and its field summary.
//
// Timeline:
//   <timeline c='EVENTS READ' cursor='CURSOR SECONDS'>
//   \t<bucket c='COUNT' t='EARLIEST, IN time_format' d='SECONDS SPANNED' f='1 WHEN READ WHOLE, ELSE 0'>COUNT</bucket>
//   </timeline>
// Summary (from "summary.csv": per field a row with value "" holding count,
// min, max, sum, sumsq and dc, then its value rows; a key "tag::F" holds the
// tags of field F and its value rows become F's <tags>):
//   <summary start_time='OLDEST' end_time='NEWEST'>
//   \t<field k='F' c='EVENTS WITH F' dc='DISTINCT VALUES' exact='1|0'>
//   \t\t<min>..</min> <max>..</max> <mean>%f</mean> <stdev>%f</stdev>   (numeric fields)
//   \t\t<tags><tag c='N'>TAG</tag></tags>                              (when tagged)
//   \t\t<modes><value c='N' exact='1|0'><text>V</text></value>...</modes>  (top_count most frequent)
//   \t</field>
//   </summary>
// The distinct count is exact below 10000; a value's count is exact when
// every value of its field was kept (at most 100 are).
//
// Times: time_format is a strftime/strptime format; "%s" (the default) is
// epoch seconds, read as a decimal number.
//
// Stateless; any thread. Reads whole files only, which the job replaces by
// rename, so a running job is read consistently.
#pragma once

#include <ctime>
#include <vector>

#include "util/Pathname.h"
#include "util/Str.h"

class AtomEntry;
class SearchResults;

struct JobStatus {
  Str sid, user, search, streaming, error, keywords;
  double start = 0;
  Str cursor;              // epoch seconds of the oldest event read; "" before any
  long count = 0;          // events read
  long ttl = 0;            // seconds
  bool done = false;
  Str setStart, setEnd;    // the requested bounds
  Str startTime, endTime;  // newest and oldest events seen
  time_t mtime = 0;        // last activity: the status file's time
  bool paused = false, finalized = false, saved = false, cancelled = false;
  // The job's messages for the user, "TYPE: text" (from "messages.csv").
  std::vector<Str> messages;

  // Done, not saved, and quiet for longer than its ttl at `now`.
  bool expired(time_t now) const { return done && !saved && now - mtime > ttl; }
};

class JobDocuments {
 public:
  // False when `dir` has no readable status row.
  static bool readStatus(const Pathname& dir, const Str& sid, JobStatus& out);

  // A time format must hold a conversion and give text for epoch 0.
  static bool isTimeFormat(const Str& fmt);
  // Epoch seconds of `text` in `fmt`; false when it does not parse whole.
  static bool parseTime(const Str& text, const Str& fmt, double& out);
  // `t` in `fmt` (local time; "%s" gives the seconds, with fraction if any).
  static Str formatTime(double t, const Str& fmt);
  // RFC 3339 in UTC.
  static Str rfc3339(time_t t);

  static void timelineXML(const SearchResults& buckets, const JobStatus& st, const Str& timeFormat, Str& out);
  static void summaryXML(const SearchResults& summary, const JobStatus& st, long topCount, Str& out);
  // The entry of one job: title the search, author the user, id and links
  // below `urlBase` + "/services/search/jobs/SID", content the lines
  // "name=value" of mtime, ttl, expired, start, cursor, sid, paused,
  // finalized, done, count, error (newlines in values written as "\n").
  static void statusEntry(const JobStatus& st, const Str& urlBase, time_t now, AtomEntry& out);
};
