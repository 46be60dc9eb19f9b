#include "util/XmlEscape.h"

void appendXmlEscaped(Str& out, const Str& in, bool quotes) {
  out.reserve(out.size() + in.size());
  for (char c : in) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '\'':
        out += quotes ? "&apos;" : "'";
        break;
      case '"':
        out += quotes ? "&quot;" : "\"";
        break;
      default:
        if (static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\n' && c != '\r') break;
        out += c;
    }
  }
}

Str xmlEscaped(const Str& in, bool quotes) {
  Str out;
  appendXmlEscaped(out, in, quotes);
  return out;
}
