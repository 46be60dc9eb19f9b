// MConfigUpdateRegistry: finds the running pipelines of a name; the pipeline
// component implements it and registers itself with ConfigManager.
//
// REQUIRES: the targets returned stay alive until the update that asked for
// them has returned.
#pragma once

#include <vector>

#include "loaderinfo/MConfigUpdateTarget.h"
#include "util/Str.h"

class MConfigUpdateRegistry {
 public:
  virtual ~MConfigUpdateRegistry() = default;
  // Appends every running pipeline named `name` to `out`.
  virtual void findPipelines(const Str& name, std::vector<MConfigUpdateTarget*>& out) = 0;
};
