// Where the bundles of property files live.
//
//   get_bundles_path()          <common config path>/bundles
//   get_bundles_default_path()  <common config path>/bundles/default
//   get_bundles_local_path()    <common config path>/bundles/local
//
// The common config path comes from LoaderInfo::getInstance(); when that has
// no home yet, it is first read from the environment (VELMOR_HOME).
// Any thread, once start-up has filled in LoaderInfo.
#pragma once

#include "util/Pathname.h"

Pathname get_bundles_path();
Pathname get_bundles_default_path();
Pathname get_bundles_local_path();
