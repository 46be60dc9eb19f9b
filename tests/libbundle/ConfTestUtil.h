// Helpers shared by the property-file tests: a scratch VELMOR_HOME under a
// fresh mkdtemp directory, file writing, and a readable dump of parsed
// stanzas.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "libbundle/SettingsMap.h"
#include "loaderinfo/LoaderInfo.h"

namespace conftest {

inline std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

inline void writeFile(const std::string& path, const std::string& text) {
  std::string dir = path.substr(0, path.rfind('/'));
  std::string cmd = "mkdir -p '" + dir + "'";
  if (system(cmd.c_str()) != 0) abort();
  std::ofstream out(path, std::ios::binary);
  out << text;
}

// "name{key=value;...}" per stanza, newlines shown as "\n".
inline std::string dump(const SettingsMap& settings, bool withRaw = true) {
  std::string out;
  for (const auto& [name, map] : settings) {
    out += name + "{";
    bool first = true;
    for (const auto& [key, value] : map) {
      if (!withRaw && key == "_raw") continue;
      if (!first) out += ";";
      first = false;
      out += key + "=";
      for (char c : value) {
        if (c == '\n') out += "\\n";
        else if (c == '\r') out += "\\r";
        else out += c;
      }
    }
    out += "}";
  }
  return out;
}

// A scratch directory, removed with everything in it on destruction.
class TempDir {
 public:
  TempDir() {
    char tmpl[] = "/tmp/velmor-conf-test-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) abort();
    _path = tmpl;
  }
  ~TempDir() {
    std::string cmd = "rm -rf '" + _path + "'";
    if (system(cmd.c_str()) != 0) perror("rm");
  }
  const std::string& path() const { return _path; }
  std::string operator/(const std::string& rel) const { return _path + "/" + rel; }

 private:
  std::string _path;
};

// A scratch VELMOR_HOME made current for LoaderInfo; the bundles live in
// home/etc/bundles.
class TempHome : public TempDir {
 public:
  TempHome() {
    writeFile(*this / "etc/bundles/.keep", "");
    setenv("VELMOR_HOME", path().c_str(), 1);
    LoaderInfo::getInstance().populateFromEnvironment();
  }
  ~TempHome() { LoaderInfo::getInstance().setHomePath(""); }
  std::string bundle(const std::string& name) const { return *this / ("etc/bundles/" + name); }
  void write(const std::string& bundleName, const std::string& file, const std::string& text) const {
    writeFile(bundle(bundleName) + "/" + file, text);
  }
};

}  // namespace conftest
