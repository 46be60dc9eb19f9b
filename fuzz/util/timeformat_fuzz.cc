// Fuzz target for time parsing and zone data. The input is a format, a
// newline, then the text. Properties:
//  1. rawParse stays inside [text, end) and reports a stop point inside it.
//  2. When the fields make a time in a year 1000-9999, printing that time in
//     UTC and parsing it back gives the same second.
//  3. An input starting with "TZif" is zone data: it is accepted or refused,
//     and an accepted zone answers offsets and wall-clock conversions with
//     offsets under 100000 seconds. Any other input is also tried as a POSIX TZ text.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "util/ExtraTimevalParseInfo.h"
#include "util/StructTm.h"
#include "util/TimeFormat.h"
#include "util/TimeGuesser.h"
#include "util/Timeval.h"
#include "util/Timezone.h"

namespace {

class FixedGuesser : public TimeGuesser {
 public:
  int64_t current() override { return 1795539600; }
  const Timezone& baseTimezone() override { return Timezone::gmt(); }
};

void checkZone(const Timezone& tz) {
  for (int64_t t : {int64_t{-5000000000}, int64_t{0}, int64_t{1795539600}, int64_t{4102444800}}) {
    int32_t off = tz.offsetAt(t);
    if (off <= -100000 || off >= 100000) abort();
    int64_t wall = t + off;
    if (!tz.convertToGmt(wall)) abort();
    if (wall - t > 100000 || t - wall > 100000) abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // An exact-size copy, so that reading past the end is caught by the sanitizers.
  std::vector<char> buf(data, data + size);
  const char* text = buf.data();

  if (size >= 4 && memcmp(text, "TZif", 4) == 0) {
    std::unique_ptr<Timezone> tz(Timezone::fromAncientZoneinfoData(text, size));
    if (tz) checkZone(*tz);
    return 0;
  }
  if (size < 64) {
    std::string posix(text, size);
    std::unique_ptr<Timezone> tz(Timezone::fromPosixTZ(posix.c_str()));
    if (tz) checkZone(*tz);
  }

  const char* nl = static_cast<const char*>(memchr(text, '\n', size));
  if (!nl) return 0;
  const TimeFormat format(Str(text, nl));
  const char* begin = nl + 1;
  const char* end = text + size;
  TimeFormatRawParseResult raw;
  const char* stop = nullptr;
  if (!format.rawParse(begin, end, raw, &stop)) return 0;
  if (stop < begin || stop > end) abort();

  FixedGuesser guesser;
  Timeval tv;
  ExtraTimevalParseInfo extra;
  if (!tv.set(raw, guesser, &extra)) return 0;
  if (tv.sec() < -30610224000 || tv.sec() >= 253402300800) return 0;   // years 1000-9999 only
  const Str printed = GmtStructTm(tv.sec()).ftime("%Y-%m-%d %H:%M:%S +0000");
  Timeval back;
  if (!back.parse(printed.data(), printed.data() + printed.size(), TimeFormat("%F %T %z"), guesser, nullptr)) {
    abort();
  }
  if (back.sec() != tv.sec()) abort();
  return 0;
}
