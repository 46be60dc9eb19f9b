#include "framework/ComponentData.h"

ComponentData& ComponentData::instance() {
  static ComponentData* data = new ComponentData();  // lives until exit
  return *data;
}

void ComponentData::setPipelineComponent(PipelineComponent* c) {
  ScopedLock l(_mutex);
  _component = c;
}

PipelineComponent* ComponentData::getPipelineComponent() {
  ScopedLock l(_mutex);
  return _component;
}

void ComponentData::setLoaderInfo(LoaderInfo* li) {
  ScopedLock l(_mutex);
  _loaderInfo = li;
}

LoaderInfo* ComponentData::getLoaderInfo() {
  ScopedLock l(_mutex);
  return _loaderInfo;
}
