// ScratchHome: a scratch installation for index-side tests: a fresh
// directory under /tmp holding a VELMOR_HOME laid out by scripts/mkhome.sh,
// with VELMOR_HOME and VELMOR_DB set to it and LoaderInfo reloaded. The
// directory goes with the object. ok() says whether the layout succeeded.
//
// Header only. One thread.
#pragma once

#include <stdlib.h>

#include <string>

#include "loaderinfo/LoaderInfo.h"

class ScratchHome {
 public:
  // `tag` names the directory: /tmp/velmor-<tag>-XXXXXX.
  explicit ScratchHome(const std::string& tag) {
    std::string tmpl = "/tmp/velmor-" + tag + "-XXXXXX";
    if (!mkdtemp(tmpl.data())) return;
    dir = tmpl;
    home = dir + "/home";
    db = home + "/var/lib/velmor/db";
    if (system(("bash " VELMOR_SOURCE_DIR "/scripts/mkhome.sh " + home + " >/dev/null").c_str()) != 0) return;
    setenv("VELMOR_HOME", home.c_str(), 1);
    setenv("VELMOR_DB", db.c_str(), 1);
    LoaderInfo::getInstance().populateFromEnvironment();
    _ok = true;
  }
  ~ScratchHome() {
    if (!dir.empty() && system(("rm -rf " + dir).c_str()) != 0) {
    }
  }
  ScratchHome(const ScratchHome&) = delete;
  ScratchHome& operator=(const ScratchHome&) = delete;

  bool ok() const { return _ok; }

  std::string dir, home, db;

 private:
  bool _ok = false;
};
