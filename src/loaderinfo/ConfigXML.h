// ConfigXML: composes the XML component description at start-up.
//
// The install file home/etc/myinstall/<component>.xml holds a `common`
// element (with a `type` child) and a `component` element with the default
// pipelines. Module directories (VELMOR_MODULE_PATH, or home/etc/modules)
// each may hold a config.xml whose `pipeline` and `processor` elements are
// overlaid on the component: a pipeline merges with the one of the same name
// or is added; a processor goes before, after or in place of a named
// processor of a named pipeline. "$$NAME]]" tokens in a module are replaced
// first: MODULE_PATH by the module's directory, then the names given by
// substitutions.xml / properties.xml files beside config.xml and in the
// directories above it up to the module root (nearest first), with
// VELMOR_HOME and VELMOR_DB from the environment. A module that fails in
// any way is left out whole and the start-up goes on. The result is also
// written, pretty-printed and with configReference files inlined, to
// home/var/run/velmor/composite.xml.
//
// Ownership: the composed component is a tree of its own, handed to the
// caller as an xml::node; the common node stays in the install file's tree
// and is handed to LoaderInfo.
//
// Threads: start-up only, one call at a time.
#pragma once

#include <vector>

#include "loaderinfo/LoaderInfo.h"
#include "loaderinfo/XMLAndStringUtil.h"
#include "util/Pathname.h"
#include "util/Str.h"
#include "util/xml/XmlDocument.h"
#include "util/xml/XmlNode.h"

// Composes the description for `loaderInfo` (see ConfigXML) into `component`
// and stores the common node with setCommonComponentNode. False when the
// install file cannot be read or parsed; throws LoaderException when it has
// no common type or no component.
bool getConfigXML(xml::node& component, LoaderInfo& loaderInfo);

// Applies the substitution file `path` to the tree under `node`: 0 on
// success, 1 when the file cannot be opened, -1 when it does not parse.
int substitutePropertiesWithFilename(const Str& path, xml::node& node);

class ConfigXML {
 public:
  // The largest configuration file read.
  static constexpr unsigned long kMaxConfigFileSize = 5000000;

  explicit ConfigXML(LoaderInfo& loaderInfo) : _loaderInfo(loaderInfo) {}

  // The name a pipeline element goes by: its `name` attribute, or
  // "dynamicpipeline" when it has none.
  static Str pipelineName(const xml::node& pipeline);
  // The pipeline element child of `component` that goes by `name`.
  static xml::node findPipeline(const xml::node& component, const Str& name);

  // The whole composition; see getConfigXML.
  bool compose(xml::node& component);

  // Reads and parses an XML file of at most kMaxConfigFileSize bytes. On
  // failure `error` says why (the size message is logged here as well).
  static bool readXmlFile(const Pathname& path, xml::document& out, Str& error);

  // Overlays the module in `dir` (if it has a config.xml) on `component`;
  // `moduleRoot` bounds the walk up for substitution files. True if the
  // module was loaded; on false `component` is unchanged.
  bool loadModule(const Pathname& dir, const Pathname& moduleRoot, xml::node& component);

  // Inlines, under each processor with a configReference, the referred
  // file's content as its `config` element, and drops the reference.
  void resolveConfigReferences(xml::node& component) const;

  // Writes the description (install root with `component` in place of its
  // own) to `path` through the stylesheet `stylesheetPath`. False on failure
  // (logged).
  bool writeComposite(const xml::node& installRoot, const xml::node& component,
                      const Pathname& path, const Pathname& stylesheetPath) const;

 private:
  struct ModuleDir {
    Pathname dir;
    Pathname root;  // the module directory it was found under
  };

  void moduleDirectories(std::vector<ModuleDir>& out) const;
  bool substitute(const Pathname& dir, const Pathname& moduleRoot, xml::node& root) const;
  bool overlay(const std::vector<xml::node>& items, const Pathname& dir,
               xml::node& component) const;
  bool overlayPipeline(const xml::node& pipeline, xml::node& component) const;
  bool overlayProcessor(const xml::node& processor, const Pathname& dir,
                        xml::node& component) const;

  LoaderInfo& _loaderInfo;
};
