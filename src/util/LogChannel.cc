// LogChannel: fan-out of one message to the appenders.
#include "util/LogChannel.h"

#include "util/LogAppender.h"

void LogChannel::write(int level, const char* message, size_t length, const struct timespec& when) const {
  if (!isEnabled(level)) return;
  LogFormat::Event ev{_name.c_str(), level, message, length, when};
  for (LogAppender* a : _appenders) a->append(ev);
}
