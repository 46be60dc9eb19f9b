// xml::tree_parser: reads an XML text, from a file or from memory, into an
// xml::document.
//
// Parsing is safe against hostile input: entities are not substituted,
// external DTDs and entities are never loaded, and there is no network
// access. A failure either throws xml::exception with the parser's message
// (allow_exceptions true, the default) or leaves failed() true and the
// message in get_error_message().
//
// Ownership: the parser holds the document handle it made; get_document()
// gives it out (copies share the tree). Threads: one parser per thread; any
// number of parsers may run at once.
#pragma once

#include <cstddef>
#include <string>

#include "util/xml/XmlDocument.h"

namespace xml {

class tree_parser {
 public:
  explicit tree_parser(const char* filename, bool allow_exceptions = true);
  tree_parser(const char* data, size_t size, bool allow_exceptions = true);

  bool failed() const { return _failed; }
  bool operator!() const { return _failed; }
  // The parser's diagnostics, one per line; empty after success.
  const std::string& get_error_message() const { return _message; }
  // The parsed document; REQUIRES !failed().
  document& get_document() { return _doc; }

 private:
  void finish(void* ctxt, void* doc, bool allow_exceptions);

  document _doc;
  bool _failed = false;
  std::string _message;
};

}  // namespace xml
