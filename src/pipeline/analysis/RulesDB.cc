#include "pipeline/analysis/RulesDB.h"

RulesDB& RulesDB::instance() {
  static RulesDB* db = new RulesDB();  // never destroyed: pipelines may run at exit
  return *db;
}

RulesDB::RulesDB() : _rules(kDefaultMaxCacheSize) {}

std::shared_ptr<Rule> RulesDB::findRule(std::string_view key) {
  ScopedLock lock(_mutex);
  std::shared_ptr<Rule>* r = _rules.find(key);
  return r ? *r : nullptr;
}

bool RulesDB::lookupBreak(std::string_view key, bool& brk) {
  ScopedLock lock(_mutex);
  std::shared_ptr<Rule>* r = _rules.find(key);
  if (!r) return false;
  brk = (*r)->brk;
  return true;
}

void RulesDB::addRule(std::string_view key, bool brk, double weight) {
  ScopedLock lock(_mutex);
  std::shared_ptr<Rule>& r = _rules.findOrAdd(key);
  if (!r) {
    r = std::make_shared<Rule>();
    r->weight = weight;
    r->brk = brk;
    return;
  }
  if (r->brk == brk && weight > r->weight + 0.05) r->weight = weight;
}

void RulesDB::setMaxCacheSize(size_t n) {
  ScopedLock lock(_mutex);
  _rules.setLimit(n);
}

size_t RulesDB::size() {
  ScopedLock lock(_mutex);
  return _rules.size();
}

void RulesDB::clear() {
  ScopedLock lock(_mutex);
  _rules.clear();
}
