// Any bytes as the text of a search: parsing, argument tokenizing and the
// option readers must either succeed or throw SearchProcessorException.
#include <cstddef>
#include <cstdint>
#include <memory>

#include "search/SearchFactory.h"
#include "search/SearchParser.h"
#include "search/SearchPipeline.h"
#include "util/Exceptions.h"

namespace {

// Reads its arguments the way ordinary commands do, without running.
class ArgReader : public SearchProcessor {
 public:
  explicit ArgReader(const Str& n) : SearchProcessor(n) {}
  static SearchProcessor* create(const Str& n) { return new ArgReader(n); }
  void processArguments() override {
    long limit;
    bool flag;
    getOption("limit", limit);
    getOption("flag", flag);
    std::set<Str> fields;
    getFieldSet(fields, "by", true);
    isNextKeyword("by");
    std::vector<Str> rest;
    getNextArgs(rest, true);
  }
};

void registerOnce() {
  static bool done = false;
  if (done) return;
  done = true;
  for (const char* n : {"search", "stats", "head", "eval", "fields", "sort"})
    SearchFactory::registerBuiltin(n, &ArgReader::create, false);
  SearchFactory::registerBuiltin("prestats", &ArgReader::create, true);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  registerOnce();
  Str text(reinterpret_cast<const char*>(data), size);
  try {
    std::unique_ptr<SearchProcessor> p(SearchParser::parse(text, (size & 1) != 0));
    for (SearchProcessor* c : static_cast<SearchPipeline*>(p.get())->getProcessors()) {
      c->parseArguments();
      try {
        c->processArguments();
      } catch (const SearchProcessorException&) {
      }
      c->toString(0);
    }
    p->toString(0);
  } catch (const SearchProcessorException&) {
  }
  return 0;
}
