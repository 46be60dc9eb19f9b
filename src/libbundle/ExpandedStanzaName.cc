#include "libbundle/ExpandedStanzaName.h"

#include "libbundle/BundlePaths.h"
#include "libbundle/SubstituteEnvs.h"

namespace {

Str expand(const Str& name, const Str& bundlePath) {
  Str out;
  size_t from = 0;
  for (;;) {
    size_t at = name.find("://./", from);
    if (at == Str::npos) break;
    out.append(name, from, at + 3 - from);
    out += bundlePath;
    from = at + 4;  // keep the "/" after the dot
  }
  out.append(name, from, Str::npos);
  return substituteEnvs(out);
}

}  // namespace

ExpandedStanzaName::ExpandedStanzaName(const Str& name) : ExpandedStanzaName(name, get_bundles_local_path()) {}

ExpandedStanzaName::ExpandedStanzaName(const Str& name, const Pathname& bundlePath)
    : Str(name.find("://./") == Str::npos && name.find('$') == Str::npos ? name : expand(name, bundlePath)) {}
