#include "framework/rest/HTTPSessionSweeper.h"

#include "framework/rest/HTTPAuthManager.h"

void HTTPSessionSweeper::when_expired(unsigned long long& /*reschedule_ms*/) {
  // reschedule_ms keeps the interval the timer was added with.
  _auth.removeTimedoutAuthInfo();
}
