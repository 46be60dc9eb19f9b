// ISavedSearchSource: where the query compiler finds the text of a saved
// search named in a query ("savedsearch::<name>", "savedvelmor::<name>").
// The saved search store installs one; with none installed every name is
// unknown, and the compiler notes "Unable to find savedvelmor <name>" in the
// query's INFO messages and drops the token.
//
// The text handed back is the saved search's inner query text (its key
// "query"). When it holds "<key>", it is the XML form of the search and the
// compiler reads the search from the `key` elements under `keys`, in order.
//
// Threads: install() and installed() may be called from any thread; an
// installed source must allow lookups from any thread at once.
#pragma once

#include <memory>

#include "util/Str.h"

class ISavedSearchSource {
 public:
  virtual ~ISavedSearchSource() = default;
  // The text of the saved search `name` as `user` sees it; false when the
  // user has no such saved search.
  virtual bool lookup(const Str& name, const Str& user, Str& text) = 0;

  // Installs the source of this process (null: none). Returns the one it
  // replaced.
  static std::shared_ptr<ISavedSearchSource> install(std::shared_ptr<ISavedSearchSource> source);
  // The installed source, or null.
  static std::shared_ptr<ISavedSearchSource> installed();
};
