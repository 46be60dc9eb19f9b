#include "util/xml/XmlTreeParser.h"

#include <libxml/parser.h>

#include <cassert>
#include <climits>

#include "util/xml/XmlException.h"
#include "util/xml/XmlInit.h"

namespace xml {

namespace {
// No XML_PARSE_NOENT (entity substitution) and no XML_PARSE_DTDLOAD: an
// external entity is never fetched.
const int kParseOptions = XML_PARSE_NONET;
}  // namespace

tree_parser::tree_parser(const char* filename, bool allow_exceptions)
    : _doc(detail::tree_ptr()) {
  init::ensure();
  init::capture_errors errors;
  xmlParserCtxtPtr ctxt = xmlNewParserCtxt();
  xmlDocPtr doc = ctxt ? xmlCtxtReadFile(ctxt, filename, nullptr, kParseOptions) : nullptr;
  _message = errors.message();
  if (doc == nullptr && _message.empty())
    _message = std::string("unable to read XML file ") + filename;
  finish(ctxt, doc, allow_exceptions);
}

tree_parser::tree_parser(const char* data, size_t size, bool allow_exceptions)
    : _doc(detail::tree_ptr()) {
  init::ensure();
  init::capture_errors errors;
  xmlParserCtxtPtr ctxt = xmlNewParserCtxt();
  xmlDocPtr doc = nullptr;
  if (size > static_cast<size_t>(INT_MAX)) {
    errors.append_line("XML text too large");
  } else if (ctxt) {
    doc = xmlCtxtReadMemory(ctxt, data, static_cast<int>(size), "memory", nullptr,
                            kParseOptions);
  }
  _message = errors.message();
  finish(ctxt, doc, allow_exceptions);
}

void tree_parser::finish(void* c, void* d, bool allow_exceptions) {
  xmlParserCtxtPtr ctxt = static_cast<xmlParserCtxtPtr>(c);
  xmlDocPtr doc = static_cast<xmlDocPtr>(d);
  bool ok = doc != nullptr && ctxt != nullptr && ctxt->wellFormed;
  if (ctxt) xmlFreeParserCtxt(ctxt);
  if (ok && xmlDocGetRootElement(doc) == nullptr) ok = false;
  if (!ok) {
    if (doc) xmlFreeDoc(doc);
    _failed = true;
    if (_message.empty()) _message = "XML document is not well formed";
    _doc = document(detail::tree_ptr());
    if (allow_exceptions) throw exception(_message);
    return;
  }
  _message.clear();
  _doc = document(std::make_shared<detail::tree>(doc));
}

}  // namespace xml
