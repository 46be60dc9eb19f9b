// A scratch VELMOR_HOME for the configuration tests: a fresh directory under
// /tmp with the shipped stylesheet, removed with everything in it at the end.
#pragma once

#include <cstdlib>
#include <fstream>
#include <string>

#include "util/Pathname.h"
#include "util/xml/XmlNode.h"

class ConfigTestHome {
 public:
  ConfigTestHome() {
    char tmpl[] = "/tmp/velmor_config_XXXXXX";
    _path = mkdtemp(tmpl);
    (_path / "etc/myinstall").mkdir_p();
    Pathname(VELMOR_SOURCE_DIR "/etc/prettyprint.xsl").copyTo(_path / "etc/prettyprint.xsl");
  }
  ~ConfigTestHome() { _path.removeRecursive(); }
  ConfigTestHome(const ConfigTestHome&) = delete;
  ConfigTestHome& operator=(const ConfigTestHome&) = delete;

  const Pathname& path() const { return _path; }

  // Writes `text` to home/<rel>, making the directories on the way.
  Pathname write(const std::string& rel, const std::string& text) const {
    Pathname p = _path / rel;
    p.toParent().mkdir_p();
    std::ofstream(p) << text;
    return p;
  }

 private:
  Pathname _path;
};

// "pipeline:proc,proc;" for every pipeline of a component, in order.
inline std::string describeComponent(const xml::node& component) {
  std::string out;
  for (const xml::node& p : component.elements("pipeline")) {
    out += p.get_attribute("name") + ":";
    bool first = true;
    for (const xml::node& proc : p.elements("processor")) {
      out += (first ? "" : ",") + proc.get_attribute("name");
      first = false;
    }
    out += ";";
  }
  return out;
}
