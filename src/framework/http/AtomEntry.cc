#include "framework/http/AtomEntry.h"

#include "framework/http/HTTPReply.h"

namespace atom {

void appendCommon(Str& out, const Str& title, const Str& id, const Str& updated, const Str& author,
                  const std::vector<AtomLink>& links) {
  out += "<title>" + HTTPReply::xmlEscape(title) + "</title>\n";
  out += "<id>" + HTTPReply::xmlEscape(id) + "</id>\n";
  out += "<updated>" + HTTPReply::xmlEscape(updated) + "</updated>\n";
  if (!author.empty()) out += "<author><name>" + HTTPReply::xmlEscape(author) + "</name></author>\n";
  for (const AtomLink& l : links) {
    out += "<link href=\"" + HTTPReply::xmlEscape(l.href) + "\"";
    if (!l.rel.empty()) out += " rel=\"" + HTTPReply::xmlEscape(l.rel) + "\"";
    if (!l.type.empty()) out += " type=\"" + HTTPReply::xmlEscape(l.type) + "\"";
    out += "/>\n";
  }
}

}  // namespace atom

void AtomEntry::toXML(Str& out, bool document) const {
  if (document) {
    out += "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
    out += "<entry xmlns=\"http://www.w3.org/2005/Atom\">\n";
  } else {
    out += "<entry>\n";
  }
  atom::appendCommon(out, title, id, updated, author, links);
  out += "<content type=\"" + HTTPReply::xmlEscape(contentType) + "\">" + HTTPReply::xmlEscape(content) +
         "</content>\n";
  out += "</entry>\n";
}
