#include "framework/rest/HTTPDigestAuthenticationImpl.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <cstdlib>
#include <memory>

#include "framework/auth/MAuthenticationManager.h"
#include "framework/http/HTTPRequest.h"
#include "framework/rest/HTTPAuthManager.h"
#include "util/Logger.h"

static Logger gLogger("HTTPAuthManager");

Str HTTPDigestAuthenticationImpl::md5Hex(const Str& text) {
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  if (EVP_Digest(text.data(), text.size(), md, &len, EVP_md5(), nullptr) != 1) return "";
  static const char* kHex = "0123456789abcdef";
  Str out;
  for (unsigned int i = 0; i < len; ++i) {
    out += kHex[md[i] >> 4];
    out += kHex[md[i] & 15];
  }
  return out;
}

Str HTTPDigestAuthenticationImpl::computeResponse(const Str& user, const Str& realm, const Str& password,
                                                  const Str& method, const Str& uri, const Str& nonce, const Str& nc,
                                                  const Str& cnonce, const Str& qop) {
  Str ha1 = md5Hex(user + ":" + realm + ":" + password);
  Str ha2 = md5Hex(method + ":" + uri);
  return md5Hex(ha1 + ":" + nonce + ":" + nc + ":" + cnonce + ":" + qop + ":" + ha2);
}

bool HTTPDigestAuthenticationImpl::parseHeader(const Str& value, std::map<Str, Str>& out) {
  size_t i = 0;
  while (i < value.size() && value[i] == ' ') ++i;
  static const char kScheme[] = "digest";
  for (size_t k = 0; k < sizeof(kScheme) - 1; ++k, ++i)
    if (i >= value.size() || (value[i] | 0x20) != kScheme[k]) return false;
  if (i < value.size() && value[i] != ' ') return false;
  while (i < value.size()) {
    while (i < value.size() && (value[i] == ' ' || value[i] == ',' || value[i] == '\t')) ++i;
    size_t keyStart = i;
    while (i < value.size() && value[i] != '=' && value[i] != ',' && value[i] != ' ') ++i;
    Str key = value.substr(keyStart, i - keyStart);
    while (i < value.size() && value[i] == ' ') ++i;
    Str v;
    if (i < value.size() && value[i] == '=') {
      ++i;
      while (i < value.size() && value[i] == ' ') ++i;
      if (i < value.size() && value[i] == '"') {
        ++i;
        while (i < value.size() && value[i] != '"') {
          if (value[i] == '\\' && i + 1 < value.size()) ++i;
          v += value[i++];
        }
        ++i;  // closing quote
      } else {
        size_t vs = i;
        while (i < value.size() && value[i] != ',' && value[i] != ' ') ++i;
        v = value.substr(vs, i - vs);
      }
    }
    if (!key.empty()) out[key] = v;
  }
  return true;
}

EAuthState HTTPDigestAuthenticationImpl::authenticate(const HTTPRequest* req, Str& user, Str& reason,
                                                      HTTPReply*& /*reply*/) {
  const Str* h = req->header("Authorization");
  std::map<Str, Str> p;
  if (h == nullptr || !parseHeader(*h, p)) return AUTH_NOT_APPLICABLE;
  reason = "non matching response from the server and the client";
  if (p["realm"] != HTTPAuthManager::kRealm) {
    gLogger.warn("realm != /velmor");
    return AUTH_REFUSED;
  }
  const Str& nonce = p["nonce"];
  if (nonce.empty()) {
    gLogger.warn("couldn't find nonce key");
    return AUTH_REFUSED;
  }
  if (p["qop"] != "auth" || p["nc"].empty() || p["cnonce"].empty() || p["username"].empty() ||
      p["opaque"] != _mgr.digestOpaque() || p["uri"] != req->rawPath()) {
    gLogger.warn("%s", reason.c_str());
    return AUTH_REFUSED;
  }
  char* end = nullptr;
  long nc = std::strtol(p["nc"].c_str(), &end, 16);
  if (end == nullptr || *end != '\0' || nc <= 0) {
    gLogger.warn("%s", reason.c_str());
    return AUTH_REFUSED;
  }
  long last = 0;
  if (!_mgr.getNonceCount(nonce, last)) {
    // A nonce we never gave out, or one that has expired: the client starts
    // over with the fresh challenge of the refusal.
    gLogger.warn("couldn't find nonce value");
    return AUTH_END;
  }
  if (nc != last + 1) {
    gLogger.warn("nc(%ld) != nc+1(%ld)", nc, last + 1);
    reason = Str::fromFormat("nc(%ld) != nc+1(%ld)", nc, last + 1);
    return AUTH_REFUSED;
  }
  std::shared_ptr<MAuthenticationManager> backend = _mgr.backend();
  Str password;
  if (!backend || !backend->getCleartextPassword(p["username"], password)) {
    gLogger.warn("%s", reason.c_str());
    return AUTH_REFUSED;
  }
  Str expected = computeResponse(p["username"], p["realm"], password, req->method(), p["uri"], nonce, p["nc"],
                                 p["cnonce"], p["qop"]);
  OPENSSL_cleanse(password.data(), password.size());
  const Str& got = p["response"];
  if (got.size() != expected.size() || CRYPTO_memcmp(got.data(), expected.data(), got.size()) != 0) {
    gLogger.warn("%s", reason.c_str());
    return AUTH_REFUSED;
  }
  // The count moves only for a request that proved the password, so that a
  // forged request cannot push a real client's count out of step.
  if (!_mgr.setNonceCount(nonce, last, nc)) {
    reason = Str::fromFormat("nc(%ld) != nc+1(%ld)", nc, last + 1);
    gLogger.warn("%s", reason.c_str());
    return AUTH_REFUSED;
  }
  gLogger.debug("set nc in map to %ld", nc);
  user = p["username"];
  reason.clear();
  return AUTH_DECIDED;
}
