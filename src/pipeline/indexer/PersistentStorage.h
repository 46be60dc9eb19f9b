// PersistentStorage: a named persistent key-value store, as its users see
// it. Entries have a PSKey (a primary key and three secondary keys to select
// on) and a text value; a write replaces the entry of its primary key.
//
// Behind the front is one of two stores, chosen by the type:
//   ePersistentStorageSQLite  SQLitePersistentStorageImpl,
//                             "<baseDir>/persistentstorage/<name>.db"
//   ePersistentStorageST      STPersistentStorageImpl over the index engine,
//                             "<baseDir>/persistentstorage/<name>.st/"
// Both answer alike; the engine store holds one opener at a time.
// baseDir defaults to the database path ($VELMOR_DB).
//
// Opening failures throw DbException; later failures are logged and answered
// with false. Threads: any thread may call any member (the stores lock
// themselves).
#pragma once

#include <memory>
#include <utility>
#include <vector>

#include "pipeline/indexer/PSKey.h"
#include "util/Pathname.h"
#include "util/Str.h"

class SQLitePersistentStorageImpl;
class STPersistentStorageImpl;

enum EPersistentStorageType { ePersistentStorageSQLite, ePersistentStorageST };

class PersistentStorage {
 public:
  // Opens (creating if need be) the store `name` under $VELMOR_DB. Throws
  // DbException when VELMOR_DB is not set or the store cannot be opened.
  PersistentStorage(EPersistentStorageType type, const Str& name);
  PersistentStorage(EPersistentStorageType type, const Str& name, const Pathname& baseDir);
  ~PersistentStorage();
  PersistentStorage(const PersistentStorage&) = delete;
  PersistentStorage& operator=(const PersistentStorage&) = delete;

  EPersistentStorageType getType() const { return _type; }
  const Str& getName() const { return _name; }

  bool write(const PSKey& key, const Str& value);
  // False when the key is absent (or on a failure).
  bool read(const Str& primary, Str& out);
  // Entries with start <= primary key < end, in key order, appended to out.
  bool enumerate(const Str& start, const Str& end, std::vector<std::pair<Str, Str>>& out);
  // Entries whose secondaries equal the non-empty secondaries of `match`
  // (every entry when all are empty), in key order, appended to out.
  bool enumerate(const PSKey& match, std::vector<std::pair<Str, Str>>& out);
  // True unless the removal failed; removing an absent key is no failure.
  bool remove(const Str& primary);

 private:
  void open(const Pathname& baseDir);

  EPersistentStorageType _type;
  Str _name;
  std::unique_ptr<SQLitePersistentStorageImpl> _sqlite;
  std::unique_ptr<STPersistentStorageImpl> _st;
};
