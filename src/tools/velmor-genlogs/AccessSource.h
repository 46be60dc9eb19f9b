// AccessSource: a web server's access log in the combined format, with the
// response time in milliseconds appended:
//   ip ident user [dd/Mmm/yyyy:hh:mm:ss +0000] "METHOD uri PROTO" status bytes "referrer" "agent" ms
// Requests are page views, static files, API calls, logins, crawler visits
// and vulnerability probes, each with its own spread of statuses, sizes and
// times. Each request can also go to an AccessCsv (not owned; may be null).
#pragma once

#include <string>

#include "EventSource.h"

class AccessCsv;

class AccessSource : public EventSource {
 public:
  AccessSource(const SourceContext& context, AccessCsv* csv) : EventSource(context), _csv(csv) {}
  void emit(int64_t millis, LineBuffer& out, Rng& rng) override;
  double typicalBytes() const override { return 260; }

 private:
  struct Request {
    const char* method;
    unsigned status;
    uint64_t bytes;
    double durationMs;
    const char* agent;
  };
  void page(Rng& rng, Request& r);
  void staticFile(Rng& rng, Request& r);
  void api(Rng& rng, Request& r);
  void login(Rng& rng, Request& r);
  void crawler(Rng& rng, Request& r);
  void probe(Rng& rng, Request& r);

  AccessCsv* _csv;
  // Reused between requests so that no event allocates once warmed up.
  std::string _ip, _uri, _referrer;
};
