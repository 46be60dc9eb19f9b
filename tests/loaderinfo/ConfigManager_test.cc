#include "loaderinfo/ConfigManager.h"

#include <gtest/gtest.h>

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "ConfigTestHome.h"
#include "util/Exceptions.h"
#include "util/xml/XmlTreeParser.h"

namespace {

xml::node parse(const std::string& text) {
  xml::tree_parser p(text.data(), text.size());
  return p.get_document().get_root_node();
}

// A running pipeline as the update sees it, with scripted answers.
class FakePipeline : public MConfigUpdateTarget {
 public:
  explicit FakePipeline(std::vector<std::string> processors) : _processors(std::move(processors)) {}
  bool hasProcessor(const Str& name) const override {
    for (const auto& p : _processors)
      if (p == name) return true;
    return false;
  }
  bool loadConfigUpdate(const Str& name, const xml::node& config) override {
    offered.push_back(name + "=" + config.find("size").get_content());
    if (throwOnLoad) throw std::runtime_error("bad size");
    return accept;
  }
  void executeConfigUpdate(const Str& name) override {
    if (throwOnExecute) throw std::runtime_error("cannot switch");
    executed.push_back(name);
  }

  bool accept = true;
  bool throwOnLoad = false;
  bool throwOnExecute = false;
  std::vector<std::string> offered;
  std::vector<std::string> executed;

 private:
  std::vector<std::string> _processors;
};

class FakeRegistry : public MConfigUpdateRegistry {
 public:
  void findPipelines(const Str& name, std::vector<MConfigUpdateTarget*>& out) override {
    auto range = running.equal_range(name);
    for (auto it = range.first; it != range.second; ++it) out.push_back(it->second);
  }
  std::multimap<std::string, MConfigUpdateTarget*> running;
};

class ConfigManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ref = home.write("refs/conf.xml", "<wrapper><config><size>7</size></config></wrapper>");
    moduleFile = home.write(
        "etc/modules/m/config.xml",
        "<module>\n  <pipeline name='tail'>\n"
        "    <processor name='reader' plugin='r'><config><size>1</size></config></processor>\n"
        "    <processor name='other' plugin='o'/>\n"
        "  </pipeline>\n"
        "  <processor name='extra' pipelineTarget='tail' action='insertAfter' target='reader'>"
        "<config><size>2</size></config></processor>\n</module>\n");
    component = parse(
        "<component>"
        "<pipeline name='tail'><configFileName>" + moduleFile + "</configFileName>"
        "<processor name='reader' plugin='r'><config><size>1</size></config></processor>"
        "<processor name='extra'><config><size>2</size></config></processor>"
        "<processor name='byref' configReference='" + ref + "'/>"
        "<processor name='badref' configReference='/no/such/file.xml'/>"
        "<processor name='other' plugin='o'/>"
        "</pipeline>"
        "<pipeline name='nofile'><processor name='p'><config><size>3</size></config></processor>"
        "</pipeline>"
        "</component>");
    manager.load(component);
    manager.setStylesheetPath(home.path() / "etc/prettyprint.xsl");
    manager.setUpdateRegistry(&registry);
  }

  // The message of the InvalidConfigTargetException that `f` throws.
  template <typename F>
  std::string failure(F f) {
    try {
      f();
    } catch (const InvalidConfigTargetException& e) {
      return e.what();
    }
    return "(no exception)";
  }

  xml::node newConfig(const char* size) {
    return parse(std::string("<config><size>") + size + "</size></config>");
  }

  ConfigTestHome home;
  Pathname ref, moduleFile;
  xml::node component;
  ConfigManager manager;
  FakeRegistry registry;
};

TEST_F(ConfigManagerTest, Lookups) {
  EXPECT_EQ(manager.getPipelineNode("tail").get_attribute("name"), "tail");
  EXPECT_TRUE(manager.getPipelineNode("none").empty());
  EXPECT_EQ(manager.getProcessorNode(ConfigTarget("tail", "other")).get_attribute("plugin"), "o");
  EXPECT_TRUE(manager.getProcessorNode(ConfigTarget("tail", "none")).empty());
  EXPECT_TRUE(manager.getProcessorNode(ConfigTarget("none", "reader")).empty());

  EXPECT_EQ(manager.getIter(ConfigTarget("tail", "reader")).find("size").get_content(), "1");
  EXPECT_EQ(manager.getIter(ConfigTarget("tail", "byref")).find("size").get_content(), "7");

  const std::pair<ConfigTarget, std::string> bad[] = {
      {ConfigTarget("none", "reader"), "Cannot find config data for pipeline: none"},
      {ConfigTarget("tail", "none"), "Cannot find config data for processor: none"},
      {ConfigTarget("tail", "other"), "Cannot find config data for processor: other"},
      {ConfigTarget("tail", "badref"), "Cannot find config data for processor: badref"},
  };
  for (const auto& [target, message] : bad)
    EXPECT_EQ(failure([&] { manager.getIter(target); }), message);
}

TEST_F(ConfigManagerTest, AcceptedUpdateIsAppliedSwappedAndPersisted) {
  FakePipeline one({"reader", "other"}), two({"reader"});
  registry.running.emplace("tail", &one);
  registry.running.emplace("tail", &two);
  testing::internal::CaptureStderr();
  bool ok = manager.update(ConfigTarget("tail", "reader"), newConfig("42"));
  std::string log = testing::internal::GetCapturedStderr();
  ASSERT_TRUE(ok) << log;
  EXPECT_EQ(one.offered, std::vector<std::string>{"reader=42"});
  EXPECT_EQ(two.executed, std::vector<std::string>{"reader"});
  EXPECT_EQ(manager.getIter(ConfigTarget("tail", "reader")).find("size").get_content(), "42");
  EXPECT_NE(log.find("Writing out updated configuration file: " + moduleFile), std::string::npos);

  // The module file has the new config in the right processor, and the rest
  // of it as it was.
  xml::tree_parser back(moduleFile.c_str());
  xml::node root = back.get_document().get_root_node();
  xml::node pipe = root.find("pipeline");
  EXPECT_EQ(pipe.find_by_attribute("processor", "name", "reader").find("config").find("size")
                .get_content(),
            "42");
  EXPECT_EQ(pipe.elements("processor").size(), 2u);
  EXPECT_EQ(root.find("processor").find("config").find("size").get_content(), "2");

  // A processor overlaid from a module is persisted in its overlay element.
  FakePipeline three({"extra"});
  registry.running.clear();
  registry.running.emplace("tail", &three);
  testing::internal::CaptureStderr();
  ok = manager.update(ConfigTarget("tail", "extra"), newConfig("9"));
  log = testing::internal::GetCapturedStderr();
  ASSERT_TRUE(ok) << log;
  xml::tree_parser again(moduleFile.c_str());
  EXPECT_EQ(again.get_document().get_root_node().find("processor").find("config").find("size")
                .get_content(),
            "9");
}

TEST_F(ConfigManagerTest, RefusedOrFailingUpdateChangesNothing) {
  FakePipeline yes({"reader"}), no({"reader"});
  no.accept = false;
  registry.running.emplace("tail", &yes);
  registry.running.emplace("tail", &no);
  EXPECT_FALSE(manager.update(ConfigTarget("tail", "reader"), newConfig("5")));
  EXPECT_TRUE(yes.executed.empty());

  no.accept = true;
  no.throwOnLoad = true;
  testing::internal::CaptureStderr();
  EXPECT_FALSE(manager.update(ConfigTarget("tail", "reader"), newConfig("5")));
  std::string log = testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("Error calling loadConfigUpdate for processor: reader"), std::string::npos);
  EXPECT_TRUE(yes.executed.empty());

  no.throwOnLoad = false;
  no.throwOnExecute = true;
  testing::internal::CaptureStderr();
  EXPECT_FALSE(manager.update(ConfigTarget("tail", "reader"), newConfig("5")));
  log = testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("Error executing config update"), std::string::npos);

  EXPECT_EQ(manager.getIter(ConfigTarget("tail", "reader")).find("size").get_content(), "1");
  xml::tree_parser back(moduleFile.c_str());
  EXPECT_NE(back.get_document().get_root_node().to_string().find("<size>1</size>"),
            std::string::npos);
}

TEST_F(ConfigManagerTest, UpdateTargetFailures) {
  FakePipeline lacking({"other"});
  EXPECT_EQ(failure([&] { manager.update(ConfigTarget("tail", "reader"), newConfig("1")); }),
            "No pipelines with this name are running: tail");
  EXPECT_EQ(failure([&] { manager.update(ConfigTarget("gone", "reader"), newConfig("1")); }),
            "Cannot find config data for pipeline: gone");
  EXPECT_EQ(failure([&] { manager.update(ConfigTarget("tail", "gone"), newConfig("1")); }),
            "Cannot find config data for processor: gone");
  registry.running.emplace("tail", &lacking);
  EXPECT_EQ(failure([&] { manager.update(ConfigTarget("tail", "reader"), newConfig("1")); }),
            "This Processor is not part of the pipeline.  Processor: reader");
  EXPECT_TRUE(lacking.offered.empty());
}

TEST_F(ConfigManagerTest, PersistFailures) {
  testing::internal::CaptureStderr();
  EXPECT_FALSE(manager.persist("nofile", "p"));
  std::string log = testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("Unable to find configFileName in pipeline node"), std::string::npos);

  // A processor that is not in the pipeline's file.
  testing::internal::CaptureStderr();
  EXPECT_FALSE(manager.persist("tail", "byref"));
  testing::internal::GetCapturedStderr();

  // An unreadable file is left as it was.
  home.write("etc/modules/m/config.xml", "<module>");
  testing::internal::CaptureStderr();
  EXPECT_FALSE(manager.persist("tail", "reader"));
  testing::internal::GetCapturedStderr();
}

}  // namespace
