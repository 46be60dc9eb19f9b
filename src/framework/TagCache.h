// TagCache: for one store (saved searches or event types), which names carry
// each tag. The saved search store keeps one per store and updates it as
// searches are saved, removed and reloaded.
//
// Threads: none of its own; the store guards it with its own mutex.
#pragma once

#include <map>
#include <set>
#include <vector>

#include "util/Str.h"

class TagCache {
 public:
  // Records that `name` carries `tag` (logs "Adding new tag='%s', ss='%s'"
  // for a tag met first, then "Attaching ss='%s' to tag='%s'").
  void add(const Str& tag, const Str& name);
  // Forgets `name` under every tag; a tag left empty goes.
  void removeName(const Str& name);
  void clear() { _byTag.clear(); }

  // The names carrying `tag`, sorted; empty when none.
  std::vector<Str> namesFor(const Str& tag) const;
  // Every tag, sorted.
  std::vector<Str> tags() const;
  bool empty() const { return _byTag.empty(); }

  // <tags type="TYPE"><tag name="T"><name>N</name>...</tag>...</tags>, for
  // one tag or, when `tag` is empty, for all.
  Str xml(const Str& type, const Str& tag) const;

 private:
  std::map<Str, std::set<Str>> _byTag;
};
