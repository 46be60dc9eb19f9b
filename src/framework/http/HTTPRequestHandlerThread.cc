#include "framework/http/HTTPRequestHandlerThread.h"

#include <exception>

#include "framework/http/FdData.h"
#include "framework/http/HTTPReply.h"
#include "framework/http/HTTPServer.h"
#include "framework/http/MHttpRequestHandler.h"
#include "util/Logger.h"

static Logger gLogger("HTTPRequestHandlerThread");

HTTPRequestHandlerThread::HTTPRequestHandlerThread(HTTPServer* server, FdData* data, MHttpRequestHandler* handler)
    : Thread("HTTPRequestHandlerThread"),
      _pServer(server),
      _pFdData(data),
      _pPolledFd(data->_pPolledFd),
      _handler(handler) {}

HTTPRequestHandlerThread::~HTTPRequestHandlerThread() { joinEvenIfUnstarted(); }

void HTTPRequestHandlerThread::main() {
  const HTTPRequest* req = _pFdData->_request.get();
  HTTPReply* reply = nullptr;
  gLogger.debug("Preparing to make callback.");
  try {
    reply = _handler != nullptr ? _handler->handleRequest(_pFdData->_conn, req)
                                : HTTPReply::createNotFoundErrorReply();
  } catch (const std::exception& e) {
    gLogger.error("Request handler failed for %s: %s", req->path().c_str(), e.what());
  } catch (...) {
    gLogger.error("Request handler failed for %s", req->path().c_str());
  }
  gLogger.debug("Callback finished.");
  if (reply == nullptr) reply = HTTPReply::createErrorXMLReply(500, "ERROR", "Internal Server Error");
  Str bytes;
  reply->toString(bytes);
  if (req->method() == "HEAD") {
    // Only the header goes back, with the length the body would have.
    size_t end = bytes.find("\r\n\r\n");
    if (end != Str::npos) bytes.resize(end + 4);
  }
  delete reply;
  _pServer->requestFinished(this, _pFdData, _pPolledFd, std::move(bytes));
}
