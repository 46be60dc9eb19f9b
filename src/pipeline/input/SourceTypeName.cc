#include "pipeline/input/SourceTypeName.h"

namespace {

bool endsWith(const Str& s, const char* suffix) {
  Str t(suffix);
  return s.size() >= t.size() && s.compare(s.size() - t.size(), t.size(), t) == 0;
}

// Drops one trailing ".<digits>" or compression suffix; false when there is
// none.
bool dropRotation(Str& name) {
  for (const char* z : {".gz", ".bz2", ".xz", ".zst"}) {
    if (endsWith(name, z)) {
      name.resize(name.size() - Str(z).size());
      return true;
    }
  }
  size_t dot = name.rfind('.');
  if (dot == Str::npos || dot + 1 == name.size()) return false;
  for (size_t i = dot + 1; i < name.size(); ++i)
    if (name[i] < '0' || name[i] > '9') return false;
  name.resize(dot);
  return true;
}

}  // namespace

Str sourceTypeFromPath(const Str& path) {
  size_t slash = path.rfind('/');
  Str name = slash == Str::npos ? path : Str(path.substr(slash + 1));
  while (dropRotation(name)) {
  }
  // One extension: the text after the last dot, when it holds a letter.
  size_t dot = name.rfind('.');
  if (dot != Str::npos) {
    bool letter = false;
    for (size_t i = dot + 1; i < name.size(); ++i)
      letter = letter || (name[i] >= 'a' && name[i] <= 'z') || (name[i] >= 'A' && name[i] <= 'Z');
    if (letter || dot + 1 == name.size()) name.resize(dot);
  }
  return name.empty() ? Str("unknown") : name;
}
