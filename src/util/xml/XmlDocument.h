// xml::document: a handle on a whole XML tree, with its root element, and
// the ways to write it out.
//
// Ownership: like xml::node, a document shares the ownership of its tree
// (see XmlNode.h); copying a document copies the handle, not the tree, and
// the nodes taken from it keep the tree alive after the document is gone.
// deep_copy() gives an independent tree.
//
// Threads: as xml::node; a tree is changed by one thread at a time.
#pragma once

#include <string>

#include "util/xml/XmlNode.h"

namespace xml {

class document {
 public:
  // An empty document (no root element).
  document();
  // A document whose root is a new element named `root_name`.
  explicit document(const char* root_name);
  // A document whose root is a deep copy of `root` (an element).
  explicit document(const node& root);
  // Adopts a tree made elsewhere in this layer (parser, stylesheet). A null
  // tree gives a document with no root that cannot be saved.
  explicit document(detail::tree_ptr t) : _tree(std::move(t)) {}

  // The root element, or an empty node when there is none.
  node get_root_node() const;
  // Replaces the root element by a deep copy of `root`; returns the copy.
  node set_root_node(const node& root);

  // The document as text with an XML declaration naming `encoding`; the
  // text is in that encoding. `indent` formats the output. False (and `out`
  // unchanged) for an unknown encoding.
  bool save_to_string(std::string& out, const char* encoding = "UTF-8", bool indent = false) const;
  // The same, written to `path` through a temporary file beside it that is
  // renamed over it, so a reader never sees half a file. False on any
  // failure, with errno set by the call that failed.
  bool save_to_file(const char* path, const char* encoding = "UTF-8", bool indent = false) const;

  document deep_copy() const;

  const detail::tree_ptr& get_tree() const { return _tree; }

 private:
  detail::tree_ptr _tree;
};

}  // namespace xml
