// ExpandedStanzaName: a stanza name with its bundle-relative parts resolved.
//
// A "." that stands right after "scheme://" and right before a "/" (the
// pattern "(?<=://).(?=/)") means "the bundle this stanza stands in" and is
// replaced by that bundle's directory, get_bundles_local_path() unless given.
// The result then passes through substituteEnvs. So in the bundle
// /h/etc/bundles/b, "script://./bin/x.sh" becomes
// "script:///h/etc/bundles/b/bin/x.sh".
//
// A value type; any thread.
#pragma once

#include "util/Pathname.h"
#include "util/Str.h"

class ExpandedStanzaName : public Str {
 public:
  explicit ExpandedStanzaName(const Str& name);
  ExpandedStanzaName(const Str& name, const Pathname& bundlePath);
};
