#include "util/TimeUnit.h"

#include <strings.h>

#include <utility>

bool timeUnitByName(std::string_view word, TimeUnit& unit) {
  static const std::pair<std::string_view, TimeUnit> kWords[] = {
      {"s", TimeUnit::kSecond},   {"sec", TimeUnit::kSecond},       {"secs", TimeUnit::kSecond},
      {"second", TimeUnit::kSecond}, {"seconds", TimeUnit::kSecond}, {"m", TimeUnit::kMinute},
      {"min", TimeUnit::kMinute}, {"mins", TimeUnit::kMinute},      {"minute", TimeUnit::kMinute},
      {"minutes", TimeUnit::kMinute}, {"h", TimeUnit::kHour},       {"hr", TimeUnit::kHour},
      {"hrs", TimeUnit::kHour},   {"hour", TimeUnit::kHour},        {"hours", TimeUnit::kHour},
      {"d", TimeUnit::kDay},      {"day", TimeUnit::kDay},          {"days", TimeUnit::kDay},
      {"w", TimeUnit::kWeek},     {"week", TimeUnit::kWeek},        {"weeks", TimeUnit::kWeek},
      {"mon", TimeUnit::kMonth},  {"mons", TimeUnit::kMonth},       {"month", TimeUnit::kMonth},
      {"months", TimeUnit::kMonth}, {"q", TimeUnit::kQuarter},      {"quarter", TimeUnit::kQuarter},
      {"quarters", TimeUnit::kQuarter}, {"y", TimeUnit::kYear},     {"yr", TimeUnit::kYear},
      {"yrs", TimeUnit::kYear},   {"year", TimeUnit::kYear},        {"years", TimeUnit::kYear},
  };
  for (const auto& [w, u] : kWords) {
    if (w.size() == word.size() && strncasecmp(w.data(), word.data(), word.size()) == 0) {
      unit = u;
      return true;
    }
  }
  return false;
}
