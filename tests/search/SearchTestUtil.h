// Scratch installation for result-model tests: a fresh VELMOR_HOME under
// /tmp with var/run/velmor, and property files written into the "default"
// bundle. Removed on destruction.
#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "libbundle/PropertyPages.h"
#include "loaderinfo/LoaderInfo.h"
#include "search/SearchResults.h"
#include "util/Pathname.h"

namespace searchtest {

class ScratchHome {
 public:
  ScratchHome() {
    char tmpl[] = "/tmp/velmor-search-test-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) abort();
    _path = Pathname(tmpl);
    (_path / "var/run/velmor").mkdir_p();
    (_path / "etc/bundles/default").mkdir_p();
    setenv("VELMOR_HOME", _path.c_str(), 1);
    LoaderInfo::getInstance().populateFromEnvironment();
  }
  ~ScratchHome() {
    _path.removeRecursive();
    LoaderInfo::getInstance().setHomePath("");
  }
  const Pathname& path() const { return _path; }
  // Writes <name>.conf of the default bundle and reloads that property file.
  void writeConf(const std::string& name, const std::string& text) const {
    Pathname p = _path / ("etc/bundles/default/" + name + ".conf");
    FILE* f = fopen(p.c_str(), "w");
    if (!f) abort();
    fputs(text.c_str(), f);
    fclose(f);
    PropertyPages::instance(name).updateConfigs();
  }

 private:
  Pathname _path;
};

// A fresh scratch directory.
class ScratchDir {
 public:
  ScratchDir() {
    char tmpl[] = "/tmp/velmor-search-dir-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) abort();
    _path = Pathname(tmpl);
  }
  ~ScratchDir() { _path.removeRecursive(); }
  const Pathname& path() const { return _path; }
  Pathname operator/(const std::string& rel) const { return _path / rel; }

 private:
  Pathname _path;
};

// A row as name -> value; a name missing from the map is an absent field.
typedef std::map<std::string, std::string> Row;

inline std::vector<Row> rowsOf(const SearchResults& rs) {
  std::vector<Row> out;
  for (const SearchResult* r : rs) {
    Row row;
    for (const auto& kv : rs.getKeyMap())
      if (const Str* v = r->getValuePtr(kv.second)) row[kv.first] = *v;
    out.push_back(row);
  }
  return out;
}

inline void addRows(SearchResults& rs, const std::vector<Row>& rows) {
  for (const Row& row : rows) {
    SearchResult* r = rs.addNewResult();
    for (const auto& kv : row) r->setValue(Str(kv.first), Str(kv.second));
  }
}

inline std::string readAll(const Pathname& p) {
  std::string s;
  FILE* f = fopen(p.c_str(), "r");
  if (!f) return s;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, f)) > 0) s.append(buf, n);
  fclose(f);
  return s;
}

inline void writeAll(const Pathname& p, const std::string& text) {
  FILE* f = fopen(p.c_str(), "w");
  if (!f) abort();
  fwrite(text.data(), 1, text.size(), f);
  fclose(f);
}

}  // namespace searchtest
