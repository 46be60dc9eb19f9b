// SSLContext: an OpenSSL context: a server context loaded from a PEM
// certificate chain and private key, or a client context. Owns the SSL_CTX. Built once, then shared read-only
// by the loop's connections.
#pragma once

#include "util/Str.h"

typedef struct ssl_ctx_st SSL_CTX;

class SSLContext {
 public:
  SSLContext() = default;
  ~SSLContext();
  SSLContext(const SSLContext&) = delete;
  SSLContext& operator=(const SSLContext&) = delete;

  // False with `error` set (OpenSSL's text) on failure.
  bool loadServer(const Str& certFile, const Str& keyFile, Str& error);
  // A client context that does not verify the peer (the peers are this
  // system's own servers, often with self-signed certificates).
  bool loadClient(Str& error);
  SSL_CTX* get() const { return _ctx; }

 private:
  SSL_CTX* _ctx = nullptr;
};
