// Records through a pipeline of no-op processors, and record pairs through
// a queue, the two ways records move inside the service.
//
//   BM_PipelineNoOps/N   a source making records, N processors that pass
//                        them on, the last counting them: records per second
//   BM_QueuePairs/P      P producers and P consumers on one bounded queue
//                        (1000 records): records per second
#include <benchmark/benchmark.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "framework/Pipeline.h"
#include "framework/PluginProcessor.h"
#include "framework/ProducerConsumerQueue.h"
#include "util/Logger.h"
#include "util/MainThread.h"
#include "util/xml/XmlTreeParser.h"

namespace {

Logger gLogger("bench_pipeline");

// Counts records; the benchmark waits for the count it wants.
struct Counter {
  std::mutex m;
  std::condition_variable cv;
  long seen = 0, want = 0;
};
Counter gCounter;

// Makes records as fast as they are taken: the same shared text each time,
// so that the pipeline's own cost is what is measured.
class SourceProcessor : public Processor {
 public:
  void init(const xml::node&, const xml::node&) override { _raw = std::make_shared<const Str>(Str(200, 'x')); }
  int execute(std::shared_ptr<PipelineData>&) override { return eOk; }
  std::shared_ptr<PipelineData> createPipelineData() override {
    auto r = std::make_shared<PipelineData>();
    r->put(PipelineData::rawKey, _raw);
    return r;
  }

 private:
  PipelineData::SharedStr _raw;
};

class PassProcessor : public Processor {
 public:
  void init(const xml::node&, const xml::node&) override {}
  int execute(std::shared_ptr<PipelineData>&) override { return eOk; }
};

class CountProcessor : public Processor {
 public:
  void init(const xml::node&, const xml::node&) override {}
  int execute(std::shared_ptr<PipelineData>&) override {
    if (++_n % 1024 == 0) {
      std::lock_guard<std::mutex> l(gCounter.m);
      gCounter.seen += 1024;
      if (gCounter.seen >= gCounter.want) gCounter.cv.notify_all();
    }
    return eOk;
  }

 private:
  long _n = 0;
};

const SimplePluginFactory<SourceProcessor> kSource("source");
const SimplePluginFactory<PassProcessor> kPass("pass");
const SimplePluginFactory<CountProcessor> kCount("count");

const PluginFactory* lookup(const char* name) {
  for (const PluginFactory* f : {static_cast<const PluginFactory*>(&kSource), static_cast<const PluginFactory*>(&kPass),
                                 static_cast<const PluginFactory*>(&kCount)})
    if (f->matchName(name)) return f;
  return nullptr;
}

void BM_PipelineNoOps(benchmark::State& state) {
  if (!MainThread::instance()) new MainThread();
  std::string xml = "<pipeline name='bench'><processor name='src' plugin='source'><config/></processor>";
  for (int i = 0; i < state.range(0); ++i)
    xml += "<processor name='p" + std::to_string(i) + "' plugin='pass'><config/></processor>";
  xml += "<processor name='count' plugin='count'><config/></processor></pipeline>";
  xml::tree_parser parser(xml.data(), xml.size());
  const std::string componentXml = "<component/>";
  xml::tree_parser componentParser(componentXml.data(), componentXml.size());
  xml::node component = componentParser.get_document().get_root_node();
  PluginProcessor plugins(gLogger, component, &lookup);
  {
    std::lock_guard<std::mutex> l(gCounter.m);
    gCounter.seen = 0;
    gCounter.want = 0;
  }
  Pipeline p(parser.get_document().get_root_node(), &plugins, nullptr, nullptr, nullptr);
  if (p.finishInit() != Pipeline::INIT_RUNNING) {
    state.SkipWithError("pipeline did not build");
    return;
  }
  p.start();
  const long kBatch = 1 << 16;
  for (auto _ : state) {
    std::unique_lock<std::mutex> l(gCounter.m);
    gCounter.want = gCounter.seen + kBatch;
    gCounter.cv.wait(l, [] { return gCounter.seen >= gCounter.want; });
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * kBatch);
  p.requestStop();
}
BENCHMARK(BM_PipelineNoOps)->Arg(1)->Arg(8)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_QueuePairs(benchmark::State& state) {
  const int pairs = int(state.range(0));
  const long kPerProducer = 200000 / pairs;
  auto record = std::make_shared<PipelineData>();
  record->put(PipelineData::rawKey, Str(200, 'x'));
  for (auto _ : state) {
    ProducerConsumerQueue q(1000);
    std::atomic<long> taken{0};
    const long total = kPerProducer * pairs;
    std::vector<std::thread> threads;
    for (int i = 0; i < pairs; ++i) {
      threads.emplace_back([&] {
        for (long n = 0; n < kPerProducer; ++n) q.insert(record, 5);
      });
      threads.emplace_back([&] {
        ProducerConsumerQueue::Record r;
        while (taken.load() < total)
          if (q.remove(r, 1)) taken.fetch_add(1);
      });
    }
    for (auto& t : threads) t.join();
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * kPerProducer * pairs);
}
BENCHMARK(BM_QueuePairs)->Arg(1)->Arg(4)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
