#include "pipeline/indexer/DatabaseContainer.h"

#include <atomic>

namespace {
std::atomic<DatabaseContainer*> gContainer{nullptr};
}

DatabaseContainer* DatabaseContainer::getProcessContainer() { return gContainer.load(); }
void DatabaseContainer::setProcessContainer(DatabaseContainer* c) { gContainer.store(c); }
