// Fuzz target: the input is a stream of lines for one DateParser using the
// shipped datetime.xml (a first line "F:<format>" sets TIME_FORMAT, "P:<re>"
// sets TIME_PREFIX). Every line goes through hasTime and parseDate. Nothing
// may crash and nothing may escape but DateParseException from a bad prefix;
// a time found in the text itself lies inside the date window around the
// reference, and a line with no time of its own gives the previous time.
#include <cstddef>
#include <cstdint>
#include <string>

#include "pipeline/analysis/DateParser.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string in(reinterpret_cast<const char*>(data), size);
  const int64_t reference = 1795521600;  // 2026-11-24 12:00:00 UTC
  DateParser p(true);
  p.loadRegexes(VELMOR_SOURCE_DIR "/etc/datetime.xml");
  p.setTZ("UTC");
  p.setDateLookahead(150);

  size_t pos = 0;
  bool formatSet = false;
  if (in.compare(0, 2, "F:") == 0 || in.compare(0, 2, "P:") == 0) {
    size_t nl = in.find('\n');
    const Str arg(in.substr(2, nl == std::string::npos ? std::string::npos : nl - 2));
    if (in[0] == 'F') {
      p.setTimeFormat(arg);
      formatSet = true;
    } else {
      try {
        p.setTimePrefix(arg);
      } catch (const DateParseException&) {
        return 0;
      }
    }
    pos = nl == std::string::npos ? in.size() : nl + 1;
  }

  Timeval last;
  bool haveLast = false;
  int lines = 0;
  while (pos < in.size() && lines++ < 1000) {
    size_t nl = in.find('\n', pos);
    if (nl == std::string::npos) nl = in.size();
    const StrSegment line(in.data() + pos, nl - pos);
    pos = nl + 1;
    p.hasTime(line);
    Timeval out;
    ExtraTimevalParseInfo extra;
    if (p.parseDate(out, line, Timeval(reference, 0), extra)) {
      // The default window: 1825 days back, 7 days ahead, with a day's slack
      // for a cached date whose clock moved on. TIME_FORMAT is not windowed.
      const bool inWindow =
          out.sec() >= reference - 1826LL * 86400 && out.sec() <= reference + 8LL * 86400;
      if (!formatSet && !inWindow && !(haveLast && out == last)) __builtin_trap();
      if (out.usec() < 0 || out.usec() > 999999) __builtin_trap();
      last = out;
      haveLast = true;
    } else if (haveLast) {
      __builtin_trap();  // the previous event's time must carry over
    }
  }
  return 0;
}
