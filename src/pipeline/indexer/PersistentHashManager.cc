#include "pipeline/indexer/PersistentHashManager.h"

#include "loaderinfo/LoaderInfo.h"
#include "pipeline/indexer/RecordFileManager.h"
#include "util/Exceptions.h"
#include "util/Logger.h"
#include "util/xml/XmlNode.h"

static Logger gLogger("PersistentHashManager");

const char* const PersistentHashManager::kFileName = "persistenthash.rec";

namespace {
Pathname defaultDir() {
  const Pathname& db = LoaderInfo::getInstance().getDbPath();
  return db.empty() ? Pathname() : db / "persistentstorage";
}
}  // namespace

PersistentHashManager* PersistentHashManager::instance() {
  static PersistentHashManager* gInstance = new PersistentHashManager();  // lives to the end of the process
  return gInstance;
}

PersistentHashManager::PersistentHashManager() = default;
PersistentHashManager::~PersistentHashManager() = default;

void PersistentHashManager::init(const xml::node& node) {
  ScopedLock l(_mutex);
  std::string path;
  if (_dirSet)
    Locked_open(_setDir);
  else if (node.get_attribute("path", path) && !path.empty())
    Locked_open(Pathname(path));
  else
    Locked_open(defaultDir());
}

void PersistentHashManager::setDirectory(const Pathname& dir) {
  ScopedLock l(_mutex);
  _setDir = dir;
  _dirSet = true;
  Locked_open(dir);
}

Pathname PersistentHashManager::getPath() {
  ScopedLock l(_mutex);
  Locked_ensureOpen();
  return _path;
}

void PersistentHashManager::Locked_ensureOpen() {
  if (!_open) Locked_open(_dirSet ? _setDir : defaultDir());
}

void PersistentHashManager::Locked_open(const Pathname& dir) {
  _open = true;
  _readOnly = false;
  _path = dir.empty() ? Pathname() : dir / kFileName;
  _records = std::make_unique<RecordFileManager>(_path);
  if (dir.empty()) {
    gLogger.warn("No directory for %s (VELMOR_DB is not set): persistent pairs are kept in memory only", kFileName);
    return;
  }
  if (!dir.mkdir_p()) gLogger.error("Unable to create directory %s because %m", dir.c_str());
  try {
    if (!_records->load()) _readOnly = true;  // unreadable (logged)
  } catch (const DbException& e) {
    _readOnly = true;
    gLogger.error("%s: %s Its pairs cannot be read or changed until it is repaired or removed.", _path.c_str(),
                  e.what());
  }
}

bool PersistentHashManager::Locked_save() { return _path.empty() || _records->saveToFile(); }

bool PersistentHashManager::put(const Str& key, const Str& value) {
  ScopedLock l(_mutex);
  Locked_ensureOpen();
  if (_readOnly) return false;
  Str old;
  bool had = _records->get(key, old);
  if (!_records->put(key, value)) return false;
  if (Locked_save()) return true;
  if (had) _records->put(key, old);
  else _records->remove(key);
  return false;
}

bool PersistentHashManager::remove(const Str& key) {
  ScopedLock l(_mutex);
  Locked_ensureOpen();
  if (_readOnly) return false;
  Str old;
  if (!_records->get(key, old)) return true;
  _records->remove(key);
  if (Locked_save()) return true;
  _records->put(key, old);
  return false;
}

bool PersistentHashManager::get(const Str& key, Str& out) {
  ScopedLock l(_mutex);
  Locked_ensureOpen();
  return _records->get(key, out);
}

std::vector<std::pair<Str, Str>> PersistentHashManager::enumerate(const Str& prefix) {
  ScopedLock l(_mutex);
  Locked_ensureOpen();
  return _records->enumerate(prefix);
}
