#include "loaderinfo/ConfigXML.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "ConfigTestHome.h"
#include "util/Exceptions.h"
#include "util/xml/XmlTreeParser.h"

namespace {

// Only the pipelines matter to the overlays; a small component keeps the
// expectations readable.
const char kInstall[] =
    "<componentConfig><common><type>server</type></common>"
    "<component name='velmord'>"
    "<pipeline name='parsing'>"
    "<processor name='readerin' plugin='queueinputprocessor'><config/></processor>"
    "<processor name='aggregator' plugin='aggregatorprocessor'><config/></processor>"
    "<processor name='sendOut' plugin='queueoutputprocessor'><config/></processor>"
    "</pipeline>"
    "<pipeline name='indexerPipe'><processor name='indexer' plugin='indexprocessor'/></pipeline>"
    "</component></componentConfig>";
const char kInstallPipelines[] = "parsing:readerin,aggregator,sendOut;indexerPipe:indexer;";

std::string processor(const char* attrs) {
  return std::string("<processor ") + attrs + " plugin='p'><config/></processor>";
}

class ConfigXMLTest : public ::testing::Test {
 protected:
  void SetUp() override {
    unsetenv("VELMOR_MODULE_PATH");
    setenv("VELMOR_HOME", home.path().c_str(), 1);
    setenv("VELMOR_DB", "/db/dir", 1);
    li.setHomePath(home.path());
    home.write("etc/myinstall/velmord.xml", kInstall);
  }
  void TearDown() override {
    unsetenv("VELMOR_MODULE_PATH");
    unsetenv("VELMOR_DB");
  }

  // Runs the composition; its log lands in `log`.
  bool compose() {
    testing::internal::CaptureStderr();
    bool ok = false;
    try {
      ok = getConfigXML(component, li);
    } catch (...) {
      log = testing::internal::GetCapturedStderr();
      throw;
    }
    log = testing::internal::GetCapturedStderr();
    return ok;
  }
  bool logged(const std::string& text) const { return log.find(text) != std::string::npos; }

  ConfigTestHome home;
  LoaderInfo li;
  xml::node component;
  std::string log;
};

TEST_F(ConfigXMLTest, ShippedDescriptionComposesAndIsWrittenOut) {
  Pathname(VELMOR_SOURCE_DIR "/etc/myinstall/velmord.xml")
      .copyTo(home.path() / "etc/myinstall/velmord.xml");
  Pathname(VELMOR_SOURCE_DIR "/etc/modules").copyToRecursive(home.path() / "etc/modules");
  ASSERT_TRUE(compose()) << log;
  EXPECT_TRUE(logged("Velmord starting (build ")) << log;
  EXPECT_TRUE(logged("System info: ")) << log;
  EXPECT_TRUE(logged("Module " + home.path() + "/etc/modules/input/batchfileloader loaded")) << log;
  EXPECT_EQ(describeComponent(component),
            "tailinput:tailreader,sendOut;parsing:readerin,aggregator,regexreplacement,sendOut;"
            "indexerPipe:indexin,indexer;"
            "batchfileloader:batchreader,sendOut;");
  EXPECT_EQ(li.getCommonComponentNode().find("type").get_content(), "server");

  Pathname moduleDir = home.path() / "etc/modules/input/batchfileloader";
  xml::node loader = ConfigXML::findPipeline(component, "batchfileloader");
  EXPECT_EQ(loader.find("configFileName").get_content(), moduleDir / "config.xml");
  xml::node config = loader.find("processor").find("config");
  EXPECT_EQ(config.find("batchDir").get_content(), home.path() + "/var/spool/velmor");
  EXPECT_EQ(config.find("crcSalt").get_content(), "");
  EXPECT_EQ(config.find("moduleDir").get_content(), moduleDir);

  // composite.xml holds the same description and parses again.
  Pathname composite = home.path() / "var/run/velmor/composite.xml";
  EXPECT_TRUE(logged("Writing out composite configuration file: " + composite));
  xml::tree_parser back(composite.c_str());
  xml::node root = back.get_document().get_root_node();
  EXPECT_EQ(describeComponent(root.find("component")), describeComponent(component));
  EXPECT_EQ(root.find("common").find("type").get_content(), "server");
}

TEST_F(ConfigXMLTest, ProcessorOverlaysInSortedOrderBatchLoaderFirst) {
  // "input/aaa" sorts before "input/batchfileloader" but needs its pipeline.
  home.write("etc/modules/input/aaa/config.xml",
             "<module>" +
                 processor("name='early' pipelineTarget='batchfileloader' action='insertBefore' "
                           "target='reader'") +
                 "</module>");
  home.write("etc/modules/input/batchfileloader/config.xml",
             "<pipeline name='batchfileloader'>" + processor("name='reader'") + "</pipeline>");
  home.write("etc/modules/m1/config.xml",
             processor("name='before' pipelineTarget='parsing' action='insertBefore' "
                       "target='aggregator'"));
  home.write("etc/modules/m2/config.xml",
             "<module>" +
                 processor("name='last' pipelineTarget='parsing' action='insertAfter' "
                           "target='sendOut'") +
                 processor("name='agg2' pipelineTarget='parsing' action='replace' "
                           "target='aggregator'") +
                 "</module>");
  // A pipeline of a known name merges; a new one is added.
  home.write("etc/modules/m2/sub/config.xml",
             "<module><pipeline name='indexerPipe'>" + processor("name='more'") +
                 "</pipeline><pipeline name='extra'>" + processor("name='x'") +
                 "</pipeline></module>");
  ASSERT_TRUE(compose()) << log;
  EXPECT_EQ(describeComponent(component),
            "parsing:readerin,before,agg2,sendOut,last;indexerPipe:indexer,more;"
            "batchfileloader:early,reader;extra:x;");
  EXPECT_TRUE(logged("Overlaying processor before into pipeline. Target=aggregator "
                     "Action=insertBefore"));
  EXPECT_TRUE(logged("processor agg2 overlay completed"));
  // The placement attributes do not stay on the inserted processor.
  xml::node last = ConfigXML::findPipeline(component, "parsing")
                       .find_by_attribute("processor", "name", "last");
  EXPECT_FALSE(last.has_attribute("action"));
  EXPECT_FALSE(last.has_attribute("pipelineTarget"));
  EXPECT_EQ(last.get_attribute("plugin"), "p");
  // A merged pipeline keeps its own configFileName and file.
  xml::node indexer = ConfigXML::findPipeline(component, "indexerPipe");
  EXPECT_EQ(indexer.find("configFileName").get_content(),
            home.path() / "etc/modules/m2/sub/config.xml");
  EXPECT_EQ(indexer.elements("configFileName").size(), 1u);
}

struct BadModule {
  const char* config;
  const char* message;
  bool overlayError;  // also "Error overlaying config for module"
};

// A faulty module is dropped whole, whatever it got right before the fault.
TEST_F(ConfigXMLTest, FaultyModulesAreLeftOutWhole) {
  const std::string good = "<pipeline name='added'>" + processor("name='a'") + "</pipeline>";
  const BadModule cases[] = {
      {"<module>", "Parsing error in config file for module", false},
      {"<something/>", "module config.xml file's root node is not 'processor' or 'pipeline'",
       false},
      {"<processor name='p1' action='insertBefore' target='aggregator'/>",
       "has a processor that has no 'pipelineTarget' attribute.", true},
      {"<processor pipelineTarget='parsing' action='insertBefore' target='aggregator'/>",
       "tag 'name' not found in processor", true},
      {"<processor name='p1' pipelineTarget='parsing' target='aggregator'/>",
       "tag 'action' not found in processor p1", true},
      {"<processor name='p1' pipelineTarget='parsing' action='replace'/>",
       "tag 'target' not found in processor p1", true},
      {"<processor name='p1' pipelineTarget='nosuch' action='replace' target='aggregator'/>",
       "New processor in module did not overlay configuration - pipeline nosuch not found", true},
      {"<processor name='p1' pipelineTarget='parsing' action='replace' target='nosuch'/>",
       "processor p1 not overlayed because target not found, or insertion point not found", true},
      {"<pipeline><processor name='a'/></pipeline>",
       "couldn't find 'name' attribute in overlay pipeline", true},
  };
  for (const auto& c : cases) {
    ConfigTestHome h;
    h.write("etc/myinstall/velmord.xml", kInstall);
    std::string text = c.config;
    if (text.rfind("<module>", 0) != 0 && text.rfind("<something", 0) != 0)
      text = "<module>" + good + text + "</module>";
    h.write("etc/modules/bad/config.xml", text);
    li.setHomePath(h.path());
    ASSERT_TRUE(compose()) << c.config;
    EXPECT_EQ(describeComponent(component), kInstallPipelines) << c.config;
    EXPECT_TRUE(logged(c.message)) << c.config << "\n" << log;
    EXPECT_EQ(logged("Error overlaying config for module " + h.path() +
                     "/etc/modules/bad - skipping install"),
              c.overlayError)
        << c.config << "\n" << log;
  }
}

TEST_F(ConfigXMLTest, InvalidActionSkipsOnlyThatProcessor) {
  home.write("etc/modules/m/config.xml",
             "<module>" +
                 processor("name='odd' pipelineTarget='parsing' action='sideways' "
                           "target='aggregator'") +
                 processor("name='fine' pipelineTarget='parsing' action='insertAfter' "
                           "target='readerin'") +
                 "</module>");
  ASSERT_TRUE(compose());
  EXPECT_TRUE(logged("processor odd has invalid target - skipping overlay of this processor"));
  EXPECT_EQ(describeComponent(component),
            "parsing:readerin,fine,aggregator,sendOut;indexerPipe:indexer;");
}

TEST_F(ConfigXMLTest, SubstitutionsNearestFirstUpToTheModuleRoot) {
  home.write("etc/substitutions.xml", "<s><A>outside</A></s>");  // above the root: unused
  home.write("etc/modules/substitutions.xml", "<s><A>rootA</A><B>rootB</B></s>");
  home.write("etc/modules/grp/properties.xml", "<s><B>grpB</B><C>grpC</C><D>$$A]]</D></s>");
  home.write("etc/modules/grp/mod/substitutions.xml",
             "<s><C>localC</C><VELMOR_HOME>not this</VELMOR_HOME></s>");
  home.write("etc/modules/grp/mod/config.xml",
             "<pipeline name='subst' note='$$A]]|$$B]]|$$C]]'>"
             "<processor name='p'><config>"
             "<v>$$A]] $$B]] $$C]] $$D]]</v><m>$$MODULE_PATH]]/x</m>"
             "<h>$$VELMOR_HOME]]</h><db>$$VELMOR_DB]]</db>"
             "<u>$$UNKNOWN]] $$]] $$A] $$$A]]</u>"
             "</config></processor></pipeline>");
  ASSERT_TRUE(compose()) << log;
  xml::node p = ConfigXML::findPipeline(component, "subst");
  ASSERT_FALSE(p.empty()) << log;
  EXPECT_EQ(p.get_attribute("note"), "rootA|grpB|localC");
  xml::node config = p.find("processor").find("config");
  // D's value came in from a farther file and was itself a token: replaced
  // by the root file's A, which applies after grp's.
  EXPECT_EQ(config.find("v").get_content(), "rootA grpB localC rootA");
  EXPECT_EQ(config.find("m").get_content(), home.path() + "/etc/modules/grp/mod/x");
  EXPECT_EQ(config.find("h").get_content(), home.path());
  EXPECT_EQ(config.find("db").get_content(), "/db/dir");
  EXPECT_EQ(config.find("u").get_content(), "$$UNKNOWN]] $$]] $$A] $rootA");
}

TEST_F(ConfigXMLTest, BrokenSubstitutionFilesDropTheModule) {
  home.write("etc/modules/l/substitutions.xml", "<s><A>unclosed</s>");
  home.write("etc/modules/l/config.xml", "<pipeline name='l'/>");
  home.write("etc/modules/g/properties.xml", "<s>");
  home.write("etc/modules/g/m/config.xml", "<pipeline name='g'/>");
  ASSERT_TRUE(compose());
  EXPECT_EQ(describeComponent(component), kInstallPipelines);
  EXPECT_TRUE(logged("Error in local property substitution for module " + home.path() +
                     "/etc/modules/l"))
      << log;
  EXPECT_TRUE(logged("Error in global property substitution for module " + home.path() +
                     "/etc/modules/g/m"))
      << log;
}

TEST_F(ConfigXMLTest, ModulePathFromEnvironment) {
  Pathname a = home.write("modsA/one/config.xml", "<pipeline name='one'/>").toParent().toParent();
  Pathname b = home.write("modsB/config.xml", "<pipeline name='two'/>").toParent();
  home.write("etc/modules/ignored/config.xml", "<pipeline name='ignored'/>");
  std::string list = a + ":/no/such/dir::" + b;
  setenv("VELMOR_MODULE_PATH", list.c_str(), 1);
  ASSERT_TRUE(compose());
  EXPECT_EQ(describeComponent(component), std::string(kInstallPipelines) + "one:;two:;");
  EXPECT_TRUE(logged("Directory [/no/such/dir] specified in environment variable "
                     "[VELMOR_MODULE_PATH] does not exist - skipping"));
}

TEST_F(ConfigXMLTest, NoModulesDirectory) {
  ASSERT_TRUE(compose());
  EXPECT_EQ(describeComponent(component), kInstallPipelines);
  Pathname modules = home.path() / "etc/modules";
  EXPECT_TRUE(logged("VELMOR_MODULE_PATH environment variable not found - defaulting to " +
                     modules));
  EXPECT_TRUE(logged(modules + " directory not found - no modules will be loaded"));
}

TEST_F(ConfigXMLTest, InstallFileFailures) {
  // Too large: refused before it is parsed.
  std::string big = "<componentConfig><common><type>server</type></common><component>";
  big += "<!--" + std::string(ConfigXML::kMaxConfigFileSize, 'x') + "--></component></componentConfig>";
  Pathname file = home.write("etc/myinstall/velmord.xml", big);
  EXPECT_FALSE(compose());
  EXPECT_TRUE(logged("The file '" + file +
                     "' is too large to be read in. Config files should not exceed '5000000' "
                     "bytes."))
      << log.substr(0, 500);
  EXPECT_TRUE(logged("Error getting component configuration data from " + file));

  home.write("etc/myinstall/velmord.xml", "<componentConfig>");
  EXPECT_FALSE(compose());
  file.unlink();
  EXPECT_FALSE(compose());
  EXPECT_TRUE(logged("Error getting component configuration data from " + file));

  home.write("etc/myinstall/velmord.xml",
             "<componentConfig><common/><component/></componentConfig>");
  EXPECT_THROW(compose(), LoaderException);
  EXPECT_TRUE(li.getCommonComponentNode().empty());
  home.write("etc/myinstall/velmord.xml", "<componentConfig><common><type>t</type></common>"
                                          "</componentConfig>");
  EXPECT_THROW(compose(), LoaderException);

  // Another component name reads another file.
  li.setComponentName("other");
  home.write("etc/myinstall/other.xml", kInstall);
  EXPECT_TRUE(compose());
}

TEST_F(ConfigXMLTest, CompositeInlinesConfigReferences) {
  Pathname ref = home.write("etc/refs/good.xml", "<config><size>10</size></config>");
  Pathname wrapped = home.write("etc/refs/wrapped.xml", "<settings><size>20</size></settings>");
  Pathname broken = home.write("etc/refs/broken.xml", "<config>");
  home.write("etc/modules/m/config.xml",
             "<pipeline name='refs'>"
             "<processor name='good' configReference='" + ref + "'><config><old/></config></processor>"
             "<processor name='wrapped' configReference='etc/refs/wrapped.xml'/>"
             "<processor name='broken' configReference='" + broken + "'/>"
             "<processor name='missing' configReference='/no/such.xml'/>"
             "</pipeline>");
  ASSERT_TRUE(compose());
  EXPECT_TRUE(logged("xml parsing error on config file " + broken + " - "));
  EXPECT_TRUE(logged("couldn't load config file from /no/such.xml"));
  // The in-memory description keeps its references; only the file is
  // resolved.
  xml::node refs = ConfigXML::findPipeline(component, "refs");
  EXPECT_TRUE(refs.find("processor").has_attribute("configReference"));

  xml::tree_parser back((home.path() / "var/run/velmor/composite.xml").c_str());
  xml::node p = ConfigXML::findPipeline(back.get_document().get_root_node().find("component"),
                                        "refs");
  xml::node good = p.find_by_attribute("processor", "name", "good");
  EXPECT_FALSE(good.has_attribute("configReference"));
  EXPECT_EQ(good.elements("config").size(), 1u);
  EXPECT_EQ(good.find("config").find("size").get_content(), "10");
  EXPECT_TRUE(good.find("config").find("old").empty());
  xml::node w = p.find_by_attribute("processor", "name", "wrapped");
  EXPECT_EQ(w.find("config").find("settings").find("size").get_content(), "20");
  EXPECT_TRUE(p.find_by_attribute("processor", "name", "broken").has_attribute("configReference"));
}

TEST_F(ConfigXMLTest, CompositeFailureDoesNotStopStartUp) {
  (home.path() / "etc/prettyprint.xsl").unlink();
  ASSERT_TRUE(compose());
  EXPECT_TRUE(logged("Problem saving composited configuration file " + home.path() +
                     "/var/run/velmor/composite.xml"));
  EXPECT_EQ(describeComponent(component), kInstallPipelines);
}

TEST(SubstitutePropertiesWithFilename, ResultCodes) {
  ConfigTestHome home;
  setenv("VELMOR_HOME", "/from/env", 1);
  Pathname good = home.write("good.xml", "<s><X>1</X><VELMOR_HOME>file</VELMOR_HOME></s>");
  Pathname bad = home.write("bad.xml", "<s>");
  xml::node n("n", "$$X]] $$VELMOR_HOME]]");
  EXPECT_EQ(substitutePropertiesWithFilename(good, n), 0);
  EXPECT_EQ(n.get_content(), "1 /from/env");
  EXPECT_EQ(substitutePropertiesWithFilename(bad, n), -1);
  EXPECT_EQ(substitutePropertiesWithFilename(home.path() / "none.xml", n), 1);
  EXPECT_EQ(n.get_content(), "1 /from/env");
}

}  // namespace
