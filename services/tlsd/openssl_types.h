#pragma once

#include <memory>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

namespace tlsd {

struct OpensslFree {
  void operator()(BIO* object) const { BIO_free_all(object); }
  void operator()(BIGNUM* object) const { BN_free(object); }
  void operator()(EVP_PKEY* object) const { EVP_PKEY_free(object); }
  void operator()(GENERAL_NAMES* object) const { GENERAL_NAMES_free(object); }
  void operator()(SSL* object) const { SSL_free(object); }
  void operator()(SSL_CTX* object) const { SSL_CTX_free(object); }
  void operator()(X509* object) const { X509_free(object); }
  void operator()(X509_EXTENSION* object) const { X509_EXTENSION_free(object); }
};

// An object of OpenSSL that is freed with its owner; null when it could not be made.
template <typename T>
using Owned = std::unique_ptr<T, OpensslFree>;

}  // namespace tlsd
