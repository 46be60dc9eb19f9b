// PluginProcessor: the plug-in section of the component description. The
// `component` element holds `plugin` elements (attribute `name`, child
// `config` with the plug-in's global settings); a plug-in name resolves to
// a PluginFactory compiled into the program through the lookup function the
// creator gives. createPlugin() makes and initialises one processor.
//
// Ownership: the creator owns it and keeps it alive while pipelines build;
// it holds a handle on the component tree (which it never changes) and
// refers to the logger it was given.
//
// Threads: loadOnlyPlugins() at start-up; createPlugin() and
// getPluginGlobalConfig() from any pipeline's thread at once (they only
// read the tree).
#pragma once

#include <memory>

#include "framework/PluginFactory.h"
#include "framework/Processor.h"
#include "util/Str.h"
#include "util/xml/XmlNode.h"

class Logger;

class PluginProcessor {
 public:
  PluginProcessor(Logger& logger, const xml::node& component, PluginLookup lookup);

  // Checks that every `plugin` element has a name that resolves. Throws
  // PluginException "Couldn't find 'name' tag for plugin" or "Couldn't find
  // library for: <name>".
  void loadOnlyPlugins();

  // The `config` child of the plug-in named `name`; false (and `out`
  // unchanged) when there is none.
  bool getPluginGlobalConfig(xml::node& out, const Str& name) const;

  // Makes a processor of plug-in `pluginName`, names it `processorName`,
  // and calls init(config, the plug-in's global config). Throws
  // PluginException "Couldn't find library for: <name>" for an unknown
  // plug-in, and whatever init() throws.
  std::unique_ptr<Processor> createPlugin(const Str& pluginName, const xml::node& config,
                                          const Str& processorName = Str()) const;

 private:
  Logger& _logger;
  xml::node _component;
  PluginLookup _lookup;
};
