// MConfigFileReadCallback: told each time a .conf file has been read.
//
// Objects register with PropertiesMapConfig::registerCallback(); the list is
// process-wide and kept for the life of the process, so a registered object
// must outlive every later load (or unregister first). configFileRead() runs
// in the thread that loaded the file, with that file's object locked: it must
// not call back into the same PropertiesMapConfig.
#pragma once

#include "util/Str.h"

class MConfigFileReadCallback {
 public:
  virtual ~MConfigFileReadCallback() = default;
  // `path` is the .conf file (for an archive: the archive and the file name
  // joined by "/"); `found` is false when the file was absent or unreadable.
  virtual void configFileRead(const Str& path, bool found) = 0;
};
