// Message formatting for the exception family.
#include "util/Exceptions.h"

#include <cstdarg>
#include <cstdio>

std::string formatExceptionMessage(const char* fmt, ...) {
  char stackBuf[256];
  va_list ap;
  va_start(ap, fmt);
  int n = vsnprintf(stackBuf, sizeof(stackBuf), fmt, ap);
  va_end(ap);
  if (n < 0) return std::string(fmt);
  if (static_cast<size_t>(n) < sizeof(stackBuf)) return std::string(stackBuf, n);
  std::string out(static_cast<size_t>(n), '\0');
  va_start(ap, fmt);
  vsnprintf(out.data(), out.size() + 1, fmt, ap);
  va_end(ap);
  return out;
}
