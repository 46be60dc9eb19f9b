// xml::node: a handle on one node of an XML tree (libxml2 underneath).
//
// Ownership model. Every node lives in a tree; the tree (an xmlDoc) is owned
// jointly by all handles on its nodes and by the xml::document handles on it,
// through a shared pointer, and is freed when the last of them goes. A node
// handle is therefore cheap to copy, and a copy refers to the SAME node (as a
// pointer would); deep_copy() makes an independent tree.
//   - A default-constructed node is empty (refers to nothing); empty() says so.
//     Queries on an empty node give empty answers; mutators REQUIRE non-empty.
//   - node("name") creates a new element as the root of a fresh tree.
//   - Inserting (append_child, insert_before, insert_after, replace_child)
//     copies the given node, deeply, into this tree and returns a handle on
//     the copy; the argument is left untouched, whichever tree it lives in.
//   - erase_child() and replace_child() free the removed node. Handles on it or
//     on anything under it become dangling, as iterators do after erase on a
//     std::list: REQUIRES that nobody uses them afterwards.
//
// Threads: a tree may be read by several threads at once; any change needs
// the caller to exclude all other users of the same tree. Separate trees are
// independent. xml::init must have run before (it runs on first use).
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

struct _xmlNode;
struct _xmlDoc;

namespace xml {

namespace detail {
// The owner of one libxml2 document; frees it on destruction.
struct tree {
  explicit tree(_xmlDoc* d) : doc(d) {}
  ~tree();
  tree(const tree&) = delete;
  tree& operator=(const tree&) = delete;
  _xmlDoc* doc;
};
using tree_ptr = std::shared_ptr<tree>;
tree_ptr new_tree();  // an empty document with version "1.0"
}  // namespace detail

class node {
 public:
  enum node_type { type_element, type_text, type_cdata, type_comment, type_pi, type_other };

  node() = default;
  // A new element named `name`, optionally with text content, as the root of
  // a fresh tree.
  explicit node(const char* name, const char* content = nullptr);

  bool empty() const { return _node == nullptr; }
  explicit operator bool() const { return _node != nullptr; }
  // Same node of the same tree.
  bool operator==(const node& o) const { return _node == o._node; }

  node_type get_type() const;
  bool is_element() const { return get_type() == type_element; }
  bool is_text() const;  // text or CDATA

  // Element name; "" for an empty node. The pointer lives as long as the node.
  const char* get_name() const;
  void set_name(const char* name);

  // All text under this node, concatenated (for a text node, its text).
  std::string get_content() const;
  // Replaces all children by one text node holding `text` (escaped as needed).
  void set_content(const std::string& text);

  // --- attributes ---------------------------------------------------------
  bool has_attribute(const char* name) const;
  // False, and `out` unchanged, when the attribute is absent.
  bool get_attribute(const char* name, std::string& out) const;
  // The value, or "" when absent.
  std::string get_attribute(const char* name) const;
  void set_attribute(const char* name, const std::string& value);
  // True if it was there.
  bool erase_attribute(const char* name);
  std::vector<std::pair<std::string, std::string>> get_attributes() const;

  // --- navigation -----------------------------------------------------------
  node parent() const;
  node first_child() const;    // any kind of node
  node next_sibling() const;   // any kind of node
  node first_element() const;  // first element child
  node next_element() const;   // next element sibling
  std::vector<node> children() const;  // every child node, in order
  std::vector<node> elements() const;  // element children, in order
  std::vector<node> elements(const char* name) const;  // ... with that name
  // The first element child named `name`, or an empty node.
  node find(const char* name) const;
  // The first element child named `name` (any name if null) whose attribute
  // `attr` equals `value`, or an empty node.
  node find_by_attribute(const char* name, const char* attr, const std::string& value) const;
  // The text of the first element child named `name`; false when absent.
  bool child_content(const char* name, std::string& out) const;

  // --- changes (each REQUIRES a non-empty node) -----------------------------
  // A new element child at the end, returned.
  node append_element(const char* name, const char* content = nullptr);
  // A new text node at the end.
  void append_text(const std::string& text);
  // Deep copies of `child` inserted: at the end / before / after `where`,
  // which REQUIRES being a child of this node. Each returns the inserted copy.
  node append_child(const node& child);
  node insert_before(const node& where, const node& child);
  node insert_after(const node& where, const node& child);
  // Puts a deep copy of `with` in place of the child `old`, frees `old`.
  node replace_child(const node& old, const node& with);
  // Unlinks and frees the child `child`.
  void erase_child(const node& child);
  // Removes every child.
  void clear_children();

  // A deep copy as the root of a new, independent tree.
  node deep_copy() const;

  // The node serialised as XML text (no declaration); `indent` formats.
  std::string to_string(bool indent = false) const;

  // For the rest of this layer (document, stylesheet): the libxml2 node and
  // the owner of its tree.
  _xmlNode* get_raw_node() const { return _node; }
  const detail::tree_ptr& get_tree() const { return _tree; }
  node(detail::tree_ptr t, _xmlNode* n) : _tree(std::move(t)), _node(n) {}

 private:
  void require() const;
  node wrap(_xmlNode* n) const { return n ? node(_tree, n) : node(); }
  _xmlNode* import(const node& other) const;

  detail::tree_ptr _tree;
  _xmlNode* _node = nullptr;
};

}  // namespace xml
