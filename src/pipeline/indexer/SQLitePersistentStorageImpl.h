// SQLitePersistentStorageImpl: a persistent key-value store in one SQLite
// database, "<baseDir>/persistentstorage/<name>.db", with one table:
//
//   keyvaluepairs_t(primarykey text unique, secondary1 text, secondary2 text,
//                   secondary3 text, value text)
//
// indexed on each key column, made when the database is opened if missing.
// A write replaces the entry of the same primary key.
//
// Open failures throw DbException ("Error opening database " + path, or
// "Error executing: " + statement + " Msg=" + SQLite's text); failures of
// later operations are logged the same way and answered with false.
// Threads: every member takes the object's mutex (the connection is used by
// one thread at a time).
#pragma once

#include <utility>
#include <vector>

#include "pipeline/indexer/PSKey.h"
#include "util/Mutex.h"
#include "util/Pathname.h"
#include "util/Str.h"

struct sqlite3;
struct sqlite3_stmt;

class SQLitePersistentStorageImpl {
 public:
  SQLitePersistentStorageImpl(const Pathname& baseDir, const Str& name);
  ~SQLitePersistentStorageImpl();
  SQLitePersistentStorageImpl(const SQLitePersistentStorageImpl&) = delete;
  SQLitePersistentStorageImpl& operator=(const SQLitePersistentStorageImpl&) = delete;

  const Pathname& getPath() const { return _path; }

  bool write(const PSKey& key, const Str& value);
  // False when the key is absent (or on a failure).
  bool read(const Str& primary, Str& out);
  // True when the statement ran (whether or not the key existed).
  bool remove(const Str& primary);
  // Entries with start <= primary key < end, in key order.
  bool enumerate(const Str& start, const Str& end, std::vector<std::pair<Str, Str>>& out);
  // Entries whose secondary keys equal the non-empty secondaries of `match`
  // (all entries when every secondary is empty), in key order.
  bool enumerate(const PSKey& match, std::vector<std::pair<Str, Str>>& out);

 private:
  void closeDb();
  bool exec(const char* sql);
  sqlite3_stmt* prepare(const char* sql);
  bool collect(sqlite3_stmt* st, std::vector<std::pair<Str, Str>>& out);
  void logError(const char* sql);

  Mutex _mutex;
  Pathname _path;
  sqlite3* _db = nullptr;
  sqlite3_stmt* _put = nullptr;
  sqlite3_stmt* _get = nullptr;
  sqlite3_stmt* _del = nullptr;
  sqlite3_stmt* _range = nullptr;
};
