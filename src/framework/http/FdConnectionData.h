// FdConnectionData: what a request handler knows of the connection that
// carried the request: its descriptor, the peer, whether it came over SSL,
// the local port, and the request itself.
//
// Ownership: the server owns it for the life of the request; handlers get a
// const reference valid until they return.
#pragma once

#include "util/PollableDescriptor.h"
#include "util/SocketAddress.h"

class HTTPRequest;

struct FdConnectionData {
  PollableDescriptor _fd;
  SocketAddress _peer;
  int _localPort = 0;
  bool _ssl = false;
  HTTPRequest* _pRequest = nullptr;
};
