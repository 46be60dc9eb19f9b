// BundleArchive: reads one .conf file out of a ".bundle" archive.
//
// A bundle may be shipped as an archive (any format and compression libarchive
// reads) instead of a directory. Every entry whose whole path is the file name
// or ends in "/" plus the file name is copied into an unnamed temporary file
// and parsed from there into the settings, in archive order (so the first
// entry's keys win, as the first occurrence of a key within a file does).
//
// Failures are printed on standard error, one line each:
//   "Unable to read archive: %s error: %s\n"        the archive cannot be opened or
//                                                     its first header read
//   "Unable to read file in archive: %s error: %s\n" a header or data block fails
//   "Unable to create temp file: errno: %d\n"
//   "Unable to read into temp file: errno: %s\n"     the copy cannot be written
// Stateless; any thread.
#pragma once

#include "libbundle/SettingsMap.h"
#include "util/Pathname.h"
#include "util/Str.h"

class BundleArchive {
 public:
  // True if at least one matching entry was read whole.
  static bool load(const Pathname& archive, const Str& fileName, SettingsMap& settings);

  // Does the entry path name `fileName` ("(.*/)?" + fileName, matched whole)?
  static bool entryMatches(const char* entryPath, const Str& fileName);
};
