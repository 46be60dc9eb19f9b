#include "libbundle/BundlePaths.h"

#include "loaderinfo/LoaderInfo.h"
#include "util/Mutex.h"

Pathname get_bundles_path() {
  static Mutex m;
  LoaderInfo& li = LoaderInfo::getInstance();
  {
    ScopedLock lock(m);
    if (li.getHomePath().empty()) li.populateFromEnvironment();
  }
  return li.getCommonConfigPath() / "bundles";
}

Pathname get_bundles_default_path() { return get_bundles_path() / "default"; }

Pathname get_bundles_local_path() { return get_bundles_path() / "local"; }
