#include "loaderinfo/ConfigManager.h"

#include <cerrno>
#include <cstring>
#include <vector>

#include "loaderinfo/ConfigXML.h"
#include "loaderinfo/FileUtils.h"
#include "loaderinfo/LoaderInfo.h"
#include "util/Exceptions.h"
#include "util/Logger.h"
#include "util/xml/XmlDocument.h"
#include "util/xml/XmlException.h"
#include "util/xml/XmlTreeParser.h"
#include "util/xml/XsltStylesheet.h"

namespace {

Logger gLogger("ConfigManager");

// The `config` element of a parsed configReference file: the root itself or
// its `config` child.
xml::node configOfFile(const Pathname& path) {
  xml::document doc;
  Str error;
  if (!path.r_ok() || !ConfigXML::readXmlFile(path, doc, error)) return xml::node();
  xml::node root = doc.get_root_node();
  return strcmp(root.get_name(), "config") == 0 ? root : root.find("config");
}

// In a module file, the processor element of `processorName` that belongs to
// `pipelineName`: inside a pipeline element of that name, or a processor
// overlay whose pipelineTarget names it.
xml::node findProcessorInFile(const xml::node& n, const Str& pipelineName,
                              const Str& processorName) {
  for (const xml::node& e : n.elements()) {
    if (strcmp(e.get_name(), "pipeline") == 0 && ConfigXML::pipelineName(e) == pipelineName) {
      xml::node p = e.find_by_attribute("processor", "name", processorName);
      if (!p.empty()) return p;
    } else if (strcmp(e.get_name(), "processor") == 0 &&
               e.get_attribute("name") == processorName &&
               e.get_attribute("pipelineTarget") == pipelineName) {
      return e;
    }
    xml::node deeper = findProcessorInFile(e, pipelineName, processorName);
    if (!deeper.empty()) return deeper;
  }
  return xml::node();
}

}  // namespace

ConfigManager& ConfigManager::instance() {
  static ConfigManager manager;
  return manager;
}

void ConfigManager::load(const xml::node& component) {
  ScopedLock lock(_mutex);
  _component = component;
}

xml::node ConfigManager::getComponentNode() const {
  ScopedLock lock(_mutex);
  return _component;
}

void ConfigManager::setStylesheetPath(const Pathname& path) {
  ScopedLock lock(_mutex);
  _stylesheetPath = path;
}

void ConfigManager::setUpdateRegistry(MConfigUpdateRegistry* registry) {
  ScopedLock lock(_mutex);
  _registry = registry;
}

Pathname ConfigManager::stylesheetPath() const {
  if (!_stylesheetPath.empty()) return _stylesheetPath;
  return LoaderInfo::getInstance().getCommonConfigPath() / "prettyprint.xsl";
}

xml::node ConfigManager::getPipelineNode(const Str& pipelineName) const {
  ScopedLock lock(_mutex);
  return locked_getPipelineNode(pipelineName);
}

xml::node ConfigManager::locked_getPipelineNode(const Str& pipelineName) const {
  return ConfigXML::findPipeline(_component, pipelineName);
}

xml::node ConfigManager::getProcessorNode(const ConfigTarget& target) const {
  ScopedLock lock(_mutex);
  return locked_getProcessorNode(target);
}

xml::node ConfigManager::locked_getProcessorNode(const ConfigTarget& target) const {
  xml::node pipeline = locked_getPipelineNode(target.getPipelineName());
  return pipeline.find_by_attribute("processor", "name", target.getProcessorName());
}

xml::node ConfigManager::getIter(const ConfigTarget& target) const {
  ScopedLock lock(_mutex);
  if (locked_getPipelineNode(target.getPipelineName()).empty())
    throw InvalidConfigTargetException("Cannot find config data for pipeline: " +
                                       target.getPipelineName());
  xml::node processor = locked_getProcessorNode(target);
  xml::node config = processor.find("config");
  std::string ref;
  if (config.empty() && processor.get_attribute("configReference", ref)) {
    Pathname path(ref);
    if (!path.isAbsolute()) path = LoaderInfo::getInstance().getHomePath() / ref;
    config = configOfFile(path);
  }
  if (config.empty())
    throw InvalidConfigTargetException("Cannot find config data for processor: " +
                                       target.getProcessorName());
  return config;
}

bool ConfigManager::update(const ConfigTarget& target, const xml::node& config) {
  ScopedLock lock(_mutex);
  const Str& pipelineName = target.getPipelineName();
  const Str& processorName = target.getProcessorName();
  if (locked_getPipelineNode(pipelineName).empty())
    throw InvalidConfigTargetException("Cannot find config data for pipeline: " + pipelineName);
  xml::node processor = locked_getProcessorNode(target);
  if (processor.empty())
    throw InvalidConfigTargetException("Cannot find config data for processor: " + processorName);

  std::vector<MConfigUpdateTarget*> running;
  if (_registry) _registry->findPipelines(pipelineName, running);
  if (running.empty())
    throw InvalidConfigTargetException("No pipelines with this name are running: " + pipelineName);
  for (MConfigUpdateTarget* p : running)
    if (!p->hasProcessor(processorName))
      throw InvalidConfigTargetException("This Processor is not part of the pipeline.  Processor: " +
                                         processorName);

  // Every running copy must accept before any of them switches.
  for (MConfigUpdateTarget* p : running) {
    bool accepted = false;
    try {
      accepted = p->loadConfigUpdate(processorName, config);
    } catch (const std::exception& e) {
      gLogger.error("Error calling loadConfigUpdate for processor: " + processorName + ": " +
                    e.what());
      return false;
    }
    if (!accepted) return false;
  }
  try {
    for (MConfigUpdateTarget* p : running) p->executeConfigUpdate(processorName);
  } catch (const std::exception& e) {
    gLogger.error(Str("Error executing config update: ") + e.what());
    return false;
  }

  xml::node old = processor.find("config");
  if (old.empty())
    processor.append_child(config);
  else
    processor.replace_child(old, config);
  return locked_persist(pipelineName, processorName);
}

bool ConfigManager::persist(const Str& pipelineName, const Str& processorName) {
  ScopedLock lock(_mutex);
  return locked_persist(pipelineName, processorName);
}

bool ConfigManager::locked_persist(const Str& pipelineName, const Str& processorName) {
  xml::node pipeline = locked_getPipelineNode(pipelineName);
  std::string fileName;
  if (!pipeline.child_content("configFileName", fileName) || fileName.empty()) {
    gLogger.error("Unable to find configFileName in pipeline node");
    return false;
  }
  xml::node processor = pipeline.find_by_attribute("processor", "name", processorName);
  xml::node config = processor.find("config");
  Pathname path(fileName);
  try {
    xml::document doc;
    Str error;
    if (!ConfigXML::readXmlFile(path, doc, error)) throw xml::exception(error);
    xml::node inFile = findProcessorInFile(doc.get_root_node(), pipelineName, processorName);
    xml::node root = doc.get_root_node();
    if (inFile.empty() && strcmp(root.get_name(), "processor") == 0 &&
        root.get_attribute("name") == processorName)
      inFile = root;
    if (strcmp(root.get_name(), "pipeline") == 0 && ConfigXML::pipelineName(root) == pipelineName)
      inFile = root.find_by_attribute("processor", "name", processorName);
    if (inFile.empty() || config.empty())
      throw xml::exception("processor " + processorName + " is not in " + path);
    xml::node old = inFile.find("config");
    if (old.empty())
      inFile.append_child(config);
    else
      inFile.replace_child(old, config);

    gLogger.info("Writing out updated configuration file: %s", path.c_str());
    xslt::stylesheet pretty(stylesheetPath().c_str());
    std::string text;
    if (!pretty.apply_to_string(doc, text)) throw xml::exception(pretty.get_error_message());
    if (!FileUtils::writeFileAtomically(path, text)) throw xml::exception(strerror(errno));
  } catch (const std::exception& e) {
    gLogger.error("Unable to write configuration file %s: %s", path.c_str(), e.what());
    return false;
  }
  return true;
}
