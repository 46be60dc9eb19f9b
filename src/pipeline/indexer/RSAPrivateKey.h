// RSAPrivateKey: the RSA key that signs blocks of events. encrypt() is a
// private-key operation with PKCS#1 v1.5 padding over the given bytes (no
// digest is added: the caller passes a hash), returned as Base64;
// verify() recovers those bytes with the public half and compares.
//
// Ownership: owns the OpenSSL key. Threads: const members may run on any
// number of threads at once; load on one thread before sharing.
#pragma once

#include "util/Pathname.h"
#include "util/Str.h"
#include "util/StrSegment.h"

typedef struct evp_pkey_st EVP_PKEY;

class RSAPrivateKey {
 public:
  RSAPrivateKey() = default;
  ~RSAPrivateKey();
  RSAPrivateKey(const RSAPrivateKey&) = delete;
  RSAPrivateKey& operator=(const RSAPrivateKey&) = delete;

  // Loads a PEM private key (file or text). False when it is not an RSA
  // private key.
  bool loadPemFile(const Pathname& file);
  bool loadPemText(const StrSegment& pem);
  bool isLoaded() const { return _key != nullptr; }

  // Throws RSAException when there is no key or the bytes do not fit.
  Str encrypt(const StrSegment& bytes) const;
  // True when signature (Base64, from encrypt) is of exactly these bytes.
  bool verify(const StrSegment& bytes, const StrSegment& signature) const;

 private:
  EVP_PKEY* _key = nullptr;
};
