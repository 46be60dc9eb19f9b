#include "pipeline/indexer/SQLitePersistentStorageImpl.h"

#include <sqlite3.h>

#include "util/Exceptions.h"
#include "util/Logger.h"

static Logger gLogger("SQLitePersistentStorageImpl");

namespace {

const char* const kCreate[] = {
    "create table keyvaluepairs_t(primarykey text constraint primary_c unique,secondary1 text, secondary2 text, "
    "secondary3 text, value text);",
    "create index primarykey_i on keyvaluepairs_t(primarykey);",
    "create index secondary1_i on keyvaluepairs_t(secondary1);",
    "create index secondary2_i on keyvaluepairs_t(secondary2);",
    "create index secondary3_i on keyvaluepairs_t(secondary3);",
};
const char* const kPut =
    "insert or replace into keyvaluepairs_t (primarykey, secondary1, secondary2, secondary3, value) "
    "values(?1, ?2, ?3, ?4, ?5);";
const char* const kGet = "select value from keyvaluepairs_t where primarykey=?1;";
const char* const kDel = "delete from keyvaluepairs_t where primarykey=?1;";
const char* const kRange = "select primarykey,value from keyvaluepairs_t where primarykey >= ?1 and primarykey < ?2;";

void bindText(sqlite3_stmt* st, int idx, const Str& s) {
  sqlite3_bind_text(st, idx, s.data(), int(s.size()), SQLITE_TRANSIENT);
}

Str columnText(sqlite3_stmt* st, int col) {
  const char* p = reinterpret_cast<const char*>(sqlite3_column_text(st, col));
  return p ? Str(p, size_t(sqlite3_column_bytes(st, col))) : Str();
}

}  // namespace

SQLitePersistentStorageImpl::SQLitePersistentStorageImpl(const Pathname& baseDir, const Str& name) {
  Pathname dir = baseDir / "persistentstorage";
  dir.mkdir_p();
  _path = dir / (name + ".db");
  if (sqlite3_open(_path.c_str(), &_db) != SQLITE_OK) {
    Str msg = Str("Error opening database ") + _path;
    gLogger.error(msg);
    sqlite3_close(_db);
    _db = nullptr;
    throw DbException(msg);
  }
  sqlite3_busy_timeout(_db, 5000);
  sqlite3_stmt* probe = nullptr;
  bool haveTable =
      sqlite3_prepare_v2(_db, "select 1 from sqlite_master where type='table' and name='keyvaluepairs_t';", -1,
                         &probe, nullptr) == SQLITE_OK &&
      sqlite3_step(probe) == SQLITE_ROW;
  sqlite3_finalize(probe);
  bool ok = true;
  if (!haveTable)
    for (const char* sql : kCreate) ok = ok && exec(sql);
  if (ok) {
    _put = prepare(kPut);
    _get = prepare(kGet);
    _del = prepare(kDel);
    _range = prepare(kRange);
  }
  if (!ok || !_put || !_get || !_del || !_range) {
    Str msg = Str("Error executing: ") + (ok ? "prepare" : "create") + " Msg=" + sqlite3_errmsg(_db);
    closeDb();
    throw DbException(msg);
  }
}

SQLitePersistentStorageImpl::~SQLitePersistentStorageImpl() { closeDb(); }

void SQLitePersistentStorageImpl::closeDb() {
  for (sqlite3_stmt** st : {&_put, &_get, &_del, &_range}) {
    sqlite3_finalize(*st);
    *st = nullptr;
  }
  if (_db) sqlite3_close(_db);
  _db = nullptr;
}

void SQLitePersistentStorageImpl::logError(const char* sql) {
  gLogger.error("Error executing: %s Msg=%s", sql, sqlite3_errmsg(_db));
}

bool SQLitePersistentStorageImpl::exec(const char* sql) {
  char* err = nullptr;
  if (sqlite3_exec(_db, sql, nullptr, nullptr, &err) == SQLITE_OK) return true;
  gLogger.error("Error executing: %s Msg=%s", sql, err ? err : "");
  sqlite3_free(err);
  return false;
}

sqlite3_stmt* SQLitePersistentStorageImpl::prepare(const char* sql) {
  sqlite3_stmt* st = nullptr;
  if (sqlite3_prepare_v2(_db, sql, -1, &st, nullptr) != SQLITE_OK) {
    logError(sql);
    return nullptr;
  }
  return st;
}

bool SQLitePersistentStorageImpl::write(const PSKey& key, const Str& value) {
  ScopedLock l(_mutex);
  sqlite3_reset(_put);
  bindText(_put, 1, key.primary);
  bindText(_put, 2, key.secondary1);
  bindText(_put, 3, key.secondary2);
  bindText(_put, 4, key.secondary3);
  bindText(_put, 5, value);
  bool ok = sqlite3_step(_put) == SQLITE_DONE;
  if (!ok) logError(kPut);
  sqlite3_reset(_put);
  return ok;
}

bool SQLitePersistentStorageImpl::read(const Str& primary, Str& out) {
  ScopedLock l(_mutex);
  sqlite3_reset(_get);
  bindText(_get, 1, primary);
  int rc = sqlite3_step(_get);
  bool found = rc == SQLITE_ROW;
  if (found) out = columnText(_get, 0);
  else if (rc != SQLITE_DONE) logError(kGet);
  sqlite3_reset(_get);
  return found;
}

bool SQLitePersistentStorageImpl::remove(const Str& primary) {
  ScopedLock l(_mutex);
  sqlite3_reset(_del);
  bindText(_del, 1, primary);
  bool ok = sqlite3_step(_del) == SQLITE_DONE;
  if (!ok) logError(kDel);
  sqlite3_reset(_del);
  return ok;
}

bool SQLitePersistentStorageImpl::collect(sqlite3_stmt* st, std::vector<std::pair<Str, Str>>& out) {
  int rc;
  while ((rc = sqlite3_step(st)) == SQLITE_ROW) out.emplace_back(columnText(st, 0), columnText(st, 1));
  return rc == SQLITE_DONE;
}

bool SQLitePersistentStorageImpl::enumerate(const Str& start, const Str& end,
                                            std::vector<std::pair<Str, Str>>& out) {
  ScopedLock l(_mutex);
  sqlite3_reset(_range);
  bindText(_range, 1, start);
  bindText(_range, 2, end);
  bool ok = collect(_range, out);
  if (!ok) logError(kRange);
  sqlite3_reset(_range);
  return ok;
}

bool SQLitePersistentStorageImpl::enumerate(const PSKey& match, std::vector<std::pair<Str, Str>>& out) {
  const Str* secondaries[] = {&match.secondary1, &match.secondary2, &match.secondary3};
  Str sql = "select primarykey, value from keyvaluepairs_t";
  int n = 0;
  for (int i = 0; i < 3; ++i) {
    if (secondaries[i]->empty()) continue;
    sql += n == 0 ? " where " : " AND ";
    sql.appendFormat("secondary%d = ?%d", i + 1, n + 1);
    ++n;
  }
  sql += " order by primarykey;";
  ScopedLock l(_mutex);
  sqlite3_stmt* st = prepare(sql.c_str());
  if (!st) return false;
  n = 0;
  for (const Str* s : secondaries)
    if (!s->empty()) bindText(st, ++n, *s);
  bool ok = collect(st, out);
  if (!ok) logError(sql.c_str());
  sqlite3_finalize(st);
  return ok;
}
