// xslt::stylesheet: a compiled XSLT stylesheet (libxslt, with the EXSLT
// extensions) applied to xml::document objects.
//
// A stylesheet is built from a file or from a document (which is copied), and
// throws xml::exception with the library's diagnostics when it does not
// compile. apply() transforms a document into a new document or into text
// (the text honours xsl:output: method, encoding, indent). Parameters are
// name -> value pairs whose values are passed as literal strings (quoted for
// the stylesheet, never evaluated as XPath). Stylesheets may not write files
// or use the network (see xml::init).
//
// Ownership: the stylesheet owns its compiled form and its copy of the source
// tree; results are new, independent documents. The input is never changed.
// Threads: one thread at a time per stylesheet object (the last failure text
// is kept in the object); separate objects are independent.
#pragma once

#include <map>
#include <string>

#include "util/xml/XmlDocument.h"

struct _xsltStylesheet;

namespace xslt {

class stylesheet {
 public:
  using param_type = std::map<std::string, std::string>;

  explicit stylesheet(const char* filename);
  explicit stylesheet(const xml::document& doc);
  ~stylesheet();
  stylesheet(const stylesheet&) = delete;
  stylesheet& operator=(const stylesheet&) = delete;

  // Transforms `doc` into `result`. False on failure, with the reason in
  // get_error_message().
  bool apply(const xml::document& doc, xml::document& result, const param_type& params = {});
  // The same, throwing xml::exception on failure.
  xml::document apply(const xml::document& doc, const param_type& params = {});
  // Transforms `doc` and serialises the result as xsl:output asks.
  bool apply_to_string(const xml::document& doc, std::string& out,
                       const param_type& params = {});

  const std::string& get_error_message() const { return _error; }

 private:
  void compile(const xml::document& doc, const char* what);
  void* transform(const xml::document& doc, const param_type& params);  // xmlDocPtr or null

  _xsltStylesheet* _style = nullptr;
  std::string _error;
};

}  // namespace xslt
