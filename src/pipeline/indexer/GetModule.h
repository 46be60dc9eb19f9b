// GetModule: what the "GET" modules of the inner query language share: the
// "start-end" range each of them takes, the index of the query, and the
// rows of the lists they fetch into Query::resultMap().
//
// A list row is a PipelineData: the word (a host, a source, ...) under
// PipelineData::rawKey, so that a caller that takes the raw text of every
// row gets the words, plus kCountKey (events with the word, decimal),
// kCodeKey (the word's code in the index's table, decimal; -1 when not
// known) and kTotalKey (rows of the whole list before the range was cut;
// one shared text for all rows of a list).
//
// Ranges are row numbers, both ends included: "hosts::0-9" is the first ten
// rows. A range whose start lies past the list gives an empty list.
//
// Threads: the thread running the query.
#pragma once

#include <memory>
#include <vector>

#include "framework/PipelineData.h"
#include "pipeline/indexer/Module.h"
#include "pipeline/indexer/WordPositionData.h"
#include "util/Str.h"

class IPartitionPolicy;

class GetModule : public Module {
 public:
  static const Str kCountKey;  // "count"
  static const Str kCodeKey;   // "code"
  static const Str kTotalKey;  // "total"

  GetModule(Query* query, std::shared_ptr<ModuleArgs> args, const Str& name) : Module(query, std::move(args), name) {}

  // Reads "start-end": two decimal numbers joined by "-", the whole value,
  // start not above end. Anything else throws QueryException(malformed).
  static void parseRange(const Str& value, const char* malformed, unsigned long& start, unsigned long& end);

  // The index of a query: the one its run took, else the one its state
  // machine names. Throws QueryException "No domain <name> could be found".
  static IPartitionPolicy* policyOf(Query& query);

  // Rows [start, end] of `rows` as list rows (see above), in their order.
  static std::vector<std::shared_ptr<PipelineData>> listRows(const std::vector<WordPositionData>& rows,
                                                             unsigned long start, unsigned long end);
  // Sorts table rows for display: most events first, then by word; rows
  // whose events were all deleted or frozen (count 0) are dropped.
  static void sortForDisplay(std::vector<WordPositionData>& rows);
};
