// ITagResolver: turns the names a query uses for groups of things (host
// tags, event types and their tags, source types, "tag::<field>::<tag>")
// into the concrete index terms they stand for ("host::web1",
// "eventtype::login", ...). The modules QueryHostTag, QueryEventType and
// QuerySourceType feed the answer to the state machine as one
// parenthesised OR.
//
// With no resolver installed, or when the resolver does not know a name,
// those modules note the name in the query's INFO messages and feed the
// token itself as a term (which the index does not hold, so it matches
// nothing rather than silently widening the search). A source type is an
// indexed term on its own: without a resolver "sourcetype::x" is fed as it
// is, with no message.
//
// Each entry handed back in `terms` is one token of the inner language, a
// single term such as "host::web1".
//
// Threads: install() and installed() may be called from any thread; an
// installed resolver must allow calls from any thread at once.
#pragma once

#include <memory>
#include <vector>

#include "util/Str.h"

class ITagResolver {
 public:
  virtual ~ITagResolver() = default;
  // Each returns false when the name is unknown to `user`.
  virtual bool resolveHostTag(const Str& tag, const Str& user, std::vector<Str>& terms) = 0;
  virtual bool resolveEventType(const Str& name, const Str& user, std::vector<Str>& terms) = 0;
  // The event types carrying an event type tag ("eventtypetag::", "typetag::").
  virtual bool resolveEventTypeTag(const Str& tag, const Str& user, std::vector<Str>& terms) = 0;
  virtual bool resolveSourceType(const Str& name, const Str& user, std::vector<Str>& terms) = 0;
  // "tag::<field>::<tag>": the values of field (host, source, sourcetype,
  // savedsearch, eventtype) that carry the tag.
  virtual bool resolveTag(const Str& field, const Str& tag, const Str& user, std::vector<Str>& terms) = 0;

  // Installs the resolver of this process (null: none). Returns the one it
  // replaced.
  static std::shared_ptr<ITagResolver> install(std::shared_ptr<ITagResolver> resolver);
  // The installed resolver, or null.
  static std::shared_ptr<ITagResolver> installed();
};
