// QueryDelete: the module "delete::<kind>::<value>" of the inner query
// language: marks deleted, in the query's index and time range, every event
// of a host, source or source type ("delete::host::web1",
// "delete::source::/var/log/app.log", "delete::sourcetype::syslog").
//
// The value must be a word of the index's table of that kind ("Unable to
// find host to delete : <value>", likewise for source and sourcetype).
// Event types have no table, so "delete::eventtype::<name>" always fails
// with "Unable to find eventtype to delete : <name>". Any other kind fails
// with "Unrecognised deletion key <kind>::<value>".
//
// "deleterestrict::<kind>::<value>" narrows the delete to the events of one
// host, source or source type. It may not be of the deleted kind ("you may
// not restrict delete::host:: by host", and so on); any other kind fails
// with "Unrecognised deletion restriction <kind>::<value>". The index has no
// delete that combines two words yet, so a valid restriction fails with
// "Restricted deletes are not supported by this index" rather than delete
// more than was asked.
//
// The user needs the capability "delete_by_keyword" (UserManager); without
// it the index refuses with "insufficient privileges to perform this
// operation". On success "Deleted <n> ids from <kind>::<value>" goes to the
// query's "INFO" messages.
//
// A source deleted whole (no restriction) that has no events left in the
// index is also deleted, over all time, from the index "_thefileseeks"
// (when that index exists), so that the file is read in again. The file
// tracker's own cache of seek records is not reached from here: the tracker
// is to drop a cached entry itself once the record behind it is gone.
//
// Threads: the thread running the query.
#pragma once

#include "pipeline/indexer/Module.h"

class QueryDelete : public Module {
 public:
  using Module::Module;
  // Throws QueryException.
  void runModule() override;
};
