#include "util/SSLContext.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

SSLContext::~SSLContext() { SSL_CTX_free(_ctx); }

static Str lastError() {
  char buf[256];
  ERR_error_string_n(ERR_get_error(), buf, sizeof buf);
  return Str(buf);
}

bool SSLContext::loadServer(const Str& certFile, const Str& keyFile, Str& error) {
  SSL_CTX_free(_ctx);
  _ctx = SSL_CTX_new(TLS_server_method());
  if (_ctx == nullptr) {
    error = lastError();
    return false;
  }
  if (SSL_CTX_use_certificate_chain_file(_ctx, certFile.c_str()) != 1 ||
      SSL_CTX_use_PrivateKey_file(_ctx, keyFile.c_str(), SSL_FILETYPE_PEM) != 1 ||
      SSL_CTX_check_private_key(_ctx) != 1) {
    error = lastError();
    SSL_CTX_free(_ctx);
    _ctx = nullptr;
    return false;
  }
  SSL_CTX_set_mode(_ctx, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  return true;
}

bool SSLContext::loadClient(Str& error) {
  SSL_CTX_free(_ctx);
  _ctx = SSL_CTX_new(TLS_client_method());
  if (_ctx == nullptr) {
    error = lastError();
    return false;
  }
  SSL_CTX_set_verify(_ctx, SSL_VERIFY_NONE, nullptr);
  SSL_CTX_set_mode(_ctx, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  return true;
}
