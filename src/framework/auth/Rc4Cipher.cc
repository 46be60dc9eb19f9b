#include "framework/auth/Rc4Cipher.h"

#include <openssl/evp.h>
#include <openssl/provider.h>

#include <cassert>
#include <cstdint>

#include "util/Logger.h"

static Logger gLogger("Rc4Cipher");

namespace {

// The private library context with the legacy provider, and RC4 fetched
// from it; both live until exit. Null when RC4 cannot be had.
EVP_CIPHER* libraryRc4() {
  static EVP_CIPHER* cipher = [] () -> EVP_CIPHER* {
    OSSL_LIB_CTX* ctx = OSSL_LIB_CTX_new();
    if (ctx == nullptr) return nullptr;
    if (OSSL_PROVIDER_load(ctx, "legacy") == nullptr || OSSL_PROVIDER_load(ctx, "default") == nullptr) {
      gLogger.info("The legacy cipher provider is not available, using the built-in RC4");
      OSSL_LIB_CTX_free(ctx);
      return nullptr;
    }
    EVP_CIPHER* c = EVP_CIPHER_fetch(ctx, "RC4", nullptr);
    if (c == nullptr) gLogger.info("RC4 could not be fetched, using the built-in RC4");
    return c;
  }();
  return cipher;
}

}  // namespace

bool Rc4Cipher::libraryAvailable() { return libraryRc4() != nullptr; }

bool Rc4Cipher::applyLibrary(const Str& key, const Str& data, Str& out) {
  assert(!key.empty() && key.size() <= 256);
  EVP_CIPHER* rc4 = libraryRc4();
  if (rc4 == nullptr) return false;
  EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
  if (ctx == nullptr) return false;
  bool ok = EVP_EncryptInit_ex(ctx, rc4, nullptr, nullptr, nullptr) == 1 &&
            EVP_CIPHER_CTX_set_key_length(ctx, static_cast<int>(key.size())) == 1 &&
            EVP_EncryptInit_ex(ctx, nullptr, nullptr, reinterpret_cast<const unsigned char*>(key.data()), nullptr) == 1;
  Str result(data.size() + 16, '\0');
  int n = 0, tail = 0;
  if (ok)
    ok = EVP_EncryptUpdate(ctx, reinterpret_cast<unsigned char*>(&result[0]), &n,
                           reinterpret_cast<const unsigned char*>(data.data()), static_cast<int>(data.size())) == 1 &&
         EVP_EncryptFinal_ex(ctx, reinterpret_cast<unsigned char*>(&result[0]) + n, &tail) == 1;
  EVP_CIPHER_CTX_free(ctx);
  if (!ok) return false;
  result.resize(static_cast<size_t>(n + tail));
  out = std::move(result);
  return true;
}

Str Rc4Cipher::applyOwn(const Str& key, const Str& data) {
  assert(!key.empty() && key.size() <= 256);
  uint8_t s[256];
  for (int i = 0; i < 256; ++i) s[i] = static_cast<uint8_t>(i);
  uint8_t j = 0;
  for (int i = 0; i < 256; ++i) {
    j = static_cast<uint8_t>(j + s[i] + static_cast<uint8_t>(key[static_cast<size_t>(i) % key.size()]));
    std::swap(s[i], s[j]);
  }
  Str out(data);
  uint8_t a = 0, b = 0;
  for (char& c : out) {
    a = static_cast<uint8_t>(a + 1);
    b = static_cast<uint8_t>(b + s[a]);
    std::swap(s[a], s[b]);
    c = static_cast<char>(static_cast<uint8_t>(c) ^ s[static_cast<uint8_t>(s[a] + s[b])]);
  }
  return out;
}

Str Rc4Cipher::apply(const Str& key, const Str& data) {
  Str out;
  if (applyLibrary(key, data, out)) return out;
  return applyOwn(key, data);
}
