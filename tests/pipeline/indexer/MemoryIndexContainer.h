// MemoryIndexContainer: the DatabaseContainer of the query tests: names the
// MemoryQueryIndex objects it was given (not owned); "main" is the default
// index.
#pragma once

#include <map>

#include "MemoryQueryIndex.h"
#include "pipeline/indexer/DatabaseContainer.h"

class MemoryIndexContainer : public DatabaseContainer {
 public:
  void add(MemoryQueryIndex& index) { _indexes[index.getName()] = &index; }
  IPartitionPolicy* getPolicyByDomain(const Str& name) override {
    auto it = _indexes.find(name);
    return it == _indexes.end() ? nullptr : it->second;
  }
  Str getDefaultDomain() override { return "main"; }
  void enumerateDomains(std::vector<Str>& out) override {
    for (const auto& [name, index] : _indexes) out.push_back(name);
  }

 private:
  std::map<Str, MemoryQueryIndex*> _indexes;
};
