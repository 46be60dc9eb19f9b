#include "pipeline/indexer/PersistentStorage.h"

#include "loaderinfo/LoaderInfo.h"
#include "pipeline/indexer/SQLitePersistentStorageImpl.h"
#include "pipeline/indexer/STPersistentStorageImpl.h"
#include "util/Exceptions.h"

PersistentStorage::PersistentStorage(EPersistentStorageType type, const Str& name) : _type(type), _name(name) {
  const Pathname& db = LoaderInfo::getInstance().getDbPath();
  if (db.empty()) throw DbException(Str("Error opening database ") + name + ": no database path (VELMOR_DB) is set");
  open(db);
}

PersistentStorage::PersistentStorage(EPersistentStorageType type, const Str& name, const Pathname& baseDir)
    : _type(type), _name(name) {
  open(baseDir);
}

PersistentStorage::~PersistentStorage() = default;

void PersistentStorage::open(const Pathname& baseDir) {
  if (_type == ePersistentStorageST)
    _st = std::make_unique<STPersistentStorageImpl>(baseDir, _name);
  else
    _sqlite = std::make_unique<SQLitePersistentStorageImpl>(baseDir, _name);
}

bool PersistentStorage::write(const PSKey& key, const Str& value) {
  return _st ? _st->write(key, value) : _sqlite->write(key, value);
}

bool PersistentStorage::read(const Str& primary, Str& out) {
  return _st ? _st->read(primary, out) : _sqlite->read(primary, out);
}

bool PersistentStorage::enumerate(const Str& start, const Str& end, std::vector<std::pair<Str, Str>>& out) {
  return _st ? _st->enumerate(start, end, out) : _sqlite->enumerate(start, end, out);
}

bool PersistentStorage::enumerate(const PSKey& match, std::vector<std::pair<Str, Str>>& out) {
  return _st ? _st->enumerate(match, out) : _sqlite->enumerate(match, out);
}

bool PersistentStorage::remove(const Str& primary) {
  return _st ? _st->remove(primary) : _sqlite->remove(primary);
}
