// IndexTool: the four commands of velmor-index over one index of
// $VELMOR_HOME: add files line by line, search, roll the hot bucket, list
// the buckets.
//
// The index's settings come from its stanza of the `indexes` property file
// (with [default] beneath), the segmenter from the stanza of the source type
// in `segmenters` (or [default]). Without --sourcetype, each file's source
// type comes from its name (sourceTypeFromPath). add holds the index open
// for writing; search and info open it read-only. add syncs the index every
// `syncEvery` events and at the end of each file, printing a progress line
// on stderr at each sync of a long file, all counts of that file alone
// ("<file>: <bytes read>/<size> bytes, <events> events"), and rolls the hot
// bucket when its directory outgrows maxDataSize. At a sync, once `optimizeEvery` seconds have passed since the
// last, it starts the optimiser on the hot bucket in the background (never
// two at once on one bucket), and at the end it starts one more (unless one
// is still running) and waits for it, so that the bucket is left in few
// slices. Events synced are
// searchable by later runs; a run killed
// between syncs loses only the events after the last sync from the index.
//
// query runs an inner query through an IndexProcessor opened read-only over
// every index of the configuration and prints the result document as it was
// written to "<VELMOR_DB>/searches/<query id>.xml" (exit 0 whatever the
// document says; 1 when the indexes cannot be opened).
//
// Each command returns the exit status: 0 done, 1 failed (the reason on
// stderr). One thread; the object is used once.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <vector>

#include "pipeline/indexer/PolicyParameters.h"
#include "pipeline/indexer/ValueWrapper.h"
#include "util/Str.h"
#include "util/WildcardMatcher.h"
#include "tools/velmor-index/IndexToolArgs.h"

class DatabasePartitionPolicy;
class GenericCleaner;

class IndexTool {
 public:
  IndexTool(const IndexToolArgs& args, FILE* out, FILE* err);
  ~IndexTool();

  int run();

 private:
  bool loadParams();
  bool openPolicy(bool readOnly);
  int add();
  int addFile(const Str& file, const Str& sourceType, GenericCleaner* cleaner, uint64_t& totalAdded);
  void syncAndMaybeRoll();
  int search();
  // Prints the events of values (newest first) whose lowercased text every
  // phrase matches, until `printed` reaches `wanted`; false if any could not
  // be read (reported).
  bool printEvents(const std::vector<ValueWrapper>& values, const std::vector<WildcardMatcher>& phrases,
                   size_t wanted, size_t& printed, Str& lowerRaw);
  int roll();
  int info();
  int query();
  void fail(const char* fmt, ...) __attribute__((format(printf, 2, 3)));

  const IndexToolArgs& _args;
  FILE* _out;
  FILE* _err;
  PolicyParameters _params;
  std::unique_ptr<DatabasePartitionPolicy> _policy;
  int64_t _lastOptimize = 0;  // when the optimiser was last started
};
