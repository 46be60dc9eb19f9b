// SavedVelmorResolver: answers the query side's questions about event types,
// tags and saved searches from the saved search store (SavedVelmorManager)
// and the property file `tags` (stanza "<field>=<value>", one key per tag set
// to "enabled" or "disabled").
//
//   resolveEventType(x)      one entry: x's text with its %name% templates
//                            expanded (getEventTypeTemplateQuery)
//   resolveTag(field, t)     "field::value" for each stanza "field=value" of
//                            `tags` with t enabled; for eventtype and
//                            savedsearch also the store's own "tags" key
//   resolveHostTag(t)        resolveTag("host", t)
//   resolveEventTypeTag(t)   resolveTag("eventtype", t)
//   resolveSourceType(x)     false: a source type stands for itself
//   lookup(n)                the saved search n's "query"
//
// installForProcess() installs one object as both the ITagResolver and the
// ISavedSearchSource of the process; each search tool and the service call
// it at start.
//
// Threads: any thread; the store and the property files do their own
// locking.
#pragma once

#include "pipeline/indexer/ISavedSearchSource.h"
#include "pipeline/indexer/ITagResolver.h"

class SavedVelmorResolver : public ITagResolver, public ISavedSearchSource {
 public:
  bool resolveHostTag(const Str& tag, const Str& user, std::vector<Str>& terms) override;
  bool resolveEventType(const Str& name, const Str& user, std::vector<Str>& terms) override;
  bool resolveEventTypeTag(const Str& tag, const Str& user, std::vector<Str>& terms) override;
  bool resolveSourceType(const Str& name, const Str& user, std::vector<Str>& terms) override;
  bool resolveTag(const Str& field, const Str& tag, const Str& user, std::vector<Str>& terms) override;

  bool lookup(const Str& name, const Str& user, Str& text) override;

  static void installForProcess();
};
