// IPartitionPolicy: the interface of one index as the index processor and
// the query engine see it: write events, query values, read events back.
//
// It also holds the cross-process directory lock used by every policy:
// lockDir(path) takes "<path>.lock" through the engine's st_lock, sleeping
// one second at a time while another process holds it. LockContainer counts
// these per path so that nested locks in one process take it once.
//
// Threads: implementations say which of their members any thread may call.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include <utility>

#include "pipeline/indexer/DataWrapper.h"
#include "pipeline/indexer/QueryHint.h"
#include "pipeline/indexer/ValueWrapper.h"
#include "pipeline/indexer/WordPositionData.h"
#include "pipeline/indexer/WritableEvent.h"
#include "util/Pathname.h"
#include "util/Str.h"

class GenericCleaner;
class PolicyParameters;

class IPartitionPolicy {
 public:
  virtual ~IPartitionPolicy() = default;

  // Writes one event; false when it was dropped or could not be stored.
  virtual bool write(const WritableEvent& ev) = 0;
  // Values of the events in [start, end] holding every AND term, one OR
  // term (if any) and no NOT term, newest first, after skipping `skip`, at
  // most `count`. False when the query could not run.
  virtual bool query(const std::vector<Str>& andTerms, const std::vector<Str>& orTerms,
                     const std::vector<Str>& notTerms, int32_t start, int32_t end, size_t count,
                     std::vector<ValueWrapper>& out, size_t skip = 0) = 0;
  // The next block of such a query: at most `count` values below those the
  // hint says were handed out, newest first; the hint then covers them too.
  // A hint whose last block came back short gives nothing more. False when
  // the query could not run (the hint is unchanged).
  bool query(QueryHint& hint, const std::vector<Str>& andTerms, const std::vector<Str>& orTerms,
             const std::vector<Str>& notTerms, int32_t start, int32_t end, size_t count,
             std::vector<ValueWrapper>& out);
  // The same for one term.
  bool query(QueryHint& hint, const Str& term, int32_t start, int32_t end, size_t count,
             std::vector<ValueWrapper>& out) {
    return query(hint, std::vector<Str>{term}, {}, {}, start, end, count, out);
  }
  // Reads one event back; false when it cannot be read.
  virtual bool read(const ValueWrapper& value, DataWrapper& out) = 0;
  // Reads many events: out[i] belongs to values[i], ok[i] says whether it
  // was read. Returns the number read.
  virtual size_t read(const std::vector<ValueWrapper>& values, std::vector<DataWrapper>& out,
                      std::vector<bool>& ok, size_t threads = 0, bool checkSignatures = false);

  // --- reading bucket by bucket (the cursored search) ----------------------------
  // One bucket that may hold events of a time range: its id and the times of
  // its oldest and newest event (seconds).
  struct BucketSpan {
    uint32_t id = 0;
    int32_t earliest = 0;
    int32_t latest = 0;
  };
  // The buckets whose events may lie in [start, end], newest end first. The
  // default is one pseudo-bucket, id 0, spanning the whole range, which
  // queryBucket answers through query().
  virtual void getBucketSpans(int32_t start, int32_t end, std::vector<BucketSpan>& out);
  // The query of query() restricted to one bucket of getBucketSpans: at most
  // `count` values in [start, end], newest first, deleted events left out.
  // `answered`, when given, gets how many values the bucket gave before the
  // deleted ones were dropped (equal to `count`: there may be more).
  // False when the query could not run; an unknown or closed bucket gives
  // true and nothing (it was moved away between the listing and the call).
  virtual bool queryBucket(uint32_t bucketId, const std::vector<Str>& andTerms, const std::vector<Str>& orTerms,
                           const std::vector<Str>& notTerms, int32_t start, int32_t end, size_t count,
                           std::vector<ValueWrapper>& out, size_t* answered = nullptr);

  // --- what the query engine asks of an index -----------------------------------
  // Each has a neutral default (nothing known, nothing done) so that a test
  // double overrides only what it serves; DatabasePartitionPolicy overrides all.
  virtual const Str& getName() const;
  virtual const PolicyParameters& getPolicyParameters() const;
  // Events holding the term over all buckets (an estimate for ordering
  // terms: deleted events still count), -1 when it cannot be told.
  virtual long getTermCount(const Str& term);
  // Checks the bucket lists against the directories before a query reads
  // them; false (logged) on a mismatch.
  virtual bool lockedValidateConsistency();
  // The segmenter of a `segmenters` stanza (for instance "search", which
  // cuts a search token into words as events were cut); never null: a
  // missing stanza gives the default segmenter. The policy owns it.
  virtual const GenericCleaner* cleanerByName(const Str& name);
  // Index-wide word tables.
  virtual std::vector<WordPositionData> getHosts();
  virtual std::vector<WordPositionData> getSources();
  virtual std::vector<WordPositionData> getSourceTypes();
  virtual uint64_t getTotalEventCount();
  virtual bool getMinAndMaxTimes(int64_t& minTime, int64_t& maxTime);
  // Table 1 hosts, 2 sources, 3 source types: the (bucket id, bucket code)
  // pairs under which the word (case-blind) is known, for code filters.
  virtual void getBucketCodesForWord(int table, const Str& word,
                                     std::vector<std::pair<uint32_t, uint32_t>>& out);
  // Words of a bucket's codes (as a ValueWrapper carries them).
  virtual bool getGlobalHostWordForCode(uint32_t bucketId, uint32_t code, Str& out);
  virtual bool getGlobalSourceWordForCode(uint32_t bucketId, uint32_t code, Str& out);
  virtual bool getGlobalSourceTypeWordForCode(uint32_t bucketId, uint32_t code, Str& out);
  virtual std::vector<std::pair<Str, uint64_t>> getMatchingWordsAndCountsForPrefix(const Str& prefix);

  // --- administration (the query language's debug and delete commands) ---------
  // Rolls the hot bucket to warm; false when it did not roll.
  virtual bool rollHotDb();
  virtual void sync(bool force = true);
  virtual void rescanDirectories();
  virtual void optimizeHotDb();
  virtual bool validate();
  // Marks deleted the events holding term in [start, end]; returns how many.
  // Throws DatabasePartitionPolicyException unless allowed.
  virtual size_t deleteByKeyword(const Str& term, int32_t start, int32_t end, bool allowed);
  // Writes the events holding every term to an export file; the number
  // written, -1 when the file cannot be written.
  virtual long exportByKeyword(const std::vector<Str>& andTerms, int32_t start, int32_t end,
                               const Pathname& file);
  virtual bool isReadOnly() const;
  virtual int64_t getCreationTime() const;

  // Takes the directory lock of path ("<path>.lock"), waiting while another
  // process holds it. False when the lock cannot be taken at all.
  static bool lockDir(const Pathname& path);
  static bool unlockDir(const Pathname& path);
};
