// SurroundingDataOperator: the `surrounding` command. Shows the events of an
// index around one event, oldest first, and tells whether the block
// signatures of that stretch hold.
//
//   surrounding id=<bucket:address> timeBefore=<s> timeAfter=<s>
//               searchkeys=<terms> maxresults=<n> index=<name> readlevel=<n>
//
// All arguments are required ("The following required arguments were not
// provided to the SurroundingDataOperator: <names> "); any other argument
// fails with "Invalid argument: '<arg>'".
//   id          the event's _cd ("Could not convert <id> to a value
//               wrapper" when it is not one)
//   timeBefore, timeAfter  the first search radius in seconds on each side;
//               0 or less means 300
//   searchkeys  index terms the events must hold, blank separated (as the
//               source::/host:: terms of the event); empty means all events
//   maxresults  events to show on each side of the event
//   index       the index ("default": the default one; "Unable to find
//               index <name>")
//   readlevel   0: stored fields only; more: key=value fields too
//
// The radius loop: up to 10 times, the index is asked for at most 100000
// events of [time - before, time + after]. A full answer halves the time
// before (reaching 0 warns "Unable to successfully find the value in the
// index for getSurrounding !!" and stops). Once the event is among the
// answer, up to maxresults events on each side are kept; the loop stops
// when both sides have enough or the radius covers all of the index, and
// otherwise doubles both radii. An event that is never found (deleted)
// ends after the tenth turn with the INFO message "Too many iterations in
// get Surrounding data aborting  !!" and the events found around its time.
//
// Block signatures: in an index that signs blocks (blockSignSize above 0)
// the events are read with their signatures checked, and each row gets
// `_decoration`:
// showsourceValid (audit_valid), showsourceInvalid (audit_tampered) or
// showsourceCantValidate (audit_cantValidate), beside its `_cd`. One INFO
// message sums them up:
//   any tampered             "Velmor detected possible tampering with this
//                            source." (and the warning "Block signatures do
//                            not match, tampering detected" in the log)
//   all valid                "Velmor validated that this data has not been
//                            tampered with."
//   valid and unvalidated    "Velmor could not validate the consistency of
//                            this source. There may be gaps in this data."
//   none validated           "Velmor could not validate this source. There
//                            may be gaps in this data or this data may have
//                            been tampered with. See velmord.log."
// An index that signs nothing gives no decoration and no message. Gaps
// between blocks are not detected here: the read answers a state per
// event, not the block bounds, so "showsourceGap" is not given.
//
// One search thread owns the command.
#pragma once

#include <vector>

#include "pipeline/indexer/ValueWrapper.h"
#include "search/SearchProcessor.h"

class IPartitionPolicy;

class SurroundingDataOperator : public SearchProcessor {
 public:
  static constexpr int kMaxIterations = 10;
  static constexpr size_t kMaxIds = 100000;
  static constexpr long kDefaultRadius = 300;

  explicit SurroundingDataOperator(const Str& name) : SearchProcessor(name) {}
  static SearchProcessor* create(const Str& name) { return new SurroundingDataOperator(name); }

  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

 private:
  // The values to show, oldest first, the event itself among them when it
  // was `found`. False when the index could not answer.
  bool findSurrounding(IPartitionPolicy& policy, const ValueWrapper& wanted, const std::vector<Str>& terms,
                       std::vector<ValueWrapper>& out, bool& found, SearchResultsInfo& info);
  void decorate(SearchResults& results, const std::vector<Str>& audits, SearchResultsInfo& info);

  Str _id;
  long _timeBefore = 0;
  long _timeAfter = 0;
  Str _searchKeys;
  long _maxResults = 0;
  Str _index;
  int _readLevel = 0;
};
