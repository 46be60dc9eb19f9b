// Fuzz target for the XML parser and the "$$NAME]]" substitution of module
// descriptions. The input is a substitution document, a NUL byte, and the
// document to substitute into (without a NUL the whole input is the
// document and the tokens are fixed). A substituted tree must serialise to
// text that parses again, and substituting into text without "$$" must
// change nothing.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "loaderinfo/XMLAndStringUtil.h"
#include "util/xml/XmlTreeParser.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Replacement can multiply the text; keep each run small.
  if (size > 8192) return 0;
  std::string input(reinterpret_cast<const char*>(data), size);
  XMLAndStringUtil::TokenMap tokens = {{"MODULE_PATH", "/opt/mod"}, {"A", "a&<b>"}, {"E", ""}};
  std::string text = input;
  size_t nul = input.find('\0');
  if (nul != std::string::npos) {
    text = input.substr(nul + 1);
    xml::tree_parser subst(input.data(), nul, false);
    if (!subst.failed())
      for (const xml::node& e : subst.get_document().get_root_node().elements())
        tokens.emplace(Str(e.get_name()), Str(e.get_content()));
  }

  Str raw = text;
  bool changed = XMLAndStringUtil::substituteTokens(raw, tokens);
  if (text.find("$$") == std::string::npos && (changed || raw != text)) abort();

  xml::tree_parser parser(text.data(), text.size(), false);
  if (parser.failed()) return 0;
  xml::node root = parser.get_document().get_root_node();
  XMLAndStringUtil::substituteNode(root, tokens);
  std::string out;
  if (!parser.get_document().save_to_string(out)) abort();
  xml::tree_parser again(out.data(), out.size(), false);
  if (again.failed()) abort();
  return 0;
}
