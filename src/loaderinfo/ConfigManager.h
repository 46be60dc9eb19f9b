// ConfigManager: the process-wide keeper of the composed component
// description, through which processor configurations are read, changed at
// run time and written back to their module files.
//
// load() takes a handle on the composed `component` (the tree is shared, not
// copied). Lookups go by the `name` attributes of pipeline and processor
// elements. update() offers a new configuration to every running pipeline of
// the target's name (found through the registered MConfigUpdateRegistry);
// when all accept, the configuration is put into effect, swapped into the
// tree and persisted into the module file named by the pipeline's
// `configFileName`, pretty-printed through the stylesheet.
//
// Threads: every member takes the object's mutex, so any thread may call;
// nodes handed out are shared with the tree and must only be read while no
// update runs.
#pragma once



#include "loaderinfo/ConfigTarget.h"
#include "loaderinfo/MConfigUpdateRegistry.h"
#include "util/Mutex.h"
#include "util/Pathname.h"
#include "util/Str.h"
#include "util/xml/XmlNode.h"

class ConfigManager {
 public:
  static ConfigManager& instance();
  ConfigManager() = default;
  ConfigManager(const ConfigManager&) = delete;
  ConfigManager& operator=(const ConfigManager&) = delete;

  void load(const xml::node& component);
  xml::node getComponentNode() const;

  // Where the pretty-printing stylesheet lives (by default
  // <LoaderInfo common config path>/prettyprint.xsl).
  void setStylesheetPath(const Pathname& path);
  // Who finds running pipelines; null for none. Not owned.
  void setUpdateRegistry(MConfigUpdateRegistry* registry);

  // Empty nodes when not found.
  xml::node getPipelineNode(const Str& pipelineName) const;
  xml::node getProcessorNode(const ConfigTarget& target) const;

  // The `config` element of the target: its child, or else the `config` of
  // the file named by its configReference attribute. Throws
  // InvalidConfigTargetException "Cannot find config data for pipeline: "
  // or "... processor: " and the name.
  xml::node getIter(const ConfigTarget& target) const;

  // Gives `config` (a `config` element) to the target's processor in every
  // running pipeline of its name. True when every one accepted it; then it
  // is in effect, in the tree and persisted. False when one refused or
  // failed (logged). Throws InvalidConfigTargetException when the target is
  // not in the tree, when no pipeline of the name runs, or when a running
  // pipeline lacks the processor.
  bool update(const ConfigTarget& target, const xml::node& config);

  // Writes the processor's current configuration into the module file named
  // by the pipeline's configFileName. False (logged) on failure.
  bool persist(const Str& pipelineName, const Str& processorName);

 private:
  xml::node locked_getPipelineNode(const Str& pipelineName) const;
  xml::node locked_getProcessorNode(const ConfigTarget& target) const;
  bool locked_persist(const Str& pipelineName, const Str& processorName);
  Pathname stylesheetPath() const;

  mutable Mutex _mutex;
  xml::node _component;
  Pathname _stylesheetPath;
  MConfigUpdateRegistry* _registry = nullptr;
};
