// PersistentHashManager: the process's small persistent map of string keys
// to string values (the tag maps of PersistentMapManager live in it), a
// RecordFileManager over one record file that is written whole after every
// change.
//
// The file is "<dir>/persistenthash.rec". dir is, in this order: the one
// given to setDirectory(), the attribute "path" of the node given to init(),
// or "$VELMOR_DB/persistentstorage". With none of them the pairs live in
// memory only (logged once). A file the record file manager refuses (no
// version record) is left untouched and the manager turns read-only: reads
// find nothing, changes fail, until the file is repaired or removed and the
// manager is initialised again.
//
// The first use initialises from the defaults when init() was not called.
// Threads: one mutex guards everything; any thread may call any member.
#pragma once

#include <memory>
#include <utility>
#include <vector>

#include "util/Mutex.h"
#include "util/Pathname.h"
#include "util/Str.h"

namespace xml {
class node;
}
class RecordFileManager;

class PersistentHashManager {
 public:
  static const char* const kFileName;  // "persistenthash.rec"

  static PersistentHashManager* instance();

  // (Re)reads the pairs from the file chosen as said above.
  void init(const xml::node& node);
  // Uses the file in `dir` from now on, reading it (tests; an empty dir means
  // memory only).
  void setDirectory(const Pathname& dir);
  // The record file in use; empty when in memory only.
  Pathname getPath();

  // Each change is saved before it returns; false (and nothing changed) when
  // it could not be saved or the manager is read-only.
  bool put(const Str& key, const Str& value);
  bool remove(const Str& key);
  bool get(const Str& key, Str& out);
  // The pairs whose key starts with prefix, in key order.
  std::vector<std::pair<Str, Str>> enumerate(const Str& prefix);

 private:
  PersistentHashManager();
  ~PersistentHashManager();
  void Locked_open(const Pathname& dir);
  void Locked_ensureOpen();
  // Saves the map (memory only: nothing to do).
  bool Locked_save();

  Mutex _mutex;
  bool _open = false;
  bool _readOnly = false;
  Pathname _setDir;  // from setDirectory()
  bool _dirSet = false;
  Pathname _path;  // the record file; empty: memory only
  std::unique_ptr<RecordFileManager> _records;
};
