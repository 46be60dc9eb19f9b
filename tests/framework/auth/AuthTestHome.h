// Shared by the authentication tests: a scratch configuration directory
// (removed afterwards) and small file helpers.
#pragma once

#include <stdlib.h>
#include <sys/stat.h>

#include <fstream>
#include <sstream>
#include <string>

#include "util/Pathname.h"

namespace authtest {

class TempDir {
 public:
  TempDir() {
    char tmpl[] = "/tmp/velmor-auth-test-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) abort();
    _path = Str(tmpl);
  }
  ~TempDir() { _path.removeRecursive(); }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const Pathname& path() const { return _path; }

 private:
  Pathname _path;
};

inline std::string readFile(const std::string& p) {
  std::ifstream in(p, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

inline void writeFile(const Pathname& p, const std::string& text, mode_t mode = 0644) {
  p.toParent().mkdir_p();
  {
    std::ofstream out(p, std::ios::binary | std::ios::trunc);
    out << text;
  }
  ::chmod(p.c_str(), mode);
}

inline mode_t fileMode(const std::string& p) {
  struct stat st;
  return ::stat(p.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0;
}

}  // namespace authtest
