// DatabaseContainer: what holds the indexes of a process, as the query
// engine sees it: an index by name, the default index and the list of names.
// IndexProcessor is the one that matters; tests hold their own.
//
// Threads: implementations say which members any thread may call; the
// IndexProcessor's may be called from any thread once init has run.
#pragma once

#include <vector>

#include "util/Str.h"

class IPartitionPolicy;

class DatabaseContainer {
 public:
  virtual ~DatabaseContainer() = default;
  // The index of that name ("domain" means index here), or null. The
  // container owns it and keeps it for its own lifetime.
  virtual IPartitionPolicy* getPolicyByDomain(const Str& name) = 0;
  virtual Str getDefaultDomain() = 0;
  virtual void enumerateDomains(std::vector<Str>& out) = 0;

  // The container of this process (the IndexProcessor, once its init ran),
  // for code that reaches the indexes from elsewhere (search commands).
  // Null when none is set. REQUIRES: the container outlives its setting.
  static DatabaseContainer* getProcessContainer();
  static void setProcessContainer(DatabaseContainer* c);
};
