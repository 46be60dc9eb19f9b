#include "util/xml/XmlDocument.h"

#include <libxml/tree.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

#include "util/xml/XmlInit.h"

namespace xml {

document::document() : _tree(detail::new_tree()) {}

document::document(const char* root_name) : _tree(detail::new_tree()) {
  xmlNodePtr r = xmlNewDocNode(_tree->doc, nullptr, reinterpret_cast<const xmlChar*>(root_name),
                               nullptr);
  xmlDocSetRootElement(_tree->doc, r);
}

document::document(const node& root) : _tree(detail::new_tree()) { set_root_node(root); }

node document::get_root_node() const {
  if (!_tree) return node();
  xmlNodePtr r = xmlDocGetRootElement(_tree->doc);
  return r ? node(_tree, r) : node();
}

node document::set_root_node(const node& root) {
  if (root.empty()) return node();
  if (!_tree) _tree = detail::new_tree();
  xmlNodePtr c = xmlDocCopyNode(root.get_raw_node(), _tree->doc, 1);
  if (c == nullptr) return node();
  xmlNodePtr old = xmlDocSetRootElement(_tree->doc, c);
  if (old) xmlFreeNode(old);
  return node(_tree, c);
}

bool document::save_to_string(std::string& out, const char* encoding, bool indent) const {
  if (!_tree) return false;
  init::capture_errors quiet;
  xmlChar* mem = nullptr;
  int size = 0;
  xmlDocDumpFormatMemoryEnc(_tree->doc, &mem, &size, encoding, indent ? 1 : 0);
  if (mem == nullptr) return false;
  out.assign(reinterpret_cast<const char*>(mem), static_cast<size_t>(size));
  xmlFree(mem);
  return true;
}

bool document::save_to_file(const char* path, const char* encoding, bool indent) const {
  std::string text;
  if (!save_to_string(text, encoding, indent)) {
    errno = EINVAL;
    return false;
  }
  std::string tmp = std::string(path) + ".tmp";
  int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  size_t done = 0;
  while (done < text.size()) {
    ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      int e = errno;
      ::close(fd);
      ::unlink(tmp.c_str());
      errno = e;
      return false;
    }
    done += static_cast<size_t>(n);
  }
  if (::close(fd) != 0 || ::rename(tmp.c_str(), path) != 0) {
    int e = errno;
    ::unlink(tmp.c_str());
    errno = e;
    return false;
  }
  return true;
}

document document::deep_copy() const {
  if (!_tree) return document();
  init::ensure();
  return document(std::make_shared<detail::tree>(xmlCopyDoc(_tree->doc, 1)));
}

}  // namespace xml
