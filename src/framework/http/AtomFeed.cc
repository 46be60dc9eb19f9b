#include "framework/http/AtomFeed.h"

void AtomFeed::toXML(Str& out) const {
  out += "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
  out += "<feed xmlns=\"http://www.w3.org/2005/Atom\">\n";
  atom::appendCommon(out, title, id, updated, author, links);
  for (const AtomEntry& e : entries) e.toXML(out, false);
  out += "</feed>\n";
}
