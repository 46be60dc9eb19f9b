#include "loaderinfo/ConfigXML.h"

#include <sys/utsname.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "loaderinfo/FileUtils.h"
#include "util/Exceptions.h"
#include "util/Logger.h"
#include "util/xml/XmlException.h"
#include "util/xml/XmlTreeParser.h"
#include "util/xml/XsltStylesheet.h"

#ifndef VELMOR_BUILD_NUMBER
#define VELMOR_BUILD_NUMBER 1
#endif

namespace {

Logger gLogger("loader");

const char kModulePathEnv[] = "VELMOR_MODULE_PATH";
const char kFirstModule[] = "input/batchfileloader";

// The same directory, however it is spelt.
bool sameDirectory(const Pathname& a, const Pathname& b) {
  struct stat sa, sb;
  if (!a.stat(sa) || !b.stat(sb)) return false;
  return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

}  // namespace

bool getConfigXML(xml::node& component, LoaderInfo& loaderInfo) {
  ConfigXML composer(loaderInfo);
  return composer.compose(component);
}

int substitutePropertiesWithFilename(const Str& path, xml::node& node) {
  XMLAndStringUtil::TokenMap tokens;
  int rc = XMLAndStringUtil::loadSubstitutions(path, tokens);
  if (rc == 1) {
    gLogger.debug("Couldn't open file %s", path.c_str());
    return 1;
  }
  if (rc != 0) return -1;
  for (const char* env : {"VELMOR_HOME", "VELMOR_DB"}) {
    if (const char* v = getenv(env)) tokens[env] = v;
  }
  XMLAndStringUtil::substituteNode(node, tokens);
  return 0;
}

Str ConfigXML::pipelineName(const xml::node& pipeline) {
  std::string name;
  if (!pipeline.get_attribute("name", name)) return "dynamicpipeline";
  return name;
}

xml::node ConfigXML::findPipeline(const xml::node& component, const Str& name) {
  for (const xml::node& p : component.elements("pipeline"))
    if (pipelineName(p) == name) return p;
  return xml::node();
}

bool ConfigXML::readXmlFile(const Pathname& path, xml::document& out, Str& error) {
  Str text;
  bool tooLarge = false;
  if (!FileUtils::readSmallFile(path, kMaxConfigFileSize, text, tooLarge)) {
    if (tooLarge) {
      error.format("The file '%s' is too large to be read in. Config files should not exceed "
                   "'%lu' bytes.",
                   path.c_str(), kMaxConfigFileSize);
      gLogger.error(error);
    } else {
      error.format("cannot read %s: %s", path.c_str(), strerror(errno));
    }
    return false;
  }
  xml::tree_parser parser(text.data(), text.size(), false);
  if (parser.failed()) {
    error = parser.get_error_message();
    return false;
  }
  out = parser.get_document();
  return true;
}

bool ConfigXML::compose(xml::node& result) {
  struct utsname un;
  gLogger.info("Velmord starting (build %d).", VELMOR_BUILD_NUMBER);
  if (uname(&un) == 0)
    gLogger.info("System info: %s, %s, %s, %s, %s.", un.sysname, un.nodename, un.release,
                 un.version, un.machine);

  // 1. The install file.
  Pathname installFile =
      _loaderInfo.getInstallConfigPath() / (_loaderInfo.getComponentName() + ".xml");
  xml::document installDoc;
  Str error;
  if (!readXmlFile(installFile, installDoc, error)) {
    gLogger.error("Error getting component configuration data from " + installFile + ": " +
                  error);
    return false;
  }
  xml::node installRoot = installDoc.get_root_node();

  // 2. The common node and the component.
  xml::node common = installRoot.find("common");
  if (common.find("type").empty()) throw LoaderException("Couldn't find 'type' in common config file");
  _loaderInfo.setCommonComponentNode(common);
  xml::node component = installRoot.find("component");
  if (component.empty()) throw LoaderException("Couldn't find 'component' in component config file");
  // Modules are overlaid on a tree of its own, so that a failed module can
  // be dropped by keeping the previous tree.
  component = component.deep_copy();

  // 3. and 4. The module directories, the batch file loader first.
  std::vector<ModuleDir> dirs;
  moduleDirectories(dirs);
  Pathname modulesHome = _loaderInfo.getCommonConfigPath() / "modules";
  Pathname first = modulesHome / kFirstModule;
  if (first.isDir()) loadModule(first, modulesHome, component);
  for (const ModuleDir& d : dirs) {
    if (sameDirectory(d.dir, first)) continue;
    loadModule(d.dir, d.root, component);
  }

  // 8. The composite file.
  Pathname composite = _loaderInfo.getHomePath() / "var/run/velmor/composite.xml";
  writeComposite(installRoot, component, composite,
                 _loaderInfo.getCommonConfigPath() / "prettyprint.xsl");
  result = component;
  return true;
}

void ConfigXML::moduleDirectories(std::vector<ModuleDir>& out) const {
  std::vector<Pathname> roots;
  const char* env = getenv(kModulePathEnv);
  if (env != nullptr) {
    Str list = env;
    size_t start = 0;
    while (start <= list.size()) {
      size_t colon = list.find(':', start);
      if (colon == Str::npos) colon = list.size();
      Pathname dir(Str(list, start, colon - start));
      start = colon + 1;
      if (dir.empty()) continue;
      if (!dir.isDir() || !dir.r_ok()) {
        gLogger.warn("Directory [%s] specified in environment variable [%s] does not exist - "
                     "skipping",
                     dir.c_str(), kModulePathEnv);
        continue;
      }
      roots.push_back(dir);
    }
  } else {
    Pathname dir = _loaderInfo.getCommonConfigPath() / "modules";
    gLogger.info("%s environment variable not found - defaulting to %s", kModulePathEnv,
                 dir.c_str());
    if (!dir.isDir()) {
      gLogger.warn("%s directory not found - no modules will be loaded", dir.c_str());
      return;
    }
    roots.push_back(dir);
  }
  for (const Pathname& root : roots) {
    std::vector<Pathname> dirs;
    FileUtils::sortDirectories(root, dirs);
    for (const Pathname& d : dirs) out.push_back(ModuleDir{d, root});
  }
}

bool ConfigXML::loadModule(const Pathname& dir, const Pathname& moduleRoot,
                           xml::node& component) {
  // 5. The module's config.xml.
  Pathname cfg = dir / "config.xml";
  if (!cfg.exists()) return false;
  xml::document doc;
  Str error;
  if (!readXmlFile(cfg, doc, error)) {
    gLogger.error("Parsing error in config file for module %s - skipping install", dir.c_str());
    gLogger.debug(error);
    return false;
  }
  xml::node root = doc.get_root_node();
  Str rootName = root.get_name();
  if (rootName != "module" && rootName != "pipeline" && rootName != "processor") {
    gLogger.error("module config.xml file's root node is not 'processor' or 'pipeline'");
    return false;
  }
  std::vector<xml::node> items;
  if (rootName == "module") {
    for (const xml::node& e : root.elements())
      if (strcmp(e.get_name(), "pipeline") == 0 || strcmp(e.get_name(), "processor") == 0)
        items.push_back(e);
  } else {
    items.push_back(root);
  }
  for (xml::node& item : items)
    if (strcmp(item.get_name(), "pipeline") == 0 && item.find("configFileName").empty())
      item.append_element("configFileName", cfg.c_str());

  // 6. Substitution.
  if (!substitute(dir, moduleRoot, root)) return false;

  // 7. Overlay, on a copy that replaces the component only on success.
  xml::node work = component.deep_copy();
  if (!overlay(items, dir, work)) {
    gLogger.error("Error overlaying config for module %s - skipping install", dir.c_str());
    return false;
  }
  component = work;
  gLogger.info("Module %s loaded", dir.c_str());
  return true;
}

bool ConfigXML::substitute(const Pathname& dir, const Pathname& moduleRoot,
                           xml::node& root) const {
  XMLAndStringUtil::substituteNode(root, {{"MODULE_PATH", dir}});
  // Nearest directory first: its tokens are replaced before a farther file
  // can see them.
  Pathname here = dir;
  bool local = true;
  for (;;) {
    for (const char* file : {"substitutions.xml", "properties.xml"}) {
      Pathname path = here / file;
      if (!path.exists()) continue;
      int rc = substitutePropertiesWithFilename(path, root);
      if (rc == 1) {
        gLogger.warn("Couldn't open file %s no substitution will take place", path.c_str());
      } else if (rc != 0) {
        gLogger.error(Str(local ? "Error in local property substitution for module"
                                : "Error in global property substitution for module") +
                      " " + dir);
        return false;
      }
    }
    if (sameDirectory(here, moduleRoot) || here == "/" || here.empty()) break;
    Pathname up = here.toParent();
    if (up == here) break;
    here = up;
    local = false;
  }
  return true;
}

bool ConfigXML::overlay(const std::vector<xml::node>& items, const Pathname& dir,
                        xml::node& component) const {
  for (const xml::node& item : items) {
    bool ok = strcmp(item.get_name(), "pipeline") == 0 ? overlayPipeline(item, component)
                                                       : overlayProcessor(item, dir, component);
    if (!ok) return false;
  }
  return true;
}

bool ConfigXML::overlayPipeline(const xml::node& pipeline, xml::node& component) const {
  std::string name;
  if (!pipeline.get_attribute("name", name)) {
    gLogger.error("couldn't find 'name' attribute in overlay pipeline");
    return false;
  }
  xml::node target = findPipeline(component, name);
  if (target.empty()) {
    component.append_child(pipeline);
    return true;
  }
  // Merge: the module's attributes where the pipeline has none, and its
  // children after the pipeline's own.
  for (const auto& [k, v] : pipeline.get_attributes())
    if (!target.has_attribute(k.c_str())) target.set_attribute(k.c_str(), v);
  bool hasFile = !target.find("configFileName").empty();
  for (const xml::node& child : pipeline.elements()) {
    if (hasFile && strcmp(child.get_name(), "configFileName") == 0) continue;
    target.append_child(child);
  }
  return true;
}

bool ConfigXML::overlayProcessor(const xml::node& processor, const Pathname& dir,
                                 xml::node& component) const {
  std::string pipelineTarget, name, action, target;
  if (!processor.get_attribute("pipelineTarget", pipelineTarget)) {
    gLogger.error("Module %s has a processor that has no 'pipelineTarget' attribute.",
                  dir.c_str());
    return false;
  }
  if (!processor.get_attribute("name", name)) {
    gLogger.error("tag 'name' not found in processor");
    return false;
  }
  if (!processor.get_attribute("action", action)) {
    gLogger.error("tag 'action' not found in processor %s", name.c_str());
    return false;
  }
  if (!processor.get_attribute("target", target)) {
    gLogger.error("tag 'target' not found in processor %s", name.c_str());
    return false;
  }
  xml::node pipeline = findPipeline(component, pipelineTarget);
  if (pipeline.empty()) {
    gLogger.error("New processor in module did not overlay configuration - pipeline %s not found",
                  pipelineTarget.c_str());
    return false;
  }
  if (target.empty() ||
      (action != "insertBefore" && action != "insertAfter" && action != "replace")) {
    gLogger.warn("processor %s has invalid target - skipping overlay of this processor",
                 name.c_str());
    return true;
  }
  gLogger.info("Overlaying processor %s into pipeline. Target=%s Action=%s", name.c_str(),
               target.c_str(), action.c_str());
  xml::node where = pipeline.find_by_attribute("processor", "name", target);
  if (where.empty()) {
    gLogger.error("processor %s not overlayed because target not found, or insertion point not "
                  "found",
                  name.c_str());
    return false;
  }
  // The placement attributes have done their work; the pipeline keeps the
  // processor as if it had been written there.
  xml::node copy = processor.deep_copy();
  for (const char* attr : {"pipelineTarget", "action", "target"}) copy.erase_attribute(attr);
  if (action == "insertBefore")
    pipeline.insert_before(where, copy);
  else if (action == "insertAfter")
    pipeline.insert_after(where, copy);
  else
    pipeline.replace_child(where, copy);
  gLogger.info("processor %s overlay completed", name.c_str());
  return true;
}

void ConfigXML::resolveConfigReferences(xml::node& component) const {
  for (xml::node& pipeline : component.elements("pipeline")) {
    for (xml::node& processor : pipeline.elements("processor")) {
      std::string ref;
      if (!processor.get_attribute("configReference", ref)) continue;
      Pathname path(ref);
      if (!path.isAbsolute()) path = _loaderInfo.getHomePath() / ref;
      if (!path.r_ok()) {
        gLogger.error("couldn't load config file from %s", path.c_str());
        continue;
      }
      xml::document doc;
      Str error;
      if (!readXmlFile(path, doc, error)) {
        gLogger.error("xml parsing error on config file %s - %s", path.c_str(), error.c_str());
        continue;
      }
      xml::node root = doc.get_root_node();
      xml::node config = root;
      if (strcmp(root.get_name(), "config") != 0) {
        config = root.find("config");
        if (config.empty()) {
          config = xml::node("config");
          config.append_child(root);
        }
      }
      xml::node old = processor.find("config");
      if (old.empty())
        processor.append_child(config);
      else
        processor.replace_child(old, config);
      processor.erase_attribute("configReference");
    }
  }
}

bool ConfigXML::writeComposite(const xml::node& installRoot, const xml::node& component,
                               const Pathname& path, const Pathname& stylesheetPath) const {
  gLogger.info("Writing out composite configuration file: %s", path.c_str());
  try {
    xml::document doc(installRoot);
    xml::node root = doc.get_root_node();
    xml::node resolved = component.deep_copy();
    resolveConfigReferences(resolved);
    xml::node old = root.find("component");
    if (old.empty())
      root.append_child(resolved);
    else
      root.replace_child(old, resolved);
    xslt::stylesheet pretty(stylesheetPath.c_str());
    std::string text;
    if (!pretty.apply_to_string(doc, text)) throw xml::exception(pretty.get_error_message());
    if (!path.toParent().mkdir_p() || !FileUtils::writeFileAtomically(path, text))
      throw xml::exception(strerror(errno));
  } catch (const std::exception& e) {
    gLogger.error("Problem saving composited configuration file %s", path.c_str());
    gLogger.debug(std::string(e.what()));
    return false;
  }
  return true;
}
