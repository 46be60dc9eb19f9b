// ComponentData: the process-wide place where the running PipelineComponent
// and the LoaderInfo are published, for code that has no other way to reach
// them (management calls, configuration updates).
//
// Ownership: points only; the PipelineComponent publishes itself on
// construction and withdraws on destruction. Threads: any thread; the two
// pointers are under a mutex.
#pragma once

#include "util/Mutex.h"

class LoaderInfo;
class PipelineComponent;

class ComponentData {
 public:
  static ComponentData& instance();

  void setPipelineComponent(PipelineComponent* c);
  PipelineComponent* getPipelineComponent();
  void setLoaderInfo(LoaderInfo* li);
  LoaderInfo* getLoaderInfo();

 private:
  ComponentData() = default;
  Mutex _mutex;
  PipelineComponent* _component = nullptr;
  LoaderInfo* _loaderInfo = nullptr;
};
