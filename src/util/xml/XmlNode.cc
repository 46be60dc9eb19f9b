#include "util/xml/XmlNode.h"

#include <libxml/tree.h>

#include <cassert>
#include <cstring>

#include "util/xml/XmlInit.h"

namespace xml {

namespace detail {

tree::~tree() {
  if (doc) xmlFreeDoc(doc);
}

tree_ptr new_tree() {
  init::ensure();
  return std::make_shared<tree>(xmlNewDoc(BAD_CAST "1.0"));
}

}  // namespace detail

namespace {

const xmlChar* X(const char* s) { return reinterpret_cast<const xmlChar*>(s); }

std::string take(xmlChar* s) {
  if (s == nullptr) return std::string();
  std::string out(reinterpret_cast<const char*>(s));
  xmlFree(s);
  return out;
}

bool is_named_element(xmlNodePtr n, const char* name) {
  return n->type == XML_ELEMENT_NODE &&
         (name == nullptr || strcmp(reinterpret_cast<const char*>(n->name), name) == 0);
}

}  // namespace

node::node(const char* name, const char* content) {
  _tree = detail::new_tree();
  _node = xmlNewDocNode(_tree->doc, nullptr, X(name), nullptr);
  xmlDocSetRootElement(_tree->doc, _node);
  if (content) xmlNodeAddContent(_node, X(content));
}

void node::require() const { assert(_node != nullptr && "operation on an empty xml::node"); }

node::node_type node::get_type() const {
  if (!_node) return type_other;
  switch (_node->type) {
    case XML_ELEMENT_NODE: return type_element;
    case XML_TEXT_NODE: return type_text;
    case XML_CDATA_SECTION_NODE: return type_cdata;
    case XML_COMMENT_NODE: return type_comment;
    case XML_PI_NODE: return type_pi;
    default: return type_other;
  }
}

bool node::is_text() const {
  node_type t = get_type();
  return t == type_text || t == type_cdata;
}

const char* node::get_name() const {
  return _node && _node->name ? reinterpret_cast<const char*>(_node->name) : "";
}

void node::set_name(const char* name) {
  require();
  xmlNodeSetName(_node, X(name));
}

std::string node::get_content() const { return _node ? take(xmlNodeGetContent(_node)) : ""; }

void node::set_content(const std::string& text) {
  require();
  if (_node->type == XML_ELEMENT_NODE) {
    // xmlNodeSetContent would read "&..." as entity references; the text
    // is meant literally.
    clear_children();
    xmlNodeAddContentLen(_node, X(text.c_str()), static_cast<int>(text.size()));
  } else {
    xmlNodeSetContentLen(_node, X(text.c_str()), static_cast<int>(text.size()));
  }
}

bool node::has_attribute(const char* name) const {
  return _node && _node->type == XML_ELEMENT_NODE && xmlHasProp(_node, X(name)) != nullptr;
}

bool node::get_attribute(const char* name, std::string& out) const {
  if (!_node || _node->type != XML_ELEMENT_NODE) return false;
  xmlAttrPtr a = xmlHasProp(_node, X(name));
  if (a == nullptr) return false;
  out = take(xmlNodeGetContent(reinterpret_cast<xmlNodePtr>(a)));
  return true;
}

std::string node::get_attribute(const char* name) const {
  std::string out;
  get_attribute(name, out);
  return out;
}

void node::set_attribute(const char* name, const std::string& value) {
  require();
  xmlSetProp(_node, X(name), X(value.c_str()));
}

bool node::erase_attribute(const char* name) {
  require();
  xmlAttrPtr a = xmlHasProp(_node, X(name));
  if (a == nullptr) return false;
  xmlRemoveProp(a);
  return true;
}

std::vector<std::pair<std::string, std::string>> node::get_attributes() const {
  std::vector<std::pair<std::string, std::string>> out;
  if (!_node || _node->type != XML_ELEMENT_NODE) return out;
  for (xmlAttrPtr a = _node->properties; a; a = a->next)
    out.emplace_back(reinterpret_cast<const char*>(a->name),
                     take(xmlNodeGetContent(reinterpret_cast<xmlNodePtr>(a))));
  return out;
}

node node::parent() const {
  if (!_node || !_node->parent || _node->parent->type == XML_DOCUMENT_NODE) return node();
  return wrap(_node->parent);
}

node node::first_child() const { return _node ? wrap(_node->children) : node(); }

node node::next_sibling() const { return _node ? wrap(_node->next) : node(); }

node node::first_element() const {
  if (!_node) return node();
  for (xmlNodePtr c = _node->children; c; c = c->next)
    if (c->type == XML_ELEMENT_NODE) return wrap(c);
  return node();
}

node node::next_element() const {
  if (!_node) return node();
  for (xmlNodePtr c = _node->next; c; c = c->next)
    if (c->type == XML_ELEMENT_NODE) return wrap(c);
  return node();
}

std::vector<node> node::children() const {
  std::vector<node> out;
  if (_node)
    for (xmlNodePtr c = _node->children; c; c = c->next) out.push_back(wrap(c));
  return out;
}

std::vector<node> node::elements() const { return elements(nullptr); }

std::vector<node> node::elements(const char* name) const {
  std::vector<node> out;
  if (_node)
    for (xmlNodePtr c = _node->children; c; c = c->next)
      if (is_named_element(c, name)) out.push_back(wrap(c));
  return out;
}

node node::find(const char* name) const {
  if (_node)
    for (xmlNodePtr c = _node->children; c; c = c->next)
      if (is_named_element(c, name)) return wrap(c);
  return node();
}

node node::find_by_attribute(const char* name, const char* attr, const std::string& value) const {
  if (!_node) return node();
  std::string v;
  for (xmlNodePtr c = _node->children; c; c = c->next) {
    if (!is_named_element(c, name)) continue;
    node n = wrap(c);
    if (n.get_attribute(attr, v) && v == value) return n;
  }
  return node();
}

bool node::child_content(const char* name, std::string& out) const {
  node c = find(name);
  if (!c) return false;
  out = c.get_content();
  return true;
}

node node::append_element(const char* name, const char* content) {
  require();
  xmlNodePtr c = xmlNewDocNode(_node->doc, nullptr, X(name), nullptr);
  xmlAddChild(_node, c);
  if (content) xmlNodeAddContent(c, X(content));
  return wrap(c);
}

void node::append_text(const std::string& text) {
  require();
  xmlNodeAddContentLen(_node, X(text.c_str()), static_cast<int>(text.size()));
}

xmlNodePtr node::import(const node& other) const {
  assert(other._node != nullptr);
  return xmlDocCopyNode(other._node, _node->doc, 1);
}

node node::append_child(const node& child) {
  require();
  xmlNodePtr c = import(child);
  if (c == nullptr) return node();
  // xmlAddChild may merge a text node into its neighbour and free the copy;
  // what it returns is the node that holds the text now.
  xmlNodePtr r = xmlAddChild(_node, c);
  if (r == nullptr) xmlFreeNode(c);
  return wrap(r);
}

node node::insert_before(const node& where, const node& child) {
  require();
  assert(where._node && where._node->parent == _node);
  xmlNodePtr c = import(child);
  if (c == nullptr) return node();
  xmlNodePtr r = xmlAddPrevSibling(where._node, c);
  if (r == nullptr) xmlFreeNode(c);
  return wrap(r);
}

node node::insert_after(const node& where, const node& child) {
  require();
  assert(where._node && where._node->parent == _node);
  xmlNodePtr c = import(child);
  if (c == nullptr) return node();
  xmlNodePtr r = xmlAddNextSibling(where._node, c);
  if (r == nullptr) xmlFreeNode(c);
  return wrap(r);
}

node node::replace_child(const node& old, const node& with) {
  require();
  assert(old._node && old._node->parent == _node);
  xmlNodePtr c = import(with);
  if (c == nullptr) return node();
  xmlNodePtr gone = xmlReplaceNode(old._node, c);
  if (gone) xmlFreeNode(gone);
  return wrap(c);
}

void node::erase_child(const node& child) {
  require();
  assert(child._node && child._node->parent == _node);
  xmlUnlinkNode(child._node);
  xmlFreeNode(child._node);
}

void node::clear_children() {
  require();
  while (xmlNodePtr c = _node->children) {
    xmlUnlinkNode(c);
    xmlFreeNode(c);
  }
}

node node::deep_copy() const {
  if (!_node) return node();
  detail::tree_ptr t = detail::new_tree();
  xmlNodePtr c = xmlDocCopyNode(_node, t->doc, 1);
  if (c == nullptr) return node();
  if (c->type == XML_ELEMENT_NODE)
    xmlDocSetRootElement(t->doc, c);
  else
    xmlAddChild(reinterpret_cast<xmlNodePtr>(t->doc), c);
  return node(t, c);
}

std::string node::to_string(bool indent) const {
  if (!_node) return std::string();
  xmlBufferPtr buf = xmlBufferCreate();
  xmlNodeDump(buf, _node->doc, _node, 0, indent ? 1 : 0);
  std::string out(reinterpret_cast<const char*>(xmlBufferContent(buf)),
                  static_cast<size_t>(xmlBufferLength(buf)));
  xmlBufferFree(buf);
  return out;
}

}  // namespace xml
