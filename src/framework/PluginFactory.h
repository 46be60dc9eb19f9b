// PluginFactory: makes the processors of one plug-in name. Each kind of
// processor has one static factory object; the program that builds
// pipelines hands PluginProcessor a lookup function from plug-in names to
// these factories (there is no loading of libraries at run time).
//
// Threads: produce() may be called from any pipeline's thread; factories
// hold no state but their name.
#pragma once

#include <memory>
#include <strings.h>

#include "framework/Processor.h"
#include "util/Str.h"

class PluginFactory {
 public:
  explicit PluginFactory(const char* name) : _name(name) {}
  virtual ~PluginFactory() = default;
  PluginFactory(const PluginFactory&) = delete;
  PluginFactory& operator=(const PluginFactory&) = delete;

  virtual std::unique_ptr<Processor> produce() const = 0;
  // Plug-in names compare without regard to case.
  bool matchName(const char* name) const { return strcasecmp(name, _name.c_str()) == 0; }
  const Str& getName() const { return _name; }

 private:
  Str _name;
};

// The factory of a processor class with a default constructor.
template <class T>
class SimplePluginFactory : public PluginFactory {
 public:
  using PluginFactory::PluginFactory;
  std::unique_ptr<Processor> produce() const override { return std::make_unique<T>(); }
};

// From a plug-in name to its factory, or null.
using PluginLookup = const PluginFactory* (*)(const char* name);
