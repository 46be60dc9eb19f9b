// Log configuration text -> parse and build channels; must never crash.
// The first line of the input is also compiled and rendered as a log format.
#include <cstddef>
#include <cstdint>
#include <string>

#include "util/LogChannel.h"
#include "util/LogConfig.h"
#include "util/LogFormat.h"
#include "util/Logger.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);
  LogConfig config;
  if (config.parse(text, "fuzz.cfg")) {
    config.buildChannels();
    config.channelFor("fuzz");
  }
  LogFormat format(text.substr(0, text.find('\n')));
  LogFormat::Event ev{"fuzz", Logger::WARN, "message", 7, {1700000000, 5}};
  std::string out;
  format.format(out, ev);
  return 0;
}
