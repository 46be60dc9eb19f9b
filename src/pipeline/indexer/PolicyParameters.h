// PolicyParameters: the settings of one index, read from its stanza of the
// `indexes` property file (the merged view, so [default] values show through).
//
// Required keys: homePath, coldPath, thawedPath (each index its own),
// maxResults, compressRawdata, maxDataSize, maxTotalDataSizeMB (the shipped
// [default] holds these, so a new index needs only its three paths). When
// any are missing, one DatabasePartitionPolicyException names them all:
// "'<key>' tag required in config for index <name>", or "'<a>', '<b>' tags
// required in config for index <name>" for several. Every other key has a
// built-in default; an absent one is logged as "<key> not specified in
// config.  Defaulting to: <value>" (the shipped [default] sets them all, so
// this means a site removed one). An empty script value means none. blockSignSize is
// capped at 2000 ("blockSignSize set to greater than 2000. Restricting to
// 2000."). A value that is present but not a number (or boolean) throws
// "Invalid value '<text>' for '<key>' in config for index <name>".
// Paths have $NAME environment references substituted.
//
// A plain value; fromStanza is reentrant.
#pragma once

#include <cstdint>
#include <vector>

#include "util/Pathname.h"
#include "util/Str.h"

class PropertiesMap;

class PolicyParameters {
 public:
  static constexpr long kMaxBlockSignSize = 2000;
  // A hot bucket rolls once an event's address reaches 80% of 2^32.
  static constexpr double kDefaultAddressRollThreshold = 3435973836.0;

  // Reads the stanza of index `name`. Every log line written (defaults, the
  // blockSignSize cap) is also appended to *notes when notes is given.
  static PolicyParameters fromStanza(const Str& name, const PropertiesMap& stanza,
                                     std::vector<Str>* notes = nullptr);

  Str name;
  Pathname homePath;
  Pathname coldPath;
  Pathname thawedPath;
  long maxResults = 0;
  bool compressRawdata = true;
  long maxDataSize = 0;            // megabytes, as configured
  uint64_t maxDataSizeBytes = 0;   // maxDataSize << 20; what the roll compares
  long maxTotalDataSizeMB = 0;
  long maxWarmDBCount = 5;
  long maxColdDBCount = 3;
  long frozenTimePeriodInSecs = 432000;
  long rotatePeriodInSecs = 300;
  long optimizeEvery = 20;
  long maxConcurrentOptimizes = 6;
  long blockSignSize = 0;
  long waitForOptimize = 0;
  Str coldToFrozenScript;  // empty: none
  Str warmToColdScript;    // empty: none
  long maxTermChars = 2097152;
  long maxTerms = 131072;
  long maxPostings = 2097152;
  long maxValues = 65536;
  long maxMemMB = 100;
  long indexThreads = 0;
  long queryThreads = 0;
  long addressCompressBits = 5;
  bool isReadOnly = false;

  // Not configuration keys: fixed by the system, adjustable by tests.
  double addressRollThreshold = kDefaultAddressRollThreshold;
  uint64_t rawRollSize = 0xA00000;  // raw data file size before it rolls
  int64_t syncPeriod = 30;          // seconds between engine syncs ("syncPeriod"): how
                                    // soon other processes see new events
};
