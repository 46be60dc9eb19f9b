// Pipelines and the pipeline component: records flow through processors in
// order, injected records come out first in, first out past the first
// processor, the mode file disables processors and pipelines, a failed build
// costs only its own pipeline, a processor's std::runtime_error ends its
// pipeline while any other exception costs one record, and a pipeline shuts
// down through its shutdown level. Also the management calls.
#include "framework/Pipeline.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "TestProcessors.h"
#include "framework/ComponentData.h"
#include "framework/MetricsManager.h"
#include "framework/PipelineComponent.h"
#include "framework/PipelineComponentCommHandler.h"
#include "framework/PluginProcessor.h"
#include "framework/ShutdownManager.h"
#include "libbundle/PropertyPages.h"
#include "loaderinfo/ConfigManager.h"
#include "loaderinfo/LoaderInfo.h"
#include "util/EventLoop.h"
#include "util/Logger.h"
#include "util/xml/XmlDocument.h"
#include "util/xml/XmlTreeParser.h"

using testproc::eventually;
using testproc::Sink;

namespace {

Logger gTestLogger("PipelineTest");

const char kModeConf[] =
    "[pipeline:partial]\n"
    "disabled_processors = p2, p4\n"
    "\n"
    "[pipeline:alldisabled]\n"
    "disabled_processors = only\n"
    "\n"
    "[pipeline:disabledpipe]\n"
    "disabled = true\n"
    "\n"
    "[pipeline:enabledpipe]\n"
    "disabled = false\n";

// A scratch VELMOR_HOME holding etc/bundles/default/default-mode.conf, made
// once for the whole program before any property file is opened.
class ScratchModeHome : public ::testing::Environment {
 public:
  void SetUp() override {
    testproc::ensureMainThread();
    char tmpl[] = "/tmp/velmor-pipeline-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir = tmpl;
    std::string bundle = dir + "/etc/bundles/default";
    ASSERT_EQ(system(("mkdir -p " + bundle).c_str()), 0);
    std::ofstream(bundle + "/default-mode.conf") << kModeConf;
    std::ofstream(dir + "/good-config.xml") << "<config><sink>fromfile</sink></config>";
    std::ofstream(dir + "/bad-config.xml") << "<config><sink>";
    setenv("VELMOR_HOME", dir.c_str(), 1);
    LoaderInfo::getInstance().populateFromEnvironment();
  }
  void TearDown() override {
    if (!dir.empty() && system(("rm -rf " + dir).c_str()) != 0) {
    }
  }
  static std::string dir;
};
std::string ScratchModeHome::dir;

const ::testing::Environment* const gHome = ::testing::AddGlobalTestEnvironment(new ScratchModeHome);

xml::node parse(const std::string& text) {
  xml::tree_parser p(text.data(), text.size());
  return p.get_document().get_root_node();
}

std::string proc(const std::string& name, const std::string& plugin, const std::string& config = "") {
  return "<processor name='" + name + "' plugin='" + plugin + "'><config>" + config + "</config></processor>";
}
std::string source(int count) { return proc("src", "source", "<count>" + std::to_string(count) + "</count>"); }
std::string recorder(const std::string& sink) { return proc("rec", "recorder", "<sink>" + sink + "</sink>"); }
std::string pipelineXml(const std::string& name, const std::string& body) {
  return "<pipeline name='" + name + "'>" + body + "</pipeline>";
}

PropertyPages* modePages() { return &PropertyPages::instance("default-mode"); }

// Owns the plug-in section and the pipelines of one test; the pipelines are
// stopped and joined when it goes, whatever the test did.
class Harness {
 public:
  Harness() : component(parse("<component/>")), plugins(gTestLogger, component, testproc::testLookup) {}
  Pipeline* build(const std::string& xml, ShutdownLevel* level = nullptr) {
    _owned.push_back(std::make_unique<Pipeline>(parse(xml), &plugins, modePages(), nullptr, level));
    return _owned.back().get();
  }
  // Builds, checks the build succeeded, opens the gate.
  Pipeline* run(const std::string& xml) {
    Pipeline* p = build(xml);
    EXPECT_EQ(p->finishInit(), Pipeline::INIT_RUNNING) << p->initError();
    p->start();
    return p;
  }
  xml::node component;
  PluginProcessor plugins;

 private:
  std::vector<std::unique_ptr<Pipeline>> _owned;
};

std::vector<std::string> numbered(std::vector<int> ns, const std::string& trail = "") {
  std::vector<std::string> out;
  for (int n : ns) out.push_back(std::to_string(n) + "|" + trail);
  return out;
}

TEST(Pipeline, RecordsFlowThroughProcessorsInOrder) {
  Sink::get("flow").clear();
  Harness h;
  Pipeline* p = h.run(pipelineXml("flow", source(5) + proc("t1", "tag") + proc("t2", "tag") + recorder("flow")));
  ASSERT_TRUE(Sink::get("flow").waitFor(5));
  EXPECT_EQ(Sink::get("flow").items(), numbered({1, 2, 3, 4, 5}, "t1 t2"));
  EXPECT_EQ(p->processorNames(), (std::vector<Str>{"src", "t1", "t2", "rec"}));
  // The recorder counts its call once execute() has returned.
  EXPECT_TRUE(eventually([&] { return p->metrics().back().cumulativeHits == 5; }));
  std::vector<Pipeline::ProcessorMetrics> m = p->metrics();
  ASSERT_EQ(m.size(), 4u);
  for (const auto& pm : m) {
    EXPECT_EQ(pm.executeCount, 5u) << pm.name;
    EXPECT_EQ(pm.cumulativeHits, 5u) << pm.name;
    EXPECT_LE(pm.samples, pm.executeCount);
    EXPECT_GE(pm.cpuSeconds, 0.0);
  }
  // The metrics report restarts the execute count, not the hits.
  auto report = [] {
    for (const Str& line : MetricsManager::instance().collect()) {
      if (line.rfind("Pipeline:flow: ", 0) == 0) return std::string(line);
    }
    return std::string();
  };
  std::string first = report(), second = report();
  EXPECT_EQ(first.find("Pipeline:flow: processor=src, executes=5, cumulative hits=5, cpu seconds="), 0u) << first;
  EXPECT_NE(first.find("processor=rec, executes=5, cumulative hits=5"), std::string::npos) << first;
  EXPECT_EQ(second.find("Pipeline:flow: processor=src, executes=0, cumulative hits=5, cpu seconds="), 0u) << second;
  EXPECT_EQ(p->metrics()[0].executeCount, 0u);
  EXPECT_EQ(p->metrics()[0].cumulativeHits, 5u);

  EXPECT_FALSE(p->isFinished());
  p->stop();
  EXPECT_TRUE(report().empty()) << "unregistered when the loop ends";
  EXPECT_TRUE(p->isFinished());
  EXPECT_EQ(p->metrics().size(), 4u) << "counters outlive the processors";
}

// The middle processor acts on record "3" of five.
TEST(Pipeline, ExecuteResultsAndExceptions) {
  struct Case {
    const char* plugin;
    std::vector<int> recorded;
    bool pipelineEnds;
  } cases[] = {
      {"drop", {1, 2, 4, 5}, false},
      {"throwother", {1, 2, 4, 5}, false},  // costs one record, the pipeline lives
      {"throwruntime", {1, 2}, true},       // ends the pipeline
      {"exit", {1, 2}, true},
  };
  for (const Case& c : cases) {
    std::string sink = std::string("results-") + c.plugin;
    Sink::get(sink).clear();
    Harness h;
    Pipeline* p = h.run(pipelineXml(sink, source(5) + proc("mid", c.plugin, "<on>3</on>") + recorder(sink)));
    if (c.pipelineEnds) {
      EXPECT_TRUE(eventually([&] { return p->isFinished(); })) << c.plugin;
    } else {
      EXPECT_TRUE(Sink::get(sink).waitFor(c.recorded.size())) << c.plugin;
      EXPECT_FALSE(p->isFinished()) << c.plugin;
    }
    EXPECT_EQ(Sink::get(sink).items(), numbered(c.recorded)) << c.plugin;
  }
}

TEST(Pipeline, InjectedRecordsAreFifoPastTheFirstProcessorAndBounded) {
  Sink::get("inject").clear();
  Harness h;
  Pipeline* p = h.build(pipelineXml(
      "inject", "<diqSize>2</diqSize>" + proc("first", "tag") + proc("second", "tag") + recorder("inject")));
  ASSERT_EQ(p->finishInit(), Pipeline::INIT_RUNNING);
  EXPECT_EQ(p->getDiqSize(), 2);

  struct Step {
    const char* raw;
    bool wantFull;  // injectPipelineData's answer
  } steps[] = {{"A", false}, {"B", false}, {"C", true}};
  for (const Step& s : steps) {
    auto r = std::make_shared<PipelineData>();
    r->put(PipelineData::rawKey, s.raw);
    EXPECT_EQ(p->injectPipelineData(r), s.wantFull) << s.raw;
  }
  EXPECT_TRUE(p->isDataInjectionQueueFull());
  p->start();
  ASSERT_TRUE(Sink::get("inject").waitFor(2));
  EXPECT_TRUE(eventually([&] { return !p->isDataInjectionQueueFull(); }));
  auto d = std::make_shared<PipelineData>();
  d->put(PipelineData::rawKey, "D");
  EXPECT_FALSE(p->injectPipelineData(d));
  ASSERT_TRUE(Sink::get("inject").waitFor(3));
  EXPECT_EQ(Sink::get("inject").items(), (std::vector<std::string>{"A|second", "B|second", "D|second"}));
  EXPECT_EQ(p->metrics()[0].executeCount, 0u) << "the first processor is passed over";
}

TEST(Pipeline, WithoutDiqSizeInjectionIsUnbounded) {
  struct Case {
    const char* extra;
  } cases[] = {{""}, {"<diqSize>0</diqSize>"}, {"<diqSize>-3</diqSize>"}};
  for (const Case& c : cases) {
    Harness h;
    Pipeline* p = h.build(pipelineXml("unbounded", std::string(c.extra) + proc("t", "tag")));
    ASSERT_EQ(p->finishInit(), Pipeline::INIT_RUNNING);
    for (int i = 0; i < 50; ++i) EXPECT_FALSE(p->injectPipelineData(std::make_shared<PipelineData>())) << c.extra;
    EXPECT_FALSE(p->isDataInjectionQueueFull()) << c.extra;
  }
}

TEST(Pipeline, ModeFileDisablesProcessors) {
  Sink::get("partial").clear();
  Harness h;
  Pipeline* p = h.run(pipelineXml("partial", source(2) + proc("p1", "tag") + proc("p2", "tag") + proc("p3", "tag") +
                                                 proc("p4", "tag") + recorder("partial")));
  ASSERT_TRUE(Sink::get("partial").waitFor(2));
  EXPECT_EQ(Sink::get("partial").items(), numbered({1, 2}, "p1 p3"));
  EXPECT_EQ(p->processorNames(), (std::vector<Str>{"src", "p1", "p3", "rec"}));
  // The same processors under another pipeline name are all kept.
  Pipeline* q = h.build(pipelineXml("other", proc("p2", "tag") + proc("p4", "tag")));
  ASSERT_EQ(q->finishInit(), Pipeline::INIT_RUNNING);
  EXPECT_EQ(q->processorNames(), (std::vector<Str>{"p2", "p4"}));
}

TEST(Pipeline, EmptyPipelineEndsHarmlessly) {
  struct Case {
    const char* name;
    std::string body;
  } cases[] = {
      {"nothing", ""},
      {"alldisabled", proc("only", "tag")},
      {"allskipped", proc("s1", "skipproc") + proc("s2", "skipproc")},
  };
  for (const Case& c : cases) {
    Harness h;
    Pipeline* p = h.build(pipelineXml(c.name, c.body));
    EXPECT_EQ(p->finishInit(), Pipeline::INIT_RUNNING) << c.name;
    EXPECT_TRUE(p->processorNames().empty()) << c.name;
    EXPECT_FALSE(p->isFinished()) << c.name << " waits at the gate";
    p->start();
    EXPECT_TRUE(eventually([&] { return p->isFinished(); })) << c.name;
    EXPECT_TRUE(p->injectPipelineData(std::make_shared<PipelineData>()) == false) << c.name;
  }
}

TEST(Pipeline, BuildOutcomes) {
  std::string dir = ScratchModeHome::dir;
  struct Case {
    std::string body;
    int state;
    std::string error;
  } cases[] = {
      {proc("t", "tag"), Pipeline::INIT_RUNNING, ""},
      {proc("s", "skipproc") + proc("t", "tag"), Pipeline::INIT_RUNNING, ""},
      {proc("t", "tag") + proc("x", "nosuch"), Pipeline::INIT_PLUGIN_EXCEPTION, "Couldn't find library for: nosuch"},
      {proc("t", "tag") + proc("x", "skippipe"), Pipeline::INIT_SKIPPED, "not this pipeline"},
      {proc("x", "badinit"), Pipeline::INIT_PLUGIN_EXCEPTION, "bad settings"},
      {proc("x", "fatal"), Pipeline::INIT_FATAL_PLUGIN_EXCEPTION, "cannot go on"},
      {"<processor plugin='tag'><config/></processor>", Pipeline::INIT_EXCEPTION,
       "Couldn't find 'name' tag for processor"},
      {"<processor name='p'><config/></processor>", Pipeline::INIT_EXCEPTION,
       "Couldn't find 'plugin' tag for processor: p"},
      {"<processor name='p' plugin='tag'/>", Pipeline::INIT_EXCEPTION, "Couldn't find 'config' tag for processor: p"},
      {"<processor name='p' plugin='tag' configReference='" + dir + "/missing.xml'/>", Pipeline::INIT_EXCEPTION,
       "Couldn't load config file from '" + dir + "/missing.xml'"},
      {"<processor name='p' plugin='tag' configReference='" + dir + "/bad-config.xml'/>", Pipeline::INIT_EXCEPTION,
       "Couldn't parse xml from " + dir + "/bad-config.xml"},
      {"<processor name='p' plugin='recorder' configReference='" + dir + "/good-config.xml'/>",
       Pipeline::INIT_RUNNING, ""},
  };
  for (const Case& c : cases) {
    Harness h;
    Pipeline* p = h.build(pipelineXml("outcome", c.body));
    EXPECT_EQ(p->finishInit(), c.state) << c.body;
    EXPECT_EQ(std::string(p->initError()), c.error) << c.body;
    if (c.state != Pipeline::INIT_RUNNING) {
      EXPECT_TRUE(p->isFinished()) << c.body;
    }
  }
}

TEST(Pipeline, ConfigReferenceFeedsTheProcessor) {
  Sink::get("fromfile").clear();
  Harness h;
  h.run(pipelineXml("ref", source(1) + "<processor name='rec' plugin='recorder' configReference='" +
                               ScratchModeHome::dir + "/good-config.xml'/>"));
  ASSERT_TRUE(Sink::get("fromfile").waitFor(1));
  EXPECT_EQ(Sink::get("fromfile").items(), numbered({1}));
}

// --- the component -------------------------------------------------------------------

struct ComponentFixture {
  ComponentFixture(const std::string& pipelines)
      : componentNode(parse("<component>" + pipelines + "</component>")),
        plugins(gTestLogger, componentNode, testproc::testLookup),
        component(componentNode, xml::node(), nullptr, nullptr, LoaderInfo::getInstance()) {
    component.setFatalErrorAction([this] { ++fatalCalls; });
  }
  // Adds every pipeline the way the service does, without an event loop.
  void addAll() {
    std::vector<Pipeline*> made;
    for (const xml::node& n : componentNode.elements("pipeline")) {
      if (Pipeline* p = component.startAddPipeline(n, &plugins)) made.push_back(p);
    }
    for (Pipeline* p : made) component.finishAddPipeline(p);
    for (Pipeline* p : made) component.finishAddPipeline(p);  // a second report finds nothing to do
  }
  xml::node componentNode;
  PluginProcessor plugins;
  PipelineComponent component;
  int fatalCalls = 0;
};

TEST(PipelineComponent, AFailedBuildCostsOnlyItsPipeline) {
  Sink::get("comp").clear();
  ComponentFixture f(pipelineXml("good", source(3) + recorder("comp")) +
                     pipelineXml("badplugin", proc("x", "nosuch")) + pipelineXml("skipped", proc("x", "skippipe")) +
                     pipelineXml("fatalpipe", proc("x", "fatal")) + pipelineXml("disabledpipe", proc("t", "tag")) +
                     pipelineXml("enabledpipe", proc("t", "tag")) + pipelineXml("twin", proc("a", "tag")) +
                     pipelineXml("twin", proc("b", "tag")));
  EXPECT_EQ(ComponentData::instance().getPipelineComponent(), &f.component);
  EXPECT_EQ(f.component.getMode(), "default-mode");
  f.addAll();

  struct Want {
    const char* name;
    size_t count;
  } want[] = {{"good", 1},      {"badplugin", 0},   {"skipped", 0}, {"fatalpipe", 0},
              {"disabledpipe", 0}, {"enabledpipe", 1}, {"twin", 2}};
  for (const Want& w : want) {
    std::vector<Pipeline*> found;
    f.component.findPipelines(w.name, found);
    EXPECT_EQ(found.size(), w.count) << w.name;
    EXPECT_EQ(f.component.findPipeline(w.name) != nullptr, w.count > 0) << w.name;
  }
  EXPECT_EQ(f.component.pipelines().size(), 4u);
  EXPECT_EQ(f.fatalCalls, 1);

  // Configuration updates find the running pipelines through the component.
  std::vector<MConfigUpdateTarget*> targets;
  f.component.findPipelines("twin", targets);
  ASSERT_EQ(targets.size(), 2u);
  EXPECT_TRUE(targets[0]->hasProcessor("a") != targets[1]->hasProcessor("a"));
  EXPECT_FALSE(targets[0]->loadConfigUpdate("a", parse("<config/>")) && targets[0]->hasProcessor("a"))
      << "a processor that takes no updates refuses them";

  f.component.startPipelines();
  ASSERT_TRUE(Sink::get("comp").waitFor(3));
  EXPECT_EQ(Sink::get("comp").items(), numbered({1, 2, 3}));
  f.component.joinPipelines();
  EXPECT_TRUE(f.component.pipelines().empty());
}

TEST(PipelineComponent, PipelineWithoutNameIsRefused) {
  ComponentFixture f("");
  try {
    f.component.startAddPipeline(parse("<pipeline/>"), &f.plugins);
    ADD_FAILURE() << "no exception";
  } catch (const PipelineException& e) {
    EXPECT_EQ(std::string(e.what()), "Couldn't find 'name' tag for pipeline");
  }
}

TEST(PipelineComponent, ModeNamesAndMissingModeFile) {
  struct Case {
    const char* startup;
    const char* mode;
  } cases[] = {{"", "default-mode"}, {"light", "light-mode"}, {"light-mode", "light-mode"}};
  for (const Case& c : cases) EXPECT_EQ(PipelineComponent::modeName(c.startup), c.mode);

  LoaderInfo li;
  char arg0[] = "velmord", arg1[] = "--mode=nosuch";
  char* argv[] = {arg0, arg1, nullptr};
  li.populateFromCommandLine(2, argv);
  ASSERT_EQ(li.getStartupMode(), "nosuch");
  PipelineComponent c(parse("<component/>"), xml::node(), nullptr, nullptr, li);
  EXPECT_EQ(c.getMode(), "default-mode") << "a missing mode file falls back";
  EXPECT_EQ(c.getModePages(), modePages());
}

TEST(PipelineComponent, ShutsDownThroughItsLevel) {
  Sink::get("shut").clear();
  ShutdownManager manager({{"Pipelines", 4000}});
  std::atomic<int> done{0};
  manager.setCompletionCallback([&] { ++done; });
  ComponentFixture f("");
  f.component.setShutdownLevel(&manager.level(0));
  xml::node n = parse(pipelineXml("shut", source(2) + recorder("shut")));
  Pipeline* p = f.component.startAddPipeline(n, &f.plugins);
  ASSERT_NE(p, nullptr);
  f.component.finishAddPipeline(p);
  EXPECT_EQ(manager.level(0).handlerNames(), (std::vector<Str>{"shut"}));
  f.component.startPipelines();
  ASSERT_TRUE(Sink::get("shut").waitFor(2));

  EXPECT_TRUE(manager.handleShutdown());
  EXPECT_TRUE(eventually([&] { return manager.isFinished(); }));
  EXPECT_EQ(done.load(), 1);
  EXPECT_TRUE(p->isShutdownComplete());
  EXPECT_TRUE(p->isFinished());
  EXPECT_TRUE(manager.level(0).handlerNames().empty()) << "the pipeline unregistered";
  f.component.joinPipelines();
}

TEST(PipelineComponent, TimerCallbacksAndKickHooks) {
  ComponentFixture f("");
  int a = 0, b = 0, kicks = 0;
  int ida = f.component.registerTimerCallback([&] { ++a; });
  f.component.registerTimerCallback([&] { ++b; });
  f.component.registerTimerCallback([] { throw std::runtime_error("a bad callback does not stop the others"); });
  f.component.runTimerCallbacks();
  f.component.unregisterTimerCallback(ida);
  f.component.runTimerCallbacks();
  EXPECT_EQ(a, 1);
  EXPECT_EQ(b, 2);

  int hook = f.component.registerKickHook([&] { ++kicks; });
  PipelineComponentCommHandler comm(&f.component);
  EXPECT_EQ(comm.invokeAPI("<call><name>kick</name><params/></call>"), "<result>ok</result>");
  f.component.unregisterKickHook(hook);
  f.component.kickAll();
  EXPECT_EQ(kicks, 1);
}

// Ends a loop test that went wrong instead of hanging it.
class StopLoop : public OneShotTimeout {
 public:
  explicit StopLoop(EventLoop& l) : _l(l) {}
  void when_expired() override {
    fired = true;
    _l.terminate(1);
  }
  bool fired = false;

 private:
  EventLoop& _l;
};

// Pipelines added from inside a running main loop report on the loop (as
// actors); the 1000 ms timer runs the registered callbacks.
TEST(PipelineComponent, ReportsArriveOnTheMainLoop) {
  Sink::get("looped").clear();
  EventLoop loop;
  std::string body = pipelineXml("looped", source(2) + recorder("looped")) + pipelineXml("broken", proc("x", "nosuch"));
  xml::node node = parse("<component>" + body + "</component>");
  PluginProcessor plugins(gTestLogger, node, testproc::testLookup);
  {
    PipelineComponent component(node, xml::node(), nullptr, &loop, LoaderInfo::getInstance());
    int ticks = 0;
    component.registerTimerCallback([&] {
      ++ticks;
      std::vector<Pipeline*> all = component.pipelines();
      if (all.size() == 1) {
        all[0]->start();
        if (Sink::get("looped").items().size() == 2) loop.terminate(0);
      }
    });
    class Add : public OneShotTimeout {
     public:
      Add(PipelineComponent& c, const xml::node& n, PluginProcessor& p) : _c(c), _n(n), _p(p) {}
      void when_expired() override {
        for (const xml::node& e : _n.elements("pipeline")) _c.startAddPipeline(e, &_p);
      }

     private:
      PipelineComponent& _c;
      const xml::node& _n;
      PluginProcessor& _p;
    } add(component, node, plugins);
    StopLoop guard(loop);
    loop.add(&add, 0);
    loop.add(&guard, 30000);
    int rc = loop.run();
    if (guard.isActive()) loop.remove(&guard);
    EXPECT_FALSE(guard.fired);
    EXPECT_EQ(rc, 0);
    EXPECT_GE(ticks, 1);
    EXPECT_NE(component.findPipeline("looped"), nullptr);
    EXPECT_EQ(component.findPipeline("broken"), nullptr) << "joined and deleted on the loop";
    EXPECT_EQ(Sink::get("looped").items(), numbered({1, 2}));
  }
}

TEST(PipelineComponentCommHandler, Calls) {
  ComponentFixture f(pipelineXml("soapy", proc("answer", "soap") + proc("plain", "tag")));
  f.addAll();
  PipelineComponentCommHandler comm(&f.component);
  comm.registerInvokeAPIHandler("echoParams", [](const xml::node& params) { return Str(params.get_content()); }, 5);
  comm.registerInvokeAPIHandler("getVelmorHome", [](const xml::node&) { return Str("home"); }, 0x7FFFFFFF);

  struct Case {
    std::string body;
    int level;
    std::string reply;
  } cases[] = {
      {"", 0x7FFFFFFF, "<error>No data</error>"},
      {"<call><name>kick", 0x7FFFFFFF, "<error>No data</error>"},
      {"<call><params/></call>", 0x7FFFFFFF, "<error>Couldn't find 'name' tag in invokeAPI</error>"},
      {"<call><name>kick</name></call>", 0x7FFFFFFF,
       "<error>Couldn't find 'params' tag in invokeAPI call named kick</error>"},
      {"<call><name>nosuch</name><params/></call>", 0x7FFFFFFF, "<error>No such method 'nosuch'</error>"},
      {"<call><name>a&lt;b</name><params/></call>", 0x7FFFFFFF, "<error>No such method 'a&lt;b'</error>"},
      {"<call><name>userLogin</name><params/></call>", 0x7FFFFFFF, "<error>No such method name</error>"},
      {"<call><name>manageVelmor</name><params/></call>", 0x7FFFFFFF, "<error>No such method name</error>"},
      {"<call><name>echoParams</name><params>xyz</params></call>", 5, "xyz"},
      {"<call><name>echoParams</name><params>xyz</params></call>", 4,
       "<error>Permission check failed for 'echoParams'</error>"},
      {"<call><name>getVelmorHome</name><params/></call>", 0x7FFFFFFE,
       "<error>Permission check failed for 'getVelmorHome'</error>"},
      {"<call><name>kickProcessor</name><params><pipeline>soapy</pipeline><processor>answer</processor>"
       "<arg>42</arg></params></call>",
       0x7FFFFFFF, "soap:42"},
      {"<call><name>kickProcessor</name><params><pipeline>soapy</pipeline><processor>plain</processor></params>"
       "</call>",
       0x7FFFFFFF, "target found, but does not implement soap targeting"},
      {"<call><name>kickProcessor</name><params><pipeline>soapy</pipeline><processor>none</processor></params>"
       "</call>",
       0x7FFFFFFF, "<error>No such processor 'none' in pipeline 'soapy'</error>"},
      {"<call><name>kickProcessor</name><params><pipeline>gone</pipeline></params></call>", 0x7FFFFFFF,
       "<error>No such pipeline 'gone'</error>"},
  };
  for (const Case& c : cases) EXPECT_EQ(std::string(comm.invokeAPI(c.body, c.level)), c.reply) << c.body;

  std::string info = comm.invokeAPI("<call><name>getServerInfo</name><params/></call>");
  xml::node root = parse(info);
  EXPECT_EQ(std::string(root.get_name()), "serverInfo");
  std::string pid, home;
  EXPECT_TRUE(root.child_content("pid", pid));
  EXPECT_EQ(pid, std::to_string(LoaderInfo::getInstance().getPid()));
  EXPECT_TRUE(root.child_content("velmorHome", home));
  EXPECT_EQ(home, ScratchModeHome::dir);
  for (const char* field : {"version", "host", "startTime"}) EXPECT_FALSE(root.find(field).empty()) << field;
}

}  // namespace
