// Fuzz target: arbitrary bytes as one request read by the server, and as a
// reply read by the client. The header block (up to the first blank line)
// and the body are parsed; URL decoding must undo URL encoding of whatever
// the parser produced; nothing may crash or throw.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "framework/http/HTTPRequest.h"
#include "framework/http/HTTPRequestReply.h"
#include "framework/http/HTTPServer.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const Str in(reinterpret_cast<const char*>(data), size);
  size_t end = in.find("\r\n\r\n");
  Str header = end == Str::npos ? in : Str(in.substr(0, end + 4));
  Str body = end == Str::npos ? Str() : Str(in.substr(end + 4));

  HTTPServer::getContentLength(header);
  HTTPServer::validateMethod(Str(in.substr(0, in.find(' '))));

  HTTPRequest req;
  Str err;
  if (req.parse(header, body, err)) {
    std::vector<Str> parts;
    req.getMethodComponents(parts);
    req.getHost();
    for (const Str& p : parts)
      if (HTTPRequest::urlDecode(HTTPRequest::urlEncode(p), false) != p) std::abort();
  } else if (err.empty()) {
    std::abort();  // a refusal always says why
  }

  for (bool eof : {false, true}) {
    HTTPRequestReply reply;
    Str rerr;
    if (reply.parseFull(in, eof, rerr) == HTTPRequestReply::kMalformed && rerr.empty()) std::abort();
  }
  return 0;
}
