#include "pipeline/indexer/RSAPrivateKey.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <vector>

#include "util/Base64.h"
#include "util/Exceptions.h"

RSAPrivateKey::~RSAPrivateKey() { EVP_PKEY_free(_key); }

static EVP_PKEY* readKey(BIO* bio) {
  EVP_PKEY* k = bio ? PEM_read_bio_PrivateKey(bio, nullptr, nullptr, nullptr) : nullptr;
  BIO_free(bio);
  if (k && EVP_PKEY_get_base_id(k) != EVP_PKEY_RSA) {
    EVP_PKEY_free(k);
    k = nullptr;
  }
  return k;
}

bool RSAPrivateKey::loadPemFile(const Pathname& file) {
  EVP_PKEY* k = readKey(BIO_new_file(file.c_str(), "r"));
  if (!k) return false;
  EVP_PKEY_free(_key);
  _key = k;
  return true;
}

bool RSAPrivateKey::loadPemText(const StrSegment& pem) {
  EVP_PKEY* k = readKey(BIO_new_mem_buf(pem.data(), int(pem.size())));
  if (!k) return false;
  EVP_PKEY_free(_key);
  _key = k;
  return true;
}

Str RSAPrivateKey::encrypt(const StrSegment& bytes) const {
  if (!_key) throw RSAException("No private key loaded");
  EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(_key, nullptr);
  size_t len = 0;
  std::vector<unsigned char> out;
  bool ok = ctx && EVP_PKEY_sign_init(ctx) > 0 && EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_PADDING) > 0 &&
            EVP_PKEY_sign(ctx, nullptr, &len, (const unsigned char*)bytes.data(), bytes.size()) > 0;
  if (ok) {
    out.resize(len);
    ok = EVP_PKEY_sign(ctx, out.data(), &len, (const unsigned char*)bytes.data(), bytes.size()) > 0;
  }
  EVP_PKEY_CTX_free(ctx);
  if (!ok) throw RSAException("Unable to sign with the private key");
  return Base64::encode(out.data(), len);
}

bool RSAPrivateKey::verify(const StrSegment& bytes, const StrSegment& signature) const {
  if (!_key) return false;
  Str sig;
  if (!Base64::decode(signature, sig)) return false;
  EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(_key, nullptr);
  bool ok = ctx && EVP_PKEY_verify_init(ctx) > 0 && EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_PADDING) > 0 &&
            EVP_PKEY_verify(ctx, (const unsigned char*)sig.data(), sig.size(), (const unsigned char*)bytes.data(),
                            bytes.size()) == 1;
  EVP_PKEY_CTX_free(ctx);
  return ok;
}
