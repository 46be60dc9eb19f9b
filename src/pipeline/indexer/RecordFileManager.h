// RecordFileManager: a small persistent map of string keys to string values,
// held in memory and written whole to one record file.
//
// Record file layout (native byte order, here little-endian), records one
// after another to the end of the file:
//
//   OFFSET   SIZE  MEANING
//   0        4     key length K (uint32)
//   4        K     key bytes
//   4+K      4     value length V (uint32)
//   8+K      V     value bytes
//
// The first record has the key "_record-file-version" (value "1"); a file
// without it is refused. saveToFile() writes the version record and then
// every entry in key order, through "<path>.temp" and rename so a crash
// leaves the old file whole. load() reads in pieces of at most 1000 bytes and
// keeps the records before a short read (which it logs).
//
// Threads: every member takes the object's mutex.
#pragma once

#include <map>
#include <vector>

#include "util/Mutex.h"
#include "util/Pathname.h"
#include "util/Str.h"

class RecordFileManager {
 public:
  static const char* const kVersionKey;  // "_record-file-version"

  explicit RecordFileManager(const Pathname& path) : _path(path) {}

  // Replaces the map with the file's records. A missing file is an empty map
  // (true). Throws DbException "No version string found in hash db.  File has
  // been modified or was never migrated." when the first record is not the
  // version. Returns false when the file could not be read.
  bool load();
  // Writes the whole map. False on a failure (logged).
  bool saveToFile();

  // Refuses (logs, false) the version key.
  bool put(const Str& key, const Str& value);
  bool get(const Str& key, Str& out);
  bool remove(const Str& key);
  // Every entry whose key starts with prefix, in key order.
  std::vector<std::pair<Str, Str>> enumerate(const Str& prefix);
  size_t size();

 private:
  Mutex _mutex;
  Pathname _path;
  std::map<Str, Str> _map;
};
