// The plug-in section: every plugin element must name a known plug-in, and
// createPlugin hands a processor its own and its plug-in's settings.
#include "framework/PluginProcessor.h"

#include <gtest/gtest.h>

#include "TestProcessors.h"
#include "util/Logger.h"
#include "util/xml/XmlDocument.h"
#include "util/xml/XmlTreeParser.h"

namespace {

Logger gTestLogger("PluginProcessorTest");

xml::node parse(const std::string& text) {
  xml::tree_parser p(text.data(), text.size());
  return p.get_document().get_root_node();
}

TEST(PluginProcessor, LoadOnlyPluginsChecksEveryName) {
  struct Case {
    const char* component;
    const char* error;  // "" for none
  } cases[] = {
      {"<component/>", ""},
      {"<component><plugin name='tag'/><plugin name='RECORDER'/></component>", ""},
      {"<component><plugin name='tag'/><plugin name='nosuch'/></component>", "Couldn't find library for: nosuch"},
      {"<component><plugin><config/></plugin></component>", "Couldn't find 'name' tag for plugin"},
      {"<component><plugin name=''/></component>", "Couldn't find library for: "},
  };
  for (const Case& c : cases) {
    PluginProcessor pp(gTestLogger, parse(c.component), testproc::testLookup);
    std::string got;
    try {
      pp.loadOnlyPlugins();
    } catch (const PluginException& e) {
      got = e.what();
    }
    EXPECT_EQ(got, c.error) << c.component;
  }
}

TEST(PluginProcessor, CreatePluginPassesConfigGlobalAndName) {
  xml::node component = parse(
      "<component>"
      "<plugin name='echo'><config><value>shared</value></config></plugin>"
      "<plugin name='tag'/>"
      "</component>");
  xml::node config = parse("<config><value>own</value></config>");
  PluginProcessor pp(gTestLogger, component, testproc::testLookup);

  struct Case {
    const char* plugin;
    const char* processorName;
    const char* wantName;
    const char* wantGlobal;
  } cases[] = {
      {"echo", "first", "first", "shared"},
      {"ECHO", "", "ECHO", "<none>"},  // the factory matches any case; the settings do not
  };
  for (const Case& c : cases) {
    std::unique_ptr<Processor> p = pp.createPlugin(c.plugin, config, c.processorName);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->getName(), c.wantName);
    EXPECT_EQ(testproc::echoSeen().name, c.wantName) << "named before init";
    EXPECT_EQ(testproc::echoSeen().config, "own");
    EXPECT_EQ(testproc::echoSeen().global, c.wantGlobal);
  }

  xml::node out;
  EXPECT_TRUE(pp.getPluginGlobalConfig(out, "echo"));
  EXPECT_EQ(std::string(out.get_name()), "config");
  xml::node untouched;
  EXPECT_FALSE(pp.getPluginGlobalConfig(untouched, "tag")) << "a plugin without config";
  EXPECT_FALSE(pp.getPluginGlobalConfig(untouched, "missing"));
  EXPECT_TRUE(untouched.empty());
}

TEST(PluginProcessor, CreatePluginFailures) {
  PluginProcessor pp(gTestLogger, parse("<component/>"), testproc::testLookup);
  xml::node config = parse("<config/>");
  struct Case {
    const char* plugin;
    const char* error;
    bool fatal;
  } cases[] = {
      {"nosuch", "Couldn't find library for: nosuch", false},
      {"badinit", "bad settings", false},
      {"fatal", "cannot go on", true},
      {"skipproc", "not here", false},
  };
  for (const Case& c : cases) {
    try {
      pp.createPlugin(c.plugin, config);
      ADD_FAILURE() << c.plugin << " did not throw";
    } catch (const PluginException& e) {
      EXPECT_EQ(std::string(e.what()), c.error);
      EXPECT_EQ(e.isFatal(), c.fatal) << c.plugin;
    }
  }
  // A processor skipped by its init keeps its own type, so that a pipeline
  // can tell it from a failure.
  EXPECT_THROW(pp.createPlugin("skipproc", config), SkipThisProcessorException);
  EXPECT_THROW(pp.createPlugin("skippipe", config), SkipThisPipelineException);
}

}  // namespace
