#include "util/xml/XsltStylesheet.h"

#include <libxml/tree.h>
#include <libxslt/transform.h>
#include <libxslt/variables.h>
#include <libxslt/xsltInternals.h>
#include <libxslt/xsltutils.h>

#include <vector>

#include "util/xml/XmlException.h"
#include "util/xml/XmlInit.h"
#include "util/xml/XmlTreeParser.h"

namespace xslt {

stylesheet::stylesheet(const char* filename) {
  xml::tree_parser parser(filename, false);
  if (parser.failed())
    throw xml::exception(std::string("cannot parse stylesheet ") + filename + ": " +
                         parser.get_error_message());
  compile(parser.get_document(), filename);
}

stylesheet::stylesheet(const xml::document& doc) { compile(doc, "document"); }

stylesheet::~stylesheet() {
  if (_style) xsltFreeStylesheet(_style);
}

void stylesheet::compile(const xml::document& doc, const char* what) {
  xml::init::ensure();
  if (!doc.get_tree() || !doc.get_root_node())
    throw xml::exception(std::string("cannot compile stylesheet ") + what + ": no root element");
  xml::init::capture_errors errors;
  // libxslt takes the tree over on success and leaves it to us on failure.
  xmlDocPtr copy = xmlCopyDoc(doc.get_tree()->doc, 1);
  xsltStylesheetPtr style = copy ? xsltParseStylesheetDoc(copy) : nullptr;
  if (style == nullptr) {
    if (copy) xmlFreeDoc(copy);
  } else if (style->errors > 0) {
    xsltFreeStylesheet(style);
    style = nullptr;
  }
  if (style == nullptr) {
    std::string msg = errors.message();
    throw xml::exception(std::string("cannot compile stylesheet ") + what +
                         (msg.empty() ? std::string() : ": " + msg));
  }
  _style = style;
}

void* stylesheet::transform(const xml::document& doc, const param_type& params) {
  _error.clear();
  if (!doc.get_tree()) {
    _error = "no document to transform";
    return nullptr;
  }
  xml::init::capture_errors errors;
  // xsl:strip-space edits the input tree in place; work on a copy then.
  xmlDocPtr input = doc.get_tree()->doc;
  xmlDocPtr scratch = nullptr;
  if (_style->stripSpaces != nullptr) input = scratch = xmlCopyDoc(input, 1);

  std::vector<const char*> args;
  args.reserve(params.size() * 2 + 1);
  for (const auto& [k, v] : params) {
    args.push_back(k.c_str());
    args.push_back(v.c_str());
  }
  args.push_back(nullptr);

  xmlDocPtr res = nullptr;
  xsltTransformContextPtr ctxt = input ? xsltNewTransformContext(_style, input) : nullptr;
  if (ctxt) {
    if (xsltQuoteUserParams(ctxt, args.data()) == 0)
      res = xsltApplyStylesheetUser(_style, input, nullptr, nullptr, nullptr, ctxt);
    if (res && ctxt->state != XSLT_STATE_OK) {
      xmlFreeDoc(res);
      res = nullptr;
    }
    xsltFreeTransformContext(ctxt);
  }
  if (scratch) xmlFreeDoc(scratch);
  if (res == nullptr) {
    _error = errors.message();
    if (_error.empty()) _error = "XSLT transformation failed";
  }
  return res;
}

bool stylesheet::apply(const xml::document& doc, xml::document& result, const param_type& params) {
  xmlDocPtr res = static_cast<xmlDocPtr>(transform(doc, params));
  if (res == nullptr) return false;
  result = xml::document(std::make_shared<xml::detail::tree>(res));
  return true;
}

xml::document stylesheet::apply(const xml::document& doc, const param_type& params) {
  xml::document result{xml::detail::tree_ptr()};
  if (!apply(doc, result, params)) throw xml::exception(_error);
  return result;
}

bool stylesheet::apply_to_string(const xml::document& doc, std::string& out,
                                 const param_type& params) {
  xmlDocPtr res = static_cast<xmlDocPtr>(transform(doc, params));
  if (res == nullptr) return false;
  xmlChar* mem = nullptr;
  int len = 0;
  int rc = xsltSaveResultToString(&mem, &len, res, _style);
  xmlFreeDoc(res);
  if (rc != 0) {
    if (mem) xmlFree(mem);
    _error = "cannot serialise the transformation result";
    return false;
  }
  out.assign(mem ? reinterpret_cast<const char*>(mem) : "", mem ? static_cast<size_t>(len) : 0);
  if (mem) xmlFree(mem);
  return true;
}

}  // namespace xslt
