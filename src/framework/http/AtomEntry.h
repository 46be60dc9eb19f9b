// AtomEntry: one entry of an Atom 1.0 document (title, id, updated time,
// author, links, content), written as XML. Used alone (an entry document)
// or inside an AtomFeed.
//
// A plain value; one thread at a time.
#pragma once

#include <vector>

#include "util/Str.h"

struct AtomLink {
  Str href;
  Str rel;   // "" leaves the attribute out
  Str type;  // "" leaves the attribute out
};

class AtomEntry {
 public:
  Str title;
  Str id;
  Str updated;  // RFC 3339, e.g. "2026-01-02T03:04:05Z"
  Str author;   // the author's name; "" writes no author
  std::vector<AtomLink> links;
  Str content;
  Str contentType = "text";  // "text", "html", "xhtml" or a media type

  // Appends the <entry> element; with `document` the XML declaration and
  // the Atom namespace come first, as for a document of its own.
  void toXML(Str& out, bool document) const;
};

namespace atom {
// Appends the elements an entry and a feed share.
void appendCommon(Str& out, const Str& title, const Str& id, const Str& updated, const Str& author,
                  const std::vector<AtomLink>& links);
}  // namespace atom
