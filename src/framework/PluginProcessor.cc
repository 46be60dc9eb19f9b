#include "framework/PluginProcessor.h"

#include "util/Exceptions.h"
#include "util/Logger.h"

PluginProcessor::PluginProcessor(Logger& logger, const xml::node& component, PluginLookup lookup)
    : _logger(logger), _component(component), _lookup(lookup) {}

void PluginProcessor::loadOnlyPlugins() {
  _logger.info("Pass 1 - Loading plugins");
  for (const xml::node& plugin : _component.elements("plugin")) {
    std::string name;
    if (!plugin.get_attribute("name", name)) throw PluginException("Couldn't find 'name' tag for plugin");
    if (!_lookup || !_lookup(name.c_str())) throw PluginException("Couldn't find library for: " + name);
  }
}

bool PluginProcessor::getPluginGlobalConfig(xml::node& out, const Str& name) const {
  xml::node plugin = _component.find_by_attribute("plugin", "name", name);
  xml::node config = plugin.empty() ? xml::node() : plugin.find("config");
  if (config.empty()) {
    _logger.debug("Couldn't find %s in plugin configuration", name.c_str());
    return false;
  }
  out = config;
  return true;
}

std::unique_ptr<Processor> PluginProcessor::createPlugin(const Str& pluginName, const xml::node& config,
                                                         const Str& processorName) const {
  const PluginFactory* factory = _lookup ? _lookup(pluginName.c_str()) : nullptr;
  if (!factory) throw PluginException("Couldn't find library for: " + pluginName);
  std::unique_ptr<Processor> p = factory->produce();
  if (!p) throw PluginException("Couldn't find library for: " + pluginName);
  p->setName(processorName.empty() ? pluginName : processorName);
  xml::node global;
  getPluginGlobalConfig(global, pluginName);
  p->init(config, global);
  _logger.info("Instantiated plugin: %s", pluginName.c_str());
  return p;
}
