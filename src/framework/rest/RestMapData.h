// RestMapData: one stanza of restmap.conf, "<type>:<name>", read once when
// the dispatcher loads its configuration: the path expression ("match",
// compiled), whether the stanza needs an authenticated user, the capability
// per method, the style sheet, the parameter specification and the script.
//
// Ownership: the dispatcher owns every RestMapData (shared, so that a request
// in flight keeps its stanza while the configuration is reloaded).
// Threads: immutable after fromStanza(); any thread may read it.
#pragma once

#include <memory>

#include "libbundle/PropertiesMap.h"
#include "util/RE.h"
#include "util/Str.h"

class RestMapData {
 public:
  // Reads stanza `stanzaName` from `props`. Null with the system's text in
  // `err` when the name has no colon, "match" is missing or does not
  // compile.
  static std::shared_ptr<RestMapData> fromStanza(const Str& stanzaName, const PropertiesMap& props, Str& err);

  const Str& stanzaName() const { return _stanza; }  // "search:jobs"
  const Str& type() const { return _type; }          // "search"
  const Str& name() const { return _name; }          // "jobs"
  const Str& match() const { return _match; }
  const RE& regex() const { return *_re; }
  bool requireAuthentication() const { return _requireAuth; }
  // The capability of `method` ("GET", ...): "capability.<method>" when the
  // stanza has it, else "capability", else "".
  Str capabilityFor(const Str& method) const;
  const Str& xsl() const { return _xsl; }
  const Str& spec() const { return _spec; }
  const Str& script() const { return _script; }
  // Any key of the stanza (handlers may keep their own settings there).
  const PropertiesMap& props() const { return _props; }

 private:
  Str _stanza, _type, _name, _match, _xsl, _spec, _script;
  std::unique_ptr<RE> _re;
  bool _requireAuth = false;
  PropertiesMap _props;
};
